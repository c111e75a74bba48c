#include "transport/concurrent_gets.h"

#include <algorithm>
#include <deque>

#include "transport/bmc_http_connection.h"
#include "transport/exchange_failure.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Http = Tessel::Http;
using Tessel::Ref;

namespace {

struct InFlight {
  ProxyGet* get;
  Ref<Http::PendingExchange> handle;
  int64_t deadline;  // of the exchange, for a connect that may be retried
};

}  // namespace

void SendConcurrently(BmcHttpConnection& transport, std::vector<ProxyGet>& gets, size_t maxInFlight,
                      std::chrono::milliseconds timeout) {
  const int64_t timeoutMs = std::max<int64_t>(timeout.count(), 1);
  Ref<Http::HttpUserAgent> agent = transport.CreateUserAgent();
  auto target = [&agent] { return agent->GetConnectionSpec()->ToString(); };
  Tessel::Service::Logger* logger = BmcHttpConnection::_logger.Get();
  auto failed = [&](ProxyGet& get, int64_t deadline) {
    NoteExchange("GET", get.url);
    return ExchangeFailure(logger, "GET", target, timeoutMs,
                           deadline - Tessel::System::GetMonotonicTime());
  };
  std::deque<InFlight> pending;
  // Sends get (again, after a connect that timed out with nothing sent, while
  // its own deadline allows); false when it failed for good.
  auto start = [&](ProxyGet& get, int64_t deadline, bool first) {
    for (;;) {
      InFlight started{&get, {}, deadline};
      try {
        agent->AsyncSendRequest(get.request.Get(), {}, started.handle);
        if (first) {
          pending.push_back(std::move(started));
        } else {
          pending.push_front(std::move(started));
        }
        return;
      } catch (const Tessel::Exception&) {
        get.result = failed(get, deadline);
        if (get.result != RedfishStatusOk) return;
      }
    }
  };
  size_t next = 0;
  const size_t limit = std::max<size_t>(maxInFlight, 1);
  while (next < gets.size() || !pending.empty()) {
    while (next < gets.size() && pending.size() < limit) {
      start(gets[next++], Tessel::System::GetMonotonicTime() + timeoutMs * 1000, true);
    }
    if (pending.empty()) continue;
    InFlight oldest = std::move(pending.front());
    pending.pop_front();
    ProxyGet& get = *oldest.get;
    try {
      agent->WaitForResponse(oldest.handle.Get(), timeoutMs * 1000, get.response);
    } catch (const Tessel::Exception&) {
      get.result = failed(get, oldest.deadline);
      if (get.result == RedfishStatusOk) start(get, oldest.deadline, false);
      continue;
    }
    const Http::ClientResponse::Status status = get.response->GetStatus();
    get.result = status.code == Http::ResponseCode::Ok ? RedfishStatusOk : status.code;
    if (get.result != RedfishStatusOk) {
      TESSEL_LOG(logger, 3, "GET: Error getting from %1: %2 (%3)", get.url, status.code,
                 status.reason);
      NoteExchange("GET", get.url);
    }
  }
}

}  // namespace redfish
