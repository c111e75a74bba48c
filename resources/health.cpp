#include "resources/health.h"

#include "resources/read_context.h"
#include "utils/failure_record.h"
#include "utils/redfish_status.h"

namespace redfish {

int ReadHealth(ReadContext&, const char*, const char*, std::string&) {
  NoteFailure(REDFISH_LINK_GUARD, RedfishStatusInvalidArgument, "not built yet");
  return RedfishStatusInvalidArgument;
}

}  // namespace redfish
