#pragma once

// The BMC's event log, read from where the last read stopped
// (Redfish_GetLogEntries).

#include <string>

namespace redfish {

class ReadContext;

// cursor may be null (every entry); document receives the entries and the
// cursor to pass next.
int ReadLogEntries(ReadContext& read, const char* cursor, std::string& document);

}  // namespace redfish
