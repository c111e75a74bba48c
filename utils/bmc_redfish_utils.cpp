#include "utils/bmc_redfish_utils.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <unordered_map>
#include <utility>
#include <vector>

#include "utils/json_access.h"
#include "utils/redfish_status.h"

namespace redfish {

namespace Service = Tessel::Service;
using Tessel::Detail::ASPrintInternal;

namespace {

const std::unordered_map<std::string, RedfishOem> kVendorNames = {
    {"Dell", RedfishOemDell},
    {"HPE", RedfishOemHPE},
    {"Lenovo", RedfishOemLenovo},
};

// A value read as text: strings as they are, other JSON as its compact text,
// a missing value as empty.
std::string Compact(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

constexpr size_t kMaxWriteDepth = 1000;

size_t NestingDepth(const rapidjson::Value& root) {
  std::vector<std::pair<const rapidjson::Value*, size_t>> stack{{&root, 1}};
  size_t deepest = 0;
  while (!stack.empty()) {
    auto [value, depth] = stack.back();
    stack.pop_back();
    deepest = std::max(deepest, depth);
    if (deepest > kMaxWriteDepth) break;
    if (value->IsArray()) {
      for (const auto& v : value->GetArray()) stack.emplace_back(&v, depth + 1);
    } else if (value->IsObject()) {
      for (const auto& m : value->GetObject()) stack.emplace_back(&m.value, depth + 1);
    }
  }
  return deepest;
}

// The writer recurses, so a pathologically deep value is not written out.
std::string AsText(const rapidjson::Value* value) {
  if (value == nullptr || value->IsNull()) return {};
  if (value->IsString()) return std::string(value->GetString(), value->GetStringLength());
  if (NestingDepth(*value) > kMaxWriteDepth) return "(nested too deeply)";
  return Compact(*value);
}

}  // namespace

int BmcRedfishUtils::VerifyJson(Service::Logger* logger, const std::string& json,
                                rapidjson::Document& document, bool requireMembers) {
  ParseJson(document, json);
  if (document.HasParseError()) {
    TESSEL_LOG(logger, 3, "Bad JSON: '%1'", json);
    TESSEL_LOG(logger, 5, "ParseError: %1 Error Offset: %2",
               static_cast<int>(document.GetParseError()),
               static_cast<uint64_t>(document.GetErrorOffset()));
    return RedfishStatusBadJson;
  }

  const rapidjson::Value* error = JsonMember(document, "error");
  if (error != nullptr && error->IsObject()) {
    std::string report = "Redfish Error Detected:";
    if (const rapidjson::Value* code = JsonMember(*error, "code")) {
      report += ASPrintInternal(" Code='%1'", AsText(code));
    }
    if (const rapidjson::Value* message = JsonMember(*error, "message")) {
      report += ASPrintInternal(" Message='%1'", AsText(message));
    }
    const rapidjson::Value* info = JsonMember(*error, "@Message.ExtendedInfo");
    if (info != nullptr && info->IsArray()) {
      // Each element that has a "Message" adds one Detail item, whose text is
      // the error object's own "Message" (usually absent, so empty).
      const std::string detail = AsText(JsonMember(*error, "Message"));
      for (const rapidjson::Value& element : info->GetArray()) {
        if (JsonMember(element, "Message") != nullptr)
          report += ASPrintInternal(" Detail: %1", detail);
      }
    }
    TESSEL_LOG(logger, 3, "%1", report);
  }

  if (!requireMembers) return RedfishStatusOk;
  const rapidjson::Value* members = JsonMember(document, "Members");
  if (members != nullptr && members->IsArray()) return RedfishStatusOk;

  // The writer recurses; a pathologically deep body is logged as received.
  const std::string compact = NestingDepth(document) <= kMaxWriteDepth ? Compact(document) : json;
  TESSEL_LOG(logger, 3, "Couldn't find \"Members[]\" in the JSON object: %1", compact);
  return RedfishStatusNoMembers;
}

int BmcRedfishUtils::StringToRedfishOem(Service::Logger* logger, const std::string& manufacturer,
                                        RedfishOem& oem) {
  for (const auto& [name, value] : kVendorNames) {
    if (manufacturer.compare(0, name.size(), name) == 0) {
      TESSEL_LOG(logger, 5, "OEM: %1", manufacturer);
      oem = value;
      return RedfishStatusOk;
    }
  }
  return RedfishStatusUnknownVendor;
}

}  // namespace redfish
