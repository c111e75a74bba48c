// A request that may have been processed is never sent twice; one the server
// declared unprocessed is sent again. And the client sends exactly the
// header fields it was given plus the protocol's own (over HTTP/1.1: the
// transport test's). Against the scripted peer.
#include <algorithm>

#include "h2_peer.h"
#include "http_test.h"

namespace http_test {
namespace {

// The first request is answered, the second meets `fault`, later ones are
// answered again.
H2Peer::Script SecondRequestMeets(H2Peer::Action fault) {
  return [fault](int request) { return request == 1 ? fault : H2Peer::Respond; };
}

TEST(Resend, NeverWhenTheServerMayHaveProcessedIt) {
  for (auto fault : {H2Peer::ResetConnection, H2Peer::CloseConnection, H2Peer::ResetStream,
                     H2Peer::GoawayIncludingAndClose}) {
    SCOPED_TRACE(fault);
    H2Peer peer(SecondRequestMeets(fault));
    Endpoint ep(peer.Port());
    EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    const std::string failure = Thrown(
        [&] { Send(*ep.agent, Post, "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "{}"); });
    EXPECT_NE(failure, "") << "succeeded";
    EXPECT_NE(failure.rfind("errno ", 0), 0u) << failure;
    EXPECT_EQ(peer.Requests(), 2);
    // The pool recovers for the next request.
    EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    EXPECT_EQ(peer.Requests(), 3);
  }
}

// A GOAWAY whose last stream id is below the request's, and REFUSED_STREAM,
// both say the server did not act on it.
TEST(Resend, WhenTheServerDeclaresItUnprocessed) {
  for (auto [fault, sockets] : {std::pair{H2Peer::GoawayAndClose, 2}, {H2Peer::RefuseStream, 1}}) {
    SCOPED_TRACE(fault);
    H2Peer peer(SecondRequestMeets(fault));
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
