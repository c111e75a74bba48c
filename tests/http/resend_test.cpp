// A request that may have been processed is never sent twice; one the server
// declared unprocessed is sent again. And the client sends exactly the
// header fields it was given plus the protocol's own (over HTTP/1.1: the
// transport test's). Against the scripted peer.
#include <algorithm>

#include "h2_peer.h"
#include "http_test.h"

namespace http_test {
namespace {

// Request `at` meets `fault`, every other one is answered.
H2Peer::Script RequestMeets(int at, H2Peer::Action fault) {
  return [at, fault](int request) { return request == at ? fault : H2Peer::Respond; };
}

// The request fails at once, though its wait allows 30 s and the peer keeps
// a broken connection open, and is not sent again; the next one goes on a
// new connection where the fault ended the old one.
TEST(Resend, NeverWhenTheServerMayHaveProcessedIt) {
  struct Case {
    H2Peer::Action fault;
    int at;
    int sockets;
  };
  for (auto [fault, at, sockets] : {Case{H2Peer::ResetConnection, 1, 2},
                                    {H2Peer::CloseConnection, 1, 2},
                                    {H2Peer::ResetStream, 1, 1},
                                    {H2Peer::GoawayIncludingAndClose, 1, 2},
                                    {H2Peer::BadHeaderBlock, 1, 2},
                                    {H2Peer::OversizedFrame, 1, 2},
                                    {H2Peer::Http1Answer, 0, 2}}) {
    SCOPED_TRACE(fault);
    H2Peer peer(RequestMeets(at, fault));
    Endpoint ep(peer.Port());
    if (at == 1) {
      EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    }
    const std::string failure = Thrown([&] {
      Send(*ep.agent, Post, "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "{}", 30000000);
    });
    EXPECT_NE(failure.find("may have been processed"), std::string::npos) << failure;
    EXPECT_EQ(peer.Requests(), at + 1);
    EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    EXPECT_EQ(peer.Requests(), at + 2);
    EXPECT_EQ(ep.sockets.load(), sockets);
  }
}

// A GOAWAY whose last stream id is below the request's, and REFUSED_STREAM,
// both say the server did not act on it.
TEST(Resend, WhenTheServerDeclaresItUnprocessed) {
  for (auto [fault, sockets] : {std::pair{H2Peer::GoawayAndClose, 2}, {H2Peer::RefuseStream, 1}}) {
    SCOPED_TRACE(fault);
    H2Peer peer(RequestMeets(1, fault));
    Endpoint ep(peer.Port());
    EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    EXPECT_EQ(Send(*ep.agent, Post, "/power", "{}")->GetStatus().code, 200);
    EXPECT_EQ(peer.Requests(), 3);
    EXPECT_EQ(ep.sockets.load(), sockets);
  }
  // A server that refuses every time gets the request a bounded number of times.
  H2Peer refuser([](int) { return H2Peer::RefuseStream; });
  Endpoint ep(refuser.Port());
  EXPECT_THROW(Send(*ep.agent, Post, "/power", "{}"), Exception);
  EXPECT_EQ(refuser.Requests(), 6);
}

std::vector<std::string> Names(const H2Peer::Fields& fields) {
  std::vector<std::string> names;
  for (auto& [name, value] : fields) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

using Names_ = std::vector<std::string>;

TEST(Headers, ExactlyTheGivenOnesAndTheProtocols) {
  H2Peer peer([](int) { return H2Peer::Respond; });
  Endpoint ep(peer.Port());
  auto post = Request(Post, "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "{}");
  post->SetHeader("Content-Type", "application/json");
  post->SetHeader("Authorization", "Basic YTpi");
  Ref<ClientResponse> response;
  ep.agent->SendRequest(post.Get(), response);
  Send(*ep.agent, Get, "/redfish/v1");
  auto got = peer.Received();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(Names(got[0]), (Names_{":authority", ":method", ":path", ":scheme", "authorization",
                                   "content-length", "content-type"}));
  EXPECT_EQ(Names(got[1]), (Names_{":authority", ":method", ":path", ":scheme"}));
}

}  // namespace
}  // namespace http_test
