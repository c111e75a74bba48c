// Host names to addresses, for both protocols.
#include "platform/http/name_resolution.h"

#include <netdb.h>
#include <sys/socket.h>

namespace Tessel::Http {
namespace {

// "localhost" and names under it are this machine's loopback whatever the
// resolver says: a minimal root may have no /etc/hosts at all. Gives the
// loopback literals to connect to (IPv4 first), or none for any other name.
std::vector<const char*> LoopbackLiterals(const std::string& host) {
  std::string lower;
  for (char c : host) lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  const std::string suffix = ".localhost";
  const bool local = lower == "localhost" ||
                     (lower.size() > suffix.size() &&
                      lower.compare(lower.size() - suffix.size(), suffix.size(), suffix) == 0);
  if (!local) return {};
  return {"127.0.0.1", "::1"};
}

}  // namespace

int ResolveAddresses(const ConnectionSpec& spec, std::vector<std::string>& out) {
  out.clear();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  std::vector<const char*> names = LoopbackLiterals(spec.GetHost());
  if (names.empty()) names.push_back(spec.GetHost().c_str());
  const std::string port = std::to_string(spec.GetPort());
  int rc = EAI_NONAME;
  std::vector<std::string> v6;
  for (const char* name : names) {
    addrinfo* list = nullptr;
    const int one = getaddrinfo(name, port.c_str(), &hints, &list);
    if (one != 0) {
      if (out.empty() && v6.empty()) rc = one;
      continue;
    }
    rc = 0;
    for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
      std::string raw(reinterpret_cast<const char*>(a->ai_addr), a->ai_addrlen);
      (a->ai_family == AF_INET ? out : v6).push_back(std::move(raw));
    }
    freeaddrinfo(list);
  }
  // IPv4 first: local proxies commonly listen on 127.0.0.1 only.
  out.insert(out.end(), v6.begin(), v6.end());
  return rc;
}

}  // namespace Tessel::Http
