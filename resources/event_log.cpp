#include "resources/event_log.h"

#include "resources/read_context.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

int ReadLogEntries(ReadContext&, const char*, std::string&) {
  NoteFailure(REDFISH_LINK_GUARD, RedfishStatusInvalidArgument, "not built yet");
  return RedfishStatusInvalidArgument;
}

}  // namespace redfish
