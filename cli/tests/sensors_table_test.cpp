// The sensors table: aligned by characters, the chassis column only when it
// tells, and the BMC's texts printable.
#include <gtest/gtest.h>

#include "sensors_table.h"

TEST(SensorsTable, AlignsColumnsNamesChassisOnlyWhenSeveralAndNeverPassesControlBytes) {
  toolkit::Readings r;
  ASSERT_TRUE(toolkit::ParseReadings(
      R"({"Chassis":[{"Id":"1","Source":"Sensors","Sensors":[
           {"Name":"CPU1 Temp","Reading":41,"ReadingUnits":"Cel","Health":"OK"},
           {"Id":"Fan\u001b[2J","Reading":null,"ReadingUnits":"\u00b0C","Health":""}]}]})",
      r));
  EXPECT_EQ(ReadingsTable(r),
            "NAME        READING  UNITS  HEALTH\n"
            "CPU1 Temp   41       Cel    OK\n"
            "Fan\\x1b[2J  -        \xC2\xB0"
            "C     -\n");
  ASSERT_TRUE(toolkit::ParseReadings(
      R"({"Chassis":[{"Id":"1","Source":"ThermalPower","Sensors":[{"Name":"Inlet","Reading":21.5}]},
                     {"Id":"Blade.2","Source":"Sensors","Sensors":[{"Name":"V","Reading":12}]}]})",
      r));
  EXPECT_EQ(ReadingsTable(r),
            "CHASSIS  NAME   READING  UNITS  HEALTH\n"
            "1        Inlet  21.5            -\n"
            "Blade.2  V      12              -\n");
}
