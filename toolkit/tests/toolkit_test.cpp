// The tools' shared pieces: how a BMC's texts are written out, the readings
// document's acceptance rule, MACs as typed.
#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <string>

#include "toolkit/bmc_text.h"
#include "toolkit/mac.h"
#include "toolkit/readings.h"

using namespace toolkit;

namespace {

const std::string kFffd = "\xEF\xBF\xBD";

// Escape sequences, a bell, carriage returns, DEL and the one-byte CSI (C1),
// then stray, overlong, surrogate and truncated UTF-8.
const std::string kHostile =
    std::string("Dell\x1b[2J\a\r\x7f\xC2\x9B") + "|\xFF\xC0\xAF\xED\xA0\x80\xE2\x82";

}  // namespace

TEST(BmcText, NoControlByteOrInvalidUtf8ReachesATerminal) {
  EXPECT_EQ(Printable(kHostile), "Dell\\x1b[2J\\x07\\x0d\\x7f\\xc2\\x9b|" + kFffd + kFffd + kFffd +
                                     kFffd + kFffd + kFffd + kFffd + kFffd);
  const std::string text =
      "Temp \xC2\xB0"
      "C \xE2\x82\xAC \xF0\x9F\x94\xA5 a\\b";
  EXPECT_EQ(Printable(text), text);
  EXPECT_EQ(Columns(Printable(text)), 15u);
  EXPECT_EQ(Printable(std::string("a\nb\0c", 5)), "a\\x0ab\\x00c");
}

TEST(BmcText, JsonStringsAreValidUtf8JsonWhateverTheBmcSent) {
  const std::string json = "{\"v\":\"" + JsonEscape(kHostile + "\"\\") + "\"}";
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(json.c_str());
  ASSERT_FALSE(doc.HasParseError()) << json;
  EXPECT_EQ(doc["v"].GetString(), "Dell\x1b[2J\a\r\x7f\xC2\x9B|" + kFffd + kFffd + kFffd + kFffd +
                                      kFffd + kFffd + kFffd + kFffd + "\"\\");
  EXPECT_EQ(json.find('\x1b'), std::string::npos);
}

TEST(Readings, OneAcceptanceRuleForEveryTool) {
  Readings r;
  ASSERT_TRUE(ParseReadings(
      R"({"Chassis":[{"Id":"1","Sources":["Thermal","Power"],"PowerSource":"/p","PowerWatts":531,
           "Sensors":[{"Id":"Fans/0","Name":"Fan 1","Reading":51.5,"ReadingUnits":"%",
                       "ReadingType":"Rotational","Health":"OK",
                       "Thresholds":{"UpperCritical":90,"LowerFatal":"x"}}]},
         {"Id":"Blade.2","Sources":["Sensors"],"Sensors":[
           {"Id":"V","Name":7,"Reading":"12","Health":null},{}]}]})",
      r));
  ASSERT_EQ(r.chassis.size(), 2u);
  EXPECT_EQ(r.fromSensors, 1u);
  EXPECT_TRUE(r.chassis[0].hasPower);
  EXPECT_EQ(r.chassis[0].powerWatts, 531);
  EXPECT_FALSE(r.chassis[1].hasPower);
  ASSERT_EQ(r.sensors.size(), 3u);
  EXPECT_EQ(r.sensors[0].chassis, "1");
  EXPECT_EQ(r.sensors[0].reading, 51.5);
  EXPECT_EQ(r.sensors[0].thresholds[1], 90) << "UpperCritical";
  // Members of the wrong type read as absent, never as a refusal.
  EXPECT_FALSE(r.sensors[0].thresholds[5]);
  EXPECT_EQ(r.sensors[1].chassis, "Blade.2");
  EXPECT_EQ(r.sensors[1].name, "");
  EXPECT_FALSE(r.sensors[1].reading);
  EXPECT_EQ(r.sensors[1].health, "");
  for (const char* bad :
       {"[1,2]", R"({"Chassis":{}})", R"({"Chassis":[1]})", R"({"Chassis":[{"Id":"1"}]})",
        R"({"Chassis":[{"Sensors":[1]}]})", "{\"Chassis\":[", ""}) {
    Readings untouched = r;
    EXPECT_FALSE(ParseReadings(bad, untouched)) << bad;
    EXPECT_EQ(untouched.sensors.size(), 3u)
        << "a refused document leaves the readings as they were";
  }
}

// The units decide, the type and place only say what a percentage is of:
// firmware calls fans "AirFlow", powers "Current", and writes "" for the
// states of discrete sensors whose 0 is no temperature.
TEST(Mac, AcceptsWhatPeopleTypeAndRefusesTheRest) {
  std::string c;
  for (const char* ok : {"b0:7b:25:e4:1f:6a", "B0:7B:25:E4:1F:6A", "B0-7b-25-E4-1f-6A"}) {
    ASSERT_TRUE(ParseMac(ok, c)) << ok;
    EXPECT_EQ(c, "b0:7b:25:e4:1f:6a");
  }
  for (const char* bad :
       {"", "b0:7b:25:e4:1f", "b0:7b:25:e4:1f:6a:00", "b0-7b:25:e4:1f:6a", "b07b25e41f6a",
        "g0:7b:25:e4:1f:6a", " b0:7b:25:e4:1f:6", "b0.7b.25.e4.1f.6a", "b0:7b:25:e4:1f:6\n"})
    EXPECT_FALSE(ParseMac(bad, c)) << bad;
  // The BMC's own notation is tried first.
  EXPECT_EQ(MacNotations("5c:ed:8c:4b:71:a8", "5C-ED-8C-4B-71-A9").front(), "5C-ED-8C-4B-71-A8");
}
