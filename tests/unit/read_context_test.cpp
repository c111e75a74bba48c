// The 1.1 reads' common ground: the whole-read budget (the members' bound is
// the health and log tests', query options the readings').
#include <gtest/gtest.h>

#include "tests/unit/test_support.h"

using Api = test_support::ApiTest;

namespace {

constexpr char kPlain[] = "/bmc/redfish/v1/Systems/1";
constexpr char kSystem[] = R"({"Id":"1","PowerState":"Off","Status":{"Health":"Warning"}})";

int Systems(std::string& text, unsigned int timeoutMs = 1000) {
  char* json = nullptr;
  const int result = Redfish_GetSystems("u", "p", nullptr, timeoutMs, &json);
  text = json != nullptr ? json : "";
  Redfish_FreeText(json);
  return result;
}

}  // namespace

TEST_F(Api, AReadWithoutSystemsAndOneBudgetForAllItsRequests) {
  bmc.Json("/bmc/redfish/v1/Systems", "{}", 404).Install();
  std::string text;
  ASSERT_EQ(Systems(text), 0) << "a chassis manager has no systems";
  EXPECT_EQ(text, R"({"Systems":[]})");

  // Each request waits only for what is left of the whole read's time-out.
  cleanup();
  ApiTest::Script();
  bmc.Json(kPlain, kSystem).Install();
  ASSERT_EQ(Systems(text, 300), 0);
  EXPECT_EQ(text, R"({"Systems":[{"Id":"1","@odata.id":"/redfish/v1/Systems/1","PowerState":"Off",)"
                  R"("Status":{"State":"","Health":"Warning","HealthRollup":""}}]})");
  ASSERT_FALSE(fake_http::Requests().empty());
  for (const auto& r : fake_http::Requests()) {
    if (r.target.rfind("/bmc/", 0) == 0) {
      EXPECT_LE(r.waitLimitUs, 300000) << r.target;
    }
  }
}
