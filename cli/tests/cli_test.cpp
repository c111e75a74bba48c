// redfishctl's pure parts: MAC notations, the sensors table.
#include <gtest/gtest.h>

#include <string>

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

TEST(SensorsTable, AlignsColumnsNamesChassisOnlyWhenSeveralAndNeverPassesControlBytes) {
  Readings r;
  ASSERT_TRUE(ParseReadings(
      R"({"Chassis":[{"Id":"1","Source":"Sensors","Sensors":[
           {"Name":"CPU1 Temp","Reading":41,"ReadingUnits":"Cel","Health":"OK"},
           {"Id":"Fan\u001b[2J","Reading":null,"ReadingUnits":"","Health":""}]}]})",
      r));
  EXPECT_EQ(r.fromSensors, 1u);
  EXPECT_EQ(ReadingsTable(r),
            "NAME       READING  UNITS  HEALTH\n"
            "CPU1 Temp  41       Cel    OK\n"
            "Fan?[2J    -               -\n");
  ASSERT_TRUE(ParseReadings(
      R"({"Chassis":[{"Id":"1","Source":"ThermalPower","Sensors":[{"Name":"Inlet","Reading":21.5}]},
                     {"Id":"Blade.2","Source":"Sensors","Sensors":[{"Name":"V","Reading":12}]}]})",
      r));
  EXPECT_EQ(ReadingsTable(r),
            "CHASSIS  NAME   READING  UNITS  HEALTH\n"
            "1        Inlet  21.5            -\n"
            "Blade.2  V      12              -\n");
  for (const char* bad : {"[1,2]", R"({"Chassis":{}})", R"({"Chassis":[1]})",
                          R"({"Chassis":[{"Id":"1"}]})", "{\"Chassis\":["})
    EXPECT_FALSE(ParseReadings(bad, r)) << bad;
}
