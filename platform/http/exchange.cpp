// An exchange: the copied request, its result, and the failure it throws.
#include "platform/http/exchange.h"

#include <cctype>

#include "platform/http/pool_core.h"  // the pool an exchange holds

namespace Tessel::Http {

void Failure::Throw() const {
  switch (kind) {
    case System:
      throw SystemException(error, message);
    case Timeout:
      throw TimeoutException(message);
    case InvalidArgument:
      throw InvalidArgumentException(message);
    case None:
    case Other:
      break;
  }
  throw Exception(message);
}

Exchange::Exchange(Ref<PoolCore> core, const ClientRequest& request, CompletionCallback cb)
    : method(request.GetMethod()),
      target(request.GetTarget()),
      body(request.GetBody()),
      callback(std::move(cb)),
      core_(std::move(core)) {
  headers.reserve(request.GetHeaders().size());
  for (const auto& h : request.GetHeaders()) {
    if (!core_) {
      headers.push_back(h);
      continue;
    }
    std::string name = h.name;
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    // Connection-specific fields do not exist in HTTP/2.
    if (name == "connection" || name == "keep-alive" || name == "proxy-connection" ||
        name == "transfer-encoding" || name == "upgrade" || name == "host") {
      continue;
    }
    headers.push_back(Header{std::move(name), h.value});
  }
}

Exchange::~Exchange() = default;

void Exchange::GetResult(Ref<ClientResponse>& out) const {
  if (state == State::Cancelled) throw TimeoutException("the exchange was cancelled by a time-out");
  if (failure.kind != Failure::None) failure.Throw();
  out = response;
}

}  // namespace Tessel::Http
