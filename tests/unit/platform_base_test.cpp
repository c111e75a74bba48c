#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "platform/feature_state.h"
#include "platform/mirel/base64.h"
#include "platform/tessel/format.h"

using Tessel::Detail::ASPrintInternal;

TEST(Format, PositionalArgumentsOfEveryKind) {
  const char* nullText = nullptr;
  uint8_t counter = 200;
  int8_t small = -5;
  EXPECT_EQ(ASPrintInternal("%2 then %1", "a", std::string("b")), "b then a");
  EXPECT_EQ(ASPrintInternal("[%1]", nullText), "[]");
  EXPECT_EQ(ASPrintInternal("%1 %2 %3", counter, small, uint64_t{18446744073709551615u}),
            "200 -5 18446744073709551615");
  EXPECT_EQ(ASPrintInternal("%1%%", 50), "50%");
  EXPECT_EQ(ASPrintInternal("%1 and %3", "x"), "x and %3");  // missing argument kept
  EXPECT_EQ(ASPrintInternal("%10", "a", "b", "c", "d", "e", "f", "g", "h", "i", "ten"), "ten");
  EXPECT_EQ(ASPrintInternal("100% sure %"), "100% sure %");
}

TEST(Base64, Rfc4648VectorsAndCredentials) {
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"admin:secret", "YWRtaW46c2VjcmV0"},
                                                         {":", "Og=="},
                                                         {"\xff\x10", "/xA="}};
  for (const auto& [in, out] : vectors) {
    char buffer[64];
    size_t n = 99;
    ASSERT_TRUE(Base64_Encode(in, std::strlen(in), buffer, sizeof buffer, &n)) << in;
    EXPECT_STREQ(buffer, out);
    EXPECT_EQ(n, std::strlen(out));
  }
}

// The output limit is the credential encoder's test (381 bytes fit, 382 do not).
TEST(FeatureState, ConcurrentFirstUseSeesOneTableWithRedfishOff) {
  EXPECT_EQ(GetFeatureState_Slow("REDFISH"), nullptr);  // not initialised yet
  std::vector<std::thread> threads;
  std::vector<uint8_t*> seen(16);
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&, i] {
      FeatureState_Init();
      seen[i] = GetFeatureState_Slow("REDFISH");
    });
  }
  for (auto& t : threads) t.join();
  for (auto* p : seen) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p, seen[0]);
  }
  EXPECT_EQ(*seen[0], 0);
  *GetFeatureState_Slow("REDFISH") = 1;
  FeatureState_Init();  // again: keeps the state
  EXPECT_EQ(*GetFeatureState_Slow("REDFISH"), 1);
  EXPECT_EQ(GetFeatureState_Slow("NO_SUCH_SWITCH"), nullptr);
  EXPECT_EQ(GetFeatureState_Slow(nullptr), nullptr);
}
