// The event log: chosen among the log services by what they say, entries
// normalised as real BMCs write them, read from a cursor in as few requests
// as the listing order allows, and hostile logs read with bounded work.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "resources/log_entries.h"
#include "tests/unit/test_support.h"
#include "utils/json_access.h"

namespace {

using redfish::LogKind;
using redfish::LogRecord;

namespace fs = std::filesystem;

std::string Slurp(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The entries of a captured log, in the order the BMC listed them.
std::vector<LogRecord> Captured(const std::string& tree, const std::string& log) {
  rapidjson::Document d;
  redfish::ParseJson(
      d, Slurp(fs::path(REDFISH_TREES) / tree / "redfish/v1" / log / "Entries/index.json"));
  std::vector<LogRecord> out;
  for (const auto& m : d["Members"].GetArray()) {
    LogRecord r;
    EXPECT_EQ(redfish::LogRecordOf(m, r), 0);
    out.push_back(r);
  }
  return out;
}

const LogRecord& ById(const std::vector<LogRecord>& records, const std::string& id) {
  for (const LogRecord& r : records) {
    if (r.id == id) return r;
  }
  static const LogRecord none;
  ADD_FAILURE() << "no entry " << id;
  return none;
}

}  // namespace

TEST(EventLog, RealEntriesAreNormalisedPairedAndOrdered) {
  // Supermicro lists oldest first with some clock steps backwards; two
  // power-supply assertions end with deassertions of the same sensor.
  std::vector<LogRecord> smc = Captured("supermicro", "Systems/1/LogServices/Log1");
  EXPECT_EQ(redfish::DetectOrder(smc), redfish::LogOrder::OldestFirst);
  std::vector<redfish::OpenAssertion> open;
  redfish::ResolvePairs(smc, open);
  EXPECT_TRUE(ById(smc, "27").resolved);
  EXPECT_TRUE(ById(smc, "28").resolved);
  EXPECT_EQ(ById(smc, "29").kind, LogKind::Deassertion);
  EXPECT_EQ(ById(smc, "43").severity, redfish::LogSeverity::Critical);
  EXPECT_FALSE(ById(smc, "43").resolved);
  EXPECT_EQ(*ById(smc, "1").time, 1689953703);
  EXPECT_EQ(open.size(), redfish::LogCursor::kMaxOpen) << "the newest still open are kept";

  // Dell lists newest first, times with an offset.
  const std::vector<LogRecord> dell = Captured("dell", "Managers/iDRAC.Embedded.1/LogServices/Sel");
  EXPECT_EQ(redfish::DetectOrder(dell), redfish::LogOrder::NewestFirst);
  EXPECT_EQ(*ById(dell, "1024").time, 1718082780);
  EXPECT_EQ(*ById(dell, "1024").sensorNumber, 26);

  // The integrated management log starts with its clear mark; the security
  // log has an entry whose clock was never set.
  EXPECT_EQ(Captured("hpe", "Systems/1/LogServices/IML")[0].kind, LogKind::Cleared);
  EXPECT_FALSE(ById(Captured("hpe", "Systems/1/LogServices/SL"), "2").time);

  // Threshold messages that say their direction pair by the sensor they name.
  std::vector<LogRecord> gh = Captured("nvidia_gh200", "Systems/System_0/LogServices/SEL");
  open.clear();
  redfish::ResolvePairs(gh, open);
  EXPECT_TRUE(ById(gh, "205745").resolved);
  EXPECT_TRUE(ById(gh, "205749").resolved);
  EXPECT_EQ(ById(gh, "205753").kind, LogKind::Deassertion);
  EXPECT_TRUE(open.empty());
  EXPECT_EQ(*ById(Captured("lenovo", "Systems/1/LogServices/PlatformLog"), "1").time, 1721340055);

  for (const char* bad : {"0000-00-00T00:00:00Z", "2024-02-30T00:00:00Z", "2024-08-08T18:48:07",
                          "2024-08-08T18:48:07+5:00", "yesterday", ""}) {
    EXPECT_FALSE(redfish::ParseRedfishTime(bad)) << bad;
  }
}

namespace {

constexpr char kEntries[] = "/redfish/v1/Managers/1/LogServices/Sel/Entries";

// A BMC with one event log, listed either way round, `page` entries a page
// with "$skip" links; "$top" and "$skip" of a client are honoured only when
// the root advertises them.
struct LogApi : test_support::ApiTest {
  struct Entry {
    int id;
    std::string created;
    std::string severity = "OK";
    std::string extra;  // members that come first, each with a trailing comma
  };
  std::vector<Entry> entries;  // oldest first
  bool newestFirst = false;
  size_t page = 50;
  bool topSkip = false;
  int nextId = 1;
  std::map<std::string, std::string> fixed;
  std::function<std::string(const std::string&)> hostile;  // answers the entries when set

