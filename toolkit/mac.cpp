#include "toolkit/mac.h"

#include <cctype>
#include <cstring>

#include "bmcredfish.h"

namespace toolkit {

bool ParseMac(const std::string& text, std::string& canonical) {
  if (text.size() != 17) return false;
  const char separator = text[2];
  if (separator != ':' && separator != '-') return false;
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (i % 3 == 2) {
      if (c != static_cast<unsigned char>(separator)) return false;
      out += ':';
    } else {
      if (!std::isxdigit(c)) return false;
      out += static_cast<char>(std::tolower(c));
    }
  }
  canonical = out;
  return true;
}

std::vector<std::string> MacNotations(const std::string& canonical, const std::string& likeThis) {
  auto render = [&](bool upper, char separator) {
    std::string s = canonical;
    for (char& c : s) {
      if (c == ':')
        c = separator;
      else if (upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return s;
  };
  std::vector<std::string> all = {render(false, ':'), render(true, ':'), render(false, '-'),
                                  render(true, '-')};
  std::string dummy;
  if (ParseMac(likeThis, dummy)) {
    bool upper = false;
    for (char c : likeThis) upper = upper || std::isupper(static_cast<unsigned char>(c));
    const std::string preferred = render(upper, likeThis[2]);
    std::vector<std::string> ordered = {preferred};
    for (const auto& s : all)
      if (s != preferred) ordered.push_back(s);
    return ordered;
  }
  return all;
}

int ReadBmcMac(const char* user, const char* password, const char* host, const char* mac,
               unsigned int timeoutMs, std::string& text) {
  // The call cuts its text to the buffer. A MAC text is 17 bytes; a longer
  // one is cut here, and a text that long matches no MAC anyway.
  char buffer[64] = {};
  unsigned int length = sizeof buffer;
  const int result = Redfish_GetMacAddress(user, password, host, mac, timeoutMs, buffer, &length);
  if (result != 0) return result;
  text.assign(buffer, strnlen(buffer, sizeof buffer));
  return 0;
}

}  // namespace toolkit
