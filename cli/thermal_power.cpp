#include "thermal_power.h"

#include <curl/curl.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace {

const char kProxy[] = "http://localhost:80/bmc";
const size_t kMaxBody = 4 << 20;

size_t Collect(char* data, size_t size, size_t count, void* out) {
  auto* body = static_cast<std::string*>(out);
  if (body->size() + size * count > kMaxBody) return 0;
  body->append(data, size * count);
  return size * count;
}

bool Get(const std::string& path, const std::string& credentials, long timeoutMs,
         rapidjson::Document& doc, std::string& why) {
  CURL* curl = curl_easy_init();
  if (!curl) {
    why = "cannot start an HTTP client";
    return false;
  }
  std::string body;
  const std::string url = kProxy + path;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE);
  curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
  curl_easy_setopt(curl, CURLOPT_USERPWD, credentials.c_str());
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  CURLcode rc = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  if (rc != CURLE_OK || status != 200) {
    why = "GET " + path + ": " +
          (rc != CURLE_OK ? curl_easy_strerror(rc) : "HTTP " + std::to_string(status));
    return false;
  }
  doc.Parse(body.c_str(), body.size());
  if (doc.HasParseError() || !doc.IsObject()) {
    why = "GET " + path + ": not a JSON object";
    return false;
  }
  return true;
}

const rapidjson::Value* Member(const rapidjson::Value& v, const char* name) {
  if (!v.IsObject()) return nullptr;
  auto it = v.FindMember(name);
  return it == v.MemberEnd() ? nullptr : &it->value;
}

// Appends one row per entry of array `list`: its name, the number under `reading`, the units.
void Rows(const rapidjson::Value& doc, const char* list, const char* reading, const char* units,
          rapidjson::Writer<rapidjson::StringBuffer>& out) {
  const rapidjson::Value* entries = Member(doc, list);
  if (!entries || !entries->IsArray()) return;
  for (const auto& e : entries->GetArray()) {
    if (!e.IsObject()) continue;
    out.StartObject();
    const rapidjson::Value* name = Member(e, "Name");
    if (!name || !name->IsString()) name = Member(e, "FanName");
    out.Key("Name");
    out.String(name && name->IsString() ? name->GetString() : list);
    const rapidjson::Value* value = Member(e, reading);
    if (value && value->IsNumber()) {
      out.Key("Reading");
      out.Double(value->GetDouble());
    }
    const rapidjson::Value* ownUnits = Member(e, "ReadingUnits");
    out.Key("ReadingUnits");
    out.String(ownUnits && ownUnits->IsString() ? ownUnits->GetString() : units);
    const rapidjson::Value* status = Member(e, "Status");
    const rapidjson::Value* health = status ? Member(*status, "Health") : nullptr;
    if (health && health->IsString()) {
      out.Key("Status");
      out.StartObject();
      out.Key("Health");
      out.String(health->GetString());
      out.EndObject();
    }
    out.EndObject();
  }
}

}  // namespace

bool ReadThermalAndPower(const std::string& user, const std::string& password, long timeoutMs,
                         std::string& document, std::string& why) {
  const std::string credentials = user + ":" + password;
  rapidjson::Document chassis;
  if (!Get("/redfish/v1/Chassis", credentials, timeoutMs, chassis, why)) return false;
  const rapidjson::Value* members = Member(chassis, "Members");
  const rapidjson::Value* first = members && members->IsArray() && !members->Empty()
                                      ? Member((*members)[0], "@odata.id")
                                      : nullptr;
  if (!first || !first->IsString() || first->GetString()[0] != '/') {
    why = "the BMC lists no chassis";
    return false;
  }
  std::string path = first->GetString();
  while (!path.empty() && path.back() == '/') path.pop_back();
  rapidjson::Document thermal, power;
  if (!Get(path + "/Thermal", credentials, timeoutMs, thermal, why)) return false;
  if (!Get(path + "/Power", credentials, timeoutMs, power, why)) return false;

  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> out(buffer);
  out.StartObject();
  out.Key("Members");
  out.StartArray();
  Rows(thermal, "Temperatures", "ReadingCelsius", "Cel", out);
  Rows(thermal, "Fans", "Reading", "", out);
  Rows(power, "Voltages", "ReadingVolts", "V", out);
  Rows(power, "PowerControl", "PowerConsumedWatts", "W", out);
  Rows(power, "PowerSupplies", "LastPowerOutputWatts", "W", out);
  out.EndArray();
  out.EndObject();
  document = buffer.GetString();
  return true;
}