  void Add(int count, const std::string& severity = "OK", const std::string& extra = "") {
    for (int i = 0; i < count; ++i, ++nextId) {
      entries.push_back({nextId, Time(nextId), severity, extra});
    }
  }
  static std::string Time(int n) {
    char text[32];
    std::snprintf(text, sizeof text, "2024-08-%02dT%02d:%02d:%02dZ", 1 + n / 86400 % 28,
                  n / 3600 % 24, n / 60 % 60, n % 60);
    return text;
  }
  std::string Body(const Entry& e) const {
    return "{" + e.extra + R"("@odata.id":")" + kEntries + "/" + std::to_string(e.id) +
           R"(","Id":")" + std::to_string(e.id) + R"(","Created":")" + e.created +
           R"(","Severity":")" + e.severity + R"(","Message":"event )" + std::to_string(e.id) +
           "\"}";
  }
  std::string Page(const std::string& query) const {
    if (hostile) return hostile(query);
    size_t skip = 0;
    size_t top = entries.size();
    for (const std::string& part : {std::string("$skip="), std::string("$top=")}) {
      const size_t at = query.find(part);
      if (at == std::string::npos || (part == "$top=" && !topSkip)) continue;
      (part == "$top=" ? top : skip) = std::stoul(query.substr(at + part.size()));
    }
    const size_t end = std::min({entries.size(), skip + top, skip + page});
    std::string out = R"({"Members":[)";
    for (size_t i = skip; i < end; ++i) {
      const Entry& e = newestFirst ? entries[entries.size() - 1 - i] : entries[i];
      out += (i > skip ? "," : "") + Body(e);
    }
    out += R"(],"Members@odata.count":)" + std::to_string(entries.size());
    if (end < std::min(entries.size(), skip + top)) {
      out += R"(,"Members@odata.nextLink":")" + std::string(kEntries) +
             "?$skip=" + std::to_string(end) + "\"";
    }
    return out + "}";
  }
  void Serve() {
    const std::string link = R"({"@odata.id":"/redfish/v1/Managers/1/LogServices"})";
    fixed = {
        {"/bmc/redfish/v1", std::string(R"({"ProtocolFeaturesSupported":{"TopSkipQuery":)") +
                                (topSkip ? "true" : "false") + "}}"},
        {"/bmc/redfish/v1/Systems", R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1"}]})"},
        {"/bmc/redfish/v1/Managers", R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1"}]})"},
        {"/bmc/redfish/v1/Systems/1",
         R"({"LogServices":{"@odata.id":"/redfish/v1/Systems/1/LogServices"}})"},
        {"/bmc/redfish/v1/Managers/1", "{\"LogServices\":" + link + "}"},
        {"/bmc/redfish/v1/Systems/1/LogServices",
         R"({"Members":[{"@odata.id":"/redfish/v1/Systems/1/LogServices/Audit"}]})"},
        {"/bmc/redfish/v1/Managers/1/LogServices",
         R"({"Members":[{"@odata.id":"/redfish/v1/Managers/1/LogServices/Sel"}]})"},
        {"/bmc/redfish/v1/Systems/1/LogServices/Audit",
         R"({"Id":"AuditLog","LogEntryType":"SEL","Entries":{"@odata.id":"/x/Entries"}})"},
        {"/bmc/redfish/v1/Managers/1/LogServices/Sel",
         R"({"Id":"Sel","LogEntryType":"SEL","MaxNumberOfRecords":1024,)"
         R"("Entries":{"@odata.id":")" +
             std::string(kEntries) + "\"}}"},
    };
    fake_http::SetHandler([this](const fake_http::Request& r) {
      if (r.target == "/portico/config/json/bmcApi.json") {
        return fake_http::Json(r.method == Tessel::Http::Put ? 204 : 404, "");
      }
      const std::string entries = std::string("/bmc") + kEntries;
      if (r.target.compare(0, entries.size(), entries) == 0) {
        return fake_http::Json(200, Page(r.target.substr(entries.size())));
      }
      auto it = fixed.find(r.target);
      return it == fixed.end() ? fake_http::Json(404, "{}") : fake_http::Json(200, it->second);
    });
  }
  static size_t BmcRequests() {
    size_t n = 0;
    for (const auto& r : fake_http::Requests()) n += r.target.rfind("/bmc/", 0) == 0;
    return n;
  }
  // One call: its result, its document, and how many requests the BMC got.
  int Read(rapidjson::Document& doc, size_t& requests) {
    const size_t before = BmcRequests();
    char* json = nullptr;
    const int result = Redfish_GetLogEntries("u", "p", nullptr, 10000,
                                             cursor.empty() ? nullptr : cursor.c_str(), &json);
    requests = BmcRequests() - before;
    doc.SetNull();
    if (json != nullptr) {
      redfish::ParseJson(doc, json);
      cursor = doc["Cursor"].GetString();
    }
    Redfish_FreeText(json);
    return result;
  }
  static std::vector<int> Ids(const rapidjson::Document& doc) {
    std::vector<int> ids;
    for (const auto& e : doc["Entries"].GetArray()) ids.push_back(std::stoi(e["Id"].GetString()));
    return ids;
  }
  static std::vector<int> Range(int first, int last) {
    std::vector<int> ids;
    for (int i = first; i <= last; ++i) ids.push_back(i);
    return ids;
  }
  // A new process and a new log of count entries, listed as newest says.
  void Restart(bool newest, int count, bool withTopSkip = false) {
    cleanup();
    cursor.clear();
    entries.clear();
    nextId = 1;
    newestFirst = newest;
    topSkip = withTopSkip;
    Add(count);
    Serve();
  }
  std::string cursor;
};

}  // namespace

