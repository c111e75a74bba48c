// A request that may have been processed is never sent twice; one the server
// declared unprocessed is sent again. Against the scripted peer.
#include "h2_peer.h"
#include "http_test.h"

namespace http_test {
namespace {

// The first request is answered, the second meets `fault`, later ones are
// answered again.
H2Peer::Script SecondRequestMeets(H2Peer::Action fault) {
  return [fault](int request) { return request == 1 ? fault : H2Peer::Respond; };
}

// RST_STREAM(REFUSED_STREAM) alone is in this list too: libcurl 7.88 retries
// it exactly as it retries a session it tore down after a protocol error, so
// it cannot be told apart from a request the server may have processed.
TEST(Resend, NeverWithoutAGoawayThatLeavesTheStreamOut) {
  for (auto fault : {H2Peer::ResetConnection, H2Peer::CloseConnection, H2Peer::ResetStream,
                     H2Peer::RefuseStream, H2Peer::GoawayIncludingAndClose}) {
    SCOPED_TRACE(fault);
    H2Peer peer(SecondRequestMeets(fault));
    Endpoint ep(peer.Port());
    EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    try {
      Send(*ep.agent, Post, "/redfish/v1/Systems/1/Actions/ComputerSystem.Reset", "{}");
      ADD_FAILURE() << "succeeded";
    } catch (const SystemException& e) {
      ADD_FAILURE() << "reported as errno " << e.GetError() << ": " << e.what();
    } catch (const Exception&) {
    }
    EXPECT_EQ(peer.Requests(), 2);
    // The pool recovers for the next request.
    EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
    EXPECT_EQ(peer.Requests(), 3);
  }
}

TEST(Resend, WhenAGoawayLeavesTheStreamOut) {
  H2Peer peer(SecondRequestMeets(H2Peer::GoawayAndClose));
  Endpoint ep(peer.Port());
  EXPECT_EQ(Send(*ep.agent, Get, "/redfish/v1")->GetStatus().code, 200);
  EXPECT_EQ(Send(*ep.agent, Post, "/power", "{}")->GetStatus().code, 200);
  EXPECT_EQ(peer.Requests(), 3);
  EXPECT_EQ(ep.sockets.load(), 2);
}

}  // namespace
}  // namespace http_test
