// What `redfishctl health` prints: the failed parts first, every part with --all.
#include <gtest/gtest.h>

#include "health.h"

TEST(HealthText, FailedPartsFirstThenCountsAndEveryPartWithAll) {
  toolkit::Health h;
  ASSERT_TRUE(toolkit::ParseHealth(
      R"({"Health":"Critical","Causes":[{"Kind":"Drive","Id":"D\u001b1","Name":"Disk 1",
           "Parent":"S1","Health":"Critical"}],
          "Systems":[{"Id":"1","Status":{"State":"Enabled","Health":"OK","HealthRollup":"Critical"}}],
          "Chassis":[],"Parts":[
           {"Kind":"Drive","Id":"D\u001b1","Name":"Disk 1","Parent":"S1","State":"Enabled","Health":"Critical"},
           {"Kind":"Memory","Id":"A2","Name":"DIMM A2","Parent":"1","State":"Absent","Health":""}],
          "Firmware":[{"Kind":"BMC","Id":"1","Name":"BMC","Version":"7.0"}],
          "Read":{"At":1000,"PartsAt":880,"FirmwareAt":0,"PartsLeftOut":3,"Gaps":[]}})",
      h));
  EXPECT_EQ(HealthText(h, false, 1000),
            "health: Critical\n"
            "HEALTH    KIND   ID      IN  NAME\n"
            "Critical  Drive  D\\x1b1  S1  Disk 1\n"
            "1 parts (and 1 absent) read 2 min ago, firmware never; 3 members left out\n");
  const std::string all = HealthText(h, true, 1000);
  EXPECT_NE(all.find("System  1   Enabled  OK      Critical\n"), std::string::npos) << all;
  EXPECT_NE(all.find("-         Memory  A2      1   DIMM A2  Absent\n"), std::string::npos) << all;
  EXPECT_NE(all.find("BMC       1   BMC   7.0\n"), std::string::npos) << all;
  EXPECT_FALSE(toolkit::ParseHealth(R"({"Health":"OK","Parts":{}})", h));
}