TEST_F(LogApi, WarmReadsCostOneRequestAndCatchingUpAPageEach) {
  for (const bool newest : {false, true}) {
    for (const bool skip : {false, true}) {
      SCOPED_TRACE(testing::Message() << "newest first " << newest << ", $top/$skip " << skip);
      Restart(newest, 60, skip);
      rapidjson::Document doc;
      size_t requests = 0;
      ASSERT_EQ(Read(doc, requests), 0);
      EXPECT_EQ(Ids(doc), Range(1, 60)) << "oldest first whatever the BMC's order";
      EXPECT_STREQ(doc["Log"]["@odata.id"].GetString(), "/redfish/v1/Managers/1/LogServices/Sel");
      EXPECT_STREQ(doc["Log"]["Order"].GetString(), newest ? "NewestFirst" : "OldestFirst");

      cleanup();  // a new process with the cursor: nothing is walked again
      ASSERT_EQ(Read(doc, requests), 0);
      EXPECT_TRUE(Ids(doc).empty());
      EXPECT_EQ(requests, 1u);

      Add(1000);
      ASSERT_EQ(Read(doc, requests), 0);
      EXPECT_EQ(Ids(doc), Range(61, 1060));
      EXPECT_LE(requests, 21u);
      ASSERT_EQ(Read(doc, requests), 0);
      EXPECT_TRUE(Ids(doc).empty());
      EXPECT_EQ(requests, 1u);
    }
  }
}

TEST_F(LogApi, ClearedOrWrappedLogsAreReadAgainWithoutCountingAnEntryTwice) {
  for (const bool newest : {false, true}) {
    SCOPED_TRACE(newest ? "newest first" : "oldest first");
    Restart(newest, 120);
    rapidjson::Document doc;
    size_t requests = 0;
    ASSERT_EQ(Read(doc, requests), 0);

    // Wrapped: the oldest 40 went, 30 came; every page shifted.
    entries.erase(entries.begin(), entries.begin() + 40);
    Add(30);
    ASSERT_EQ(Read(doc, requests), 0);
    EXPECT_EQ(Ids(doc), Range(121, 150));
    EXPECT_FALSE(doc["Restarted"].GetBool());

    // Cleared: its ids start again, at new times.
    entries.clear();
    nextId = 1;
    Add(1, "Warning", R"("Message":"Log area reset/cleared",)");
    entries[0].created = "2024-09-01T00:00:00Z";
    ASSERT_EQ(Read(doc, requests), 0);
    EXPECT_EQ(Ids(doc), Range(1, 1));
    EXPECT_TRUE(doc["Restarted"].GetBool());
    EXPECT_STREQ(doc["Entries"][0]["Kind"].GetString(), "LogCleared");
  }
}

