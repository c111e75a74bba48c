#include "utils/bmc_redfish_utils.h"

#include <gtest/gtest.h>

#include "tests/unit/test_support.h"
#include "utils/redfish_status.h"

using redfish::BmcRedfishUtils;
using test_support::LogCapture;

namespace {

struct Fixture : testing::Test {
  Fixture() : logger(Tessel::Service::CreateLogger("Redfish")) { logger->SetLevel(6); }
  int Verify(const std::string& json, bool members) {
    rapidjson::Document d;
    return BmcRedfishUtils::VerifyJson(logger.Get(), json, d, members);
  }
  Tessel::Ref<Tessel::Service::Logger> logger;
  LogCapture log;
};

using VerifyJson = Fixture;
using StringToRedfishOem = Fixture;

}  // namespace

TEST_F(VerifyJson, ParseErrorsCarryCodeAndOffset) {
  const struct {
    std::string body;
    std::string detail;
  } cases[] = {{"", "ParseError: 1 Error Offset: 0"},
               {"   ", "ParseError: 1 Error Offset: 3"},
               {"{} x", "ParseError: 2 Error Offset: 3"},
               {"{\"a\":}", "ParseError: 3 Error Offset: 5"},
               {std::string("{}\0{", 4), ""}};
  for (const auto& c : cases) {
    log.Clear();
    if (c.detail.empty()) {
      EXPECT_EQ(Verify(c.body, false), 0) << "parsing stops at the first NUL";
      continue;
    }
    EXPECT_EQ(Verify(c.body, false), 20002) << c.body;
    EXPECT_TRUE(log.Has(3, "Bad JSON: '" + c.body + "'")) << c.body;
    EXPECT_TRUE(log.Has(5, c.detail)) << c.body;
  }
  EXPECT_EQ(Verify("{}\n", false), 0);
}

TEST_F(VerifyJson, CollectionCheckWantsAMembersArray) {
  EXPECT_EQ(Verify("{}", false), 0);
  EXPECT_EQ(Verify("{}", true), 20003);
  EXPECT_TRUE(log.Has(3, "Couldn't find \"Members[]\" in the JSON object: {}"));
  EXPECT_EQ(Verify(R"({"Members": []})", true), 0);
  EXPECT_EQ(Verify(R"({"Members": {}})", true), 20003);
  EXPECT_EQ(Verify(R"({"members": []})", true), 20003);
  for (const char* root : {"[]", "\"s\"", "5", "true", "null"}) {
    EXPECT_EQ(Verify(root, false), 0) << root;
    EXPECT_EQ(Verify(root, true), 20003) << root;
  }
}

TEST_F(VerifyJson, RedfishErrorReportTakesDetailTextFromTheErrorObject) {
  const std::string body = R"({"error":{"code":"Base.1.0.GeneralError","message":"A general error.",
    "@Message.ExtendedInfo":[{"Message":"first"},{"MessageId":"x"},{"Message":"third"}, 7]}})";
  EXPECT_EQ(Verify(body, false), 0);
  EXPECT_TRUE(log.Has(3,
                      "Redfish Error Detected: Code='Base.1.0.GeneralError' Message='A general "
                      "error.' Detail:  Detail: "));
  log.Clear();
  EXPECT_EQ(
      Verify(R"({"error":{"Message":"own","@Message.ExtendedInfo":[{"Message":"m"}]}})", false), 0);
  EXPECT_TRUE(log.Has(3, "Redfish Error Detected: Detail: own"));
  log.Clear();
  EXPECT_EQ(Verify(R"({"error":{"code":5,"message":{"a":[1]}}})", false), 0);
  EXPECT_TRUE(log.Has(3, "Redfish Error Detected: Code='5' Message='{\"a\":[1]}'"));
}

TEST_F(VerifyJson, ErrorReportPrecedesMembersMessageAndNonObjectsAreIgnored) {
  EXPECT_EQ(Verify(R"({"error":{}})", true), 20003);
  auto lines = log.Texts();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "Redfish Error Detected:");
  EXPECT_EQ(lines[1], "Couldn't find \"Members[]\" in the JSON object: {\"error\":{}}");
  log.Clear();
  EXPECT_EQ(Verify(R"({"error":"text"})", false), 0);
  EXPECT_EQ(Verify(R"({"Error":{"code":"x"}})", false), 0);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(VerifyJson, QuietBelowLevelThreeAndSurvivesDeepNesting) {
  logger->SetLevel(2);
  EXPECT_EQ(Verify("nope", true), 20002);
  EXPECT_EQ(Verify("{}", true), 20003);
  EXPECT_TRUE(log.Lines().empty());
  logger->SetLevel(6);
  const std::string deep = std::string(200000, '[') + std::string(200000, ']');
  EXPECT_EQ(Verify(deep, true), 20003);
  EXPECT_EQ(Verify(std::string(200000, '['), false), 20002);
}

TEST_F(StringToRedfishOem, MatchesVendorPrefixesCaseSensitively) {
  const struct {
    const char* text;
    int result;
    redfish::RedfishOem oem;
  } cases[] = {{"Dell Inc.", 0, redfish::RedfishOemDell},
               {"Dell", 0, redfish::RedfishOemDell},
               {"HPE", 0, redfish::RedfishOemHPE},
               {"HPE Inc.", 0, redfish::RedfishOemHPE},
               {"Lenovo", 0, redfish::RedfishOemLenovo},
               {"HP", 2, redfish::RedfishOem(7)},
               {"Hewlett Packard Enterprise", 2, redfish::RedfishOem(7)},
               {"LENOVO", 2, redfish::RedfishOem(7)},
               {" Dell", 2, redfish::RedfishOem(7)},
               {"", 2, redfish::RedfishOem(7)}};
  for (const auto& c : cases) {
    redfish::RedfishOem oem = redfish::RedfishOem(7);
    EXPECT_EQ(BmcRedfishUtils::StringToRedfishOem(logger.Get(), c.text, oem), c.result) << c.text;
    EXPECT_EQ(oem, c.oem) << c.text;
  }
}
