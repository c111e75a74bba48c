#pragma once

#include <string_view>

#include "bmcredfish.h"

namespace redfish {

// The calling thread's account of why its current call failed, read back by
// Redfish_GetLastFailure. Each layer notes what only it knows: the exchange
// under way (transport), the answer's body (connection), the link a code alone
// cannot name (SMBIOS, the configuration endpoint, a missing member). The
// exported functions open and close the account around each call.
//
// Kept in plain thread-local memory: a thread-local object with a destructor
// would keep the library from being unloaded.

// Starts a fresh account for an exported call.
void BeginCall() noexcept;

// A request is being sent: later notes describe it.
void NoteExchange(std::string_view method, std::string_view uri) noexcept;

// The exchange was answered with a status other than success; body may be
// empty when it is not read. Tells the proxy's own error page from the BMC's
// Redfish error and keeps what either said.
void NoteAnswer(int status, std::string_view body) noexcept;

// A failure whose link the result code alone does not name.
void NoteFailure(RedfishLink link, int result, std::string_view detail) noexcept;

// Ends the account with the call's result and returns it: success clears it,
// and a failure nobody noted is named after its result code.
int FinishCall(int result) noexcept;

// The account of the calling thread's last call, cut to the caller's size.
int CopyLastFailure(RedfishFailure* failure) noexcept;

}  // namespace redfish