TEST_F(LogApi, HostileLogsCostBoundedWorkLoseNothingAndSayWhy) {
  // 100,000 entries oldest first: each read looks at 4096 and the next one
  // goes on from there.
  page = 1000;
  Add(100000);
  Serve();
  rapidjson::Document doc;
  size_t requests = 0;
  ASSERT_EQ(Read(doc, requests), 0);
  EXPECT_EQ(Ids(doc), Range(1, 4096));
  EXPECT_TRUE(doc["More"].GetBool());
  EXPECT_LE(requests, 5u + 9u) << "discovery, then five pages";
  EXPECT_TRUE(log.HasPrefix(3, "Event log: the read looks at most 4096 entries"));
  ASSERT_EQ(Read(doc, requests), 0);
  const std::vector<int> next = Ids(doc);
  ASSERT_GE(next.size(), 4000u) << "the page it went on from counts too";
  EXPECT_EQ(next, Range(4097, 4096 + static_cast<int>(next.size())));

  // Newest first: the newest 4096, and how many older ones were not read.
  cleanup();
  cursor.clear();
  newestFirst = true;
  ASSERT_EQ(Read(doc, requests), 0);
  EXPECT_EQ(Ids(doc), Range(100000 - 4095, 100000));
  EXPECT_EQ(doc["Missed"].GetInt(), 100000 - 4096);

  // A next link back to itself, an entry listed twice, entries that are not
  // entries, a time that is not one, entries out of order: each read once.
  cleanup();
  cursor.clear();
  log.Clear();
  fixed["/bmc/redfish/v1/x/8"] = R"({"Id":"8","Created":"2024-08-03T00:00:00Z"})";
  hostile = [](const std::string& query) -> std::string {
    const std::string self = std::string(kEntries) + (query.empty() ? "?$skip=0" : query);
    return R"({"Members":[{"Id":"7","Created":"2024-08-02T00:00:00Z","Severity":"Critical"},)"
           R"({"Id":"5","Created":"soon","Severity":"bad"},42,{"@odata.id":"/redfish/v1/x/8"},)"
           R"({"Id":"6","Created":"2024-08-01T00:00:00Z"}],"Members@odata.nextLink":")" +
           self + "\"}";
  };
  ASSERT_EQ(Read(doc, requests), 0);
  EXPECT_EQ(Ids(doc), (std::vector<int>{7, 5, 6, 8})) << "an entry listed as a link is fetched";
  EXPECT_TRUE(doc["Entries"][1]["Time"].IsNull());
  EXPECT_STREQ(doc["Entries"][1]["Severity"].GetString(), "OK");
  EXPECT_TRUE(log.HasPrefix(3, "Event log: the read was given entry 7 twice"));
  EXPECT_TRUE(log.Has(3, std::string("GET /redfish/v1/Managers/1/LogServices/Sel/Entries") +
                             ": 1 members are not log entries; passed over"));
  ASSERT_EQ(Read(doc, requests), 0);
  EXPECT_TRUE(Ids(doc).empty()) << "nothing twice";

  char* json = nullptr;
  EXPECT_EQ(Redfish_GetLogEntries("u", "p", nullptr, 0, R"({"v":1,"Service":"/etc"})", &json),
            10002);
  EXPECT_EQ(json, nullptr);
}

TEST_F(LogApi, ADeassertionResolvesTheAssertionAnEarlierReadReturned) {
  Add(1, "Critical", R"("EntryCode":"Assert","SensorNumber":48,"MessageId":"TMP0120",)");
  Serve();
  rapidjson::Document doc;
  size_t requests = 0;
  ASSERT_EQ(Read(doc, requests), 0);
  EXPECT_FALSE(doc["Entries"][0]["Resolved"].GetBool());
  Add(1, "OK", R"("EntryCode":"Deassert","SensorNumber":48,"MessageId":"TMP0120",)");
  ASSERT_EQ(Read(doc, requests), 0);
  const auto& end = doc["Entries"][0];
  EXPECT_STREQ(end["Kind"].GetString(), "Deassertion");
  EXPECT_STREQ(end["Resolves"]["Id"].GetString(), "1");
  EXPECT_STREQ(end["Resolves"]["Severity"].GetString(), "Critical");
}
