// The sensors table: aligned by characters, the chassis column only when it
// tells, the critical range and the chassis' figures, the BMC's texts
// printable.
#include <gtest/gtest.h>

#include "sensors_table.h"

TEST(SensorsTable, AlignsColumnsNamesChassisOnlyWhenSeveralAndNeverPassesControlBytes) {
  toolkit::Readings r;
  ASSERT_TRUE(toolkit::ParseReadings(
      R"({"Chassis":[{"Id":"1","Sources":["Sensors"],"PowerSource":"/p","PowerWatts":614,"Sensors":[
           {"Name":"CPU1 Temp","Reading":41,"ReadingUnits":"Cel","Health":"OK",
            "Thresholds":{"UpperCritical":99,"LowerCritical":3}},
           {"Id":"Fan\u001b[2J","Reading":null,"ReadingUnits":"\u00b0C","Health":"",
            "Thresholds":{"LowerCritical":480}}]}]})",
      r));
  EXPECT_EQ(ReadingsTable(r),
            "NAME        READING  UNITS  HEALTH  CRITICAL\n"
            "CPU1 Temp   41       Cel    OK      3..99\n"
            "Fan\\x1b[2J  -        \xC2\xB0"
            "C     -       480..\n"
            "chassis 1: power 614 W\n");
  ASSERT_TRUE(toolkit::ParseReadings(
      R"({"Chassis":[{"Id":"1","Sources":["Thermal"],"Sensors":[{"Name":"Inlet","Reading":21.5}]},
                     {"Id":"Blade.2","EnergySource":"/e","EnergyJoules":null,
                      "Sensors":[{"Name":"V","Reading":12}]}]})",
      r));
  EXPECT_EQ(ReadingsTable(r),
            "CHASSIS  NAME   READING  UNITS  HEALTH  CRITICAL\n"
            "1        Inlet  21.5            -       -\n"
            "Blade.2  V      12              -       -\n"
            "chassis Blade.2: energy -\n");
}
