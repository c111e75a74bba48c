#pragma once

// A scripted stand-in for the platform's HTTP client, linked into unit tests
// in place of the real one.

#include <functional>
#include <string>
#include <vector>

#include "platform/tessel/http.h"

namespace fake_http {

struct Request {
  int method = 0;
  std::string target;
  std::vector<Tessel::Http::Header> headers;
  std::string body;
  std::string endpoint;  // the ConnectionSpec's text form
  bool synchronous = false;
  int64_t waitLimitUs = 0;

  std::string Header(const std::string& name) const;  // "" when absent
  bool HasHeader(const std::string& name) const;
};

struct Reply {
  int status = 200;
  std::vector<Tessel::Http::Header> headers;
  std::string body;
  // When set, the exchange fails by running this (it throws).
  std::function<void()> fail;
};

using Handler = std::function<Reply(const Request&)>;

// Replaces the script and forgets earlier requests. Without a handler every
// request is answered 404.
void SetHandler(Handler handler);
// The requests since SetHandler; only the latest few thousand are kept.
std::vector<Request> Requests();
int PoolsCreated();

Reply Json(int status, std::string body);
template <typename E, typename... Args>
Reply Throw(Args... args) {
  Reply r;
  r.fail = [=] { throw E(args...); };
  return r;
}

}  // namespace fake_http
