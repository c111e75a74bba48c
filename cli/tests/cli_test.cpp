// redfishctl's pure parts: MAC notations, the sensors table, failure causes.
#include <gtest/gtest.h>

#include <string>

#include "bmcredfish.h"
#include "library_log.h"
#include "mac.h"
#include "sensors_table.h"

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
}

TEST(Mac, TriesTheBmcsOwnNotationFirst) {
  auto n = MacNotations("0a:ca:fe:f0:0d:04", "3C-A8-2A-5F-90-1C");
  ASSERT_EQ(n.size(), 4u);
  EXPECT_EQ(n[0], "0A-CA-FE-F0-0D-04");
  EXPECT_EQ(MacNotations("0a:ca:fe:f0:0d:04", "")[0], "0a:ca:fe:f0:0d:04");
  EXPECT_EQ(MacNotations("0a:ca:fe:f0:0d:04", "garbage").size(), 4u);
}

TEST(SensorsTable, AlignsColumnsAndNeverPassesControlBytes) {
  std::string t;
  ASSERT_TRUE(SensorsTable(
      R"({"Members":[{"Name":"CPU1 Temp","Reading":41,"ReadingUnits":"Cel","Status":{"Health":"OK"}},
                     {"Id":"Fan\u001b[2J","Reading":null},"not an object"]})",
      t));
  EXPECT_EQ(t,
            "NAME       READING  UNITS  HEALTH\n"
            "CPU1 Temp  41       Cel    OK\n"
            "Fan?[2J    -               -\n"
            "           -               -\n");
  EXPECT_FALSE(SensorsTable("{\"Members\":{}}", t));
  EXPECT_FALSE(SensorsTable("[1,2]", t));
  EXPECT_FALSE(SensorsTable("{\"Members\":[", t));
}

TEST(ExplainFailure, NamesWhoAnsweredFromTheLoggedBody) {
  const std::string bmc =
      "2026-01-01T00:00:00Z Redfish[3] GET: Error getting from /bmc/x: 503 (Service Unavailable)\n"
      "2026-01-01T00:00:00Z Redfish[5] [ClientResponse::Read] Read 99 bytes\\n"
      "'{\"error\":{\"message\":\"see info\",\"@Message.ExtendedInfo\":[{\"Message\":\"It's "
      "busy'\\n\"}]}}'\n"
      "2026-01-01T00:00:00Z Redfish[3] next line\n";
  EXPECT_NE(ExplainFailure(503, bmc, "", "mac").find("the BMC (Redfish error): It's busy"),
            std::string::npos);
  const std::string proxy =
      "x Redfish[5] [ClientResponse::Read] Read 9 bytes\\n'<html><head><title>502 Bad "
      "Gateway</title></head><center>nginx</center></html>'\n";
  EXPECT_NE(ExplainFailure(502, proxy, "", "mac").find("the proxy (error page: 502 Bad Gateway)"),
            std::string::npos);
  EXPECT_NE(ExplainFailure(REDFISH_ERR_NO_BMC_ADDRESS, "", "", "mac").find("tools/host-sim"),
            std::string::npos);
  EXPECT_NE(ExplainFailure(REDFISH_ERR_NO_MEMBER, "", "", "sensors").find("no Sensors collection"),
            std::string::npos);
  // A log cut in the middle of a body, or none at all, still gives an answer.
  EXPECT_NO_THROW(ExplainFailure(500, "Read 3 bytes\\n'{\"err", "", "mac"));
  EXPECT_EQ(ExplainFailure(418, "", "", "mac"), "");
}
