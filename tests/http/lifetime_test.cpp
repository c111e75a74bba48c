// Exchanges and pools end cleanly: cancelled under load, failed when their
// pool goes, and a pool may be dropped from its own thread.
#include <future>

#include "http_test.h"

namespace http_test {
namespace {

TEST(Cancellation, UnderLoadLeavesNothingBehind) {
  Endpoint ep(80);
  const char* targets[] = {"/hello", "/big.bin", "/hang", "/json", "/echo"};
  std::mutex m;
  std::vector<Ref<PendingExchange>> all;
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        Ref<PendingExchange> h;
        ep.agent->AsyncSendRequest(Request(Post, targets[(t + i) % 5], "x").Get(), nullptr, h);
        try {
          // Limits from none to a few round trips: cancels land in every state.
          Ref<ClientResponse> r;
          ep.agent->WaitForResponse(h.Get(), (i % 6) * 300, r);
        } catch (const Exception&) {
        }
        std::lock_guard<std::mutex> lock(m);
        all.push_back(h);
      }
    });
  }
  for (auto& t : threads) t.join();
  // Queued behind every cancel: once it is answered, all were handled.
  EXPECT_EQ(Body(*Send(*ep.agent, Get, "/hello")), "hello");
  EXPECT_TRUE(Eventually([&] { return ep.Pool().GetActiveExchangeCount() == 0; }));
  for (auto& h : all) EXPECT_EQ(h->RefCount(), 1);
}

TEST(Lifetime, DroppingAPoolFailsWhatIsInFlight) {
  Endpoint other(80);
  Ref<PendingExchange> handle;
  {
    auto pool = CreateHttp2ConnectionPool(other.spec.Get(), nullptr);
    auto agent = CreateHttpUserAgent(other.spec.Get(), nullptr, pool.Get());
    agent->AsyncSendRequest(Request(Get, "/hang").Get(), nullptr, handle);
    EXPECT_EQ(Body(*Send(*agent, Get, "/hello")), "hello");  // /hang is on the wire
  }
  Ref<ClientResponse> response;
  const std::string failure =
      Thrown([&] { other.agent->WaitForResponse(handle.Get(), 10000000, response); });
  EXPECT_NE(failure.find("stopped"), std::string::npos) << failure;  // not left pending
  EXPECT_EQ(handle->RefCount(), 1);
}

TEST(Lifetime, ACallbackMayDropItsPoolButNotWaitOnIt) {
  const int baseline = ThreadCount();
  Endpoint other(80);
  std::promise<void> go, called;
  auto pool = CreateHttp2ConnectionPool(other.spec.Get(), nullptr);
  auto agent = CreateHttpUserAgent(other.spec.Get(), nullptr, pool.Get());
  pool = nullptr;
  auto* last = new Ref<HttpUserAgent>(agent);
  Ref<PendingExchange> handle;
  bool waitRefused = false;
  agent->AsyncSendRequest(
      Request(Get, "/hello").Get(),
      [&, last] {
        go.get_future().wait();
        try {
          Ref<ClientResponse> r;
          (*last)->SendRequest(Request(Get, "/hello").Get(), r);  // would wait for itself
        } catch (const Exception&) {
          waitRefused = true;
        }
        delete last;  // stops the pool on its own callback thread
        called.set_value();
      },
      handle);
  agent = nullptr;
  go.set_value();
  called.get_future().wait();
  EXPECT_TRUE(waitRefused);
  Ref<ClientResponse> response;
  other.agent->WaitForResponse(handle.Get(), 1000000, response);
  EXPECT_EQ(Body(*response), "hello");
  // The stopped pool's callback thread ends by itself.
  EXPECT_TRUE(Eventually([&] { return ThreadCount() == baseline; }));
  EXPECT_EQ(Body(*Send(*other.agent, Get, "/hello")), "hello");
}

}  // namespace
}  // namespace http_test
