// The event log's numbers: what counts, the window, an entry resolved by a
// later read, and a restart in between that neither counts nor forgets.
#include <gtest/gtest.h>

#include <string>

#include "log_metrics.h"

namespace {

constexpr double kNow = 1'800'000'000;

std::string Entry(const std::string& id, double time, const std::string& severity,
                  const std::string& more = "") {
  // The members given come first: a reader takes the first of a name.
  return "{" + more + R"("Id":")" + id + R"(","Time":)" +
         std::to_string(static_cast<long long>(time)) + R"(,"Severity":")" + severity +
         R"(","Kind":"Event","Resolved":false})";
}

std::string Document(const std::string& entries, const std::string& cursor) {
  return R"({"Log":{"@odata.id":"/redfish/v1/Systems/1/LogServices/Log1","MaxNumberOfRecords":)"
         R"(1024,"Count":256},"Entries":[)" +
         entries + R"(],"Restarted":false,"More":false,"Missed":0,"Cursor":")" + cursor + "\"}";
}

}  // namespace

TEST(LogTally, CountsOnlyStandingEventsOfTheWindow) {
  LogTally tally;
  ASSERT_TRUE(
      tally.Apply(Document(Entry("1", kNow - 4 * 365 * 86400, "Critical") + "," +  // years old
                               Entry("2", kNow - 3600, "Warning", R"("Kind":"LogCleared",)") + "," +
                               Entry("3", kNow - 3000, "Critical", R"("Resolved":true,)") + "," +
                               Entry("4", kNow - 2990, "OK", R"("Kind":"Deassertion",)") + "," +
                               Entry("5", kNow - 60, "Critical") + "," +
                               R"({"Id":"6","Time":null,"Severity":"Warning","Kind":"Event"},)" +
                               Entry("7", kNow + 900, "OK"),  // a BMC clock ahead of ours
                           "c1"),
                  kNow));
  LogSeries s = tally.Series(kNow);
  EXPECT_EQ(s.entries[0], 1);
  EXPECT_EQ(s.entries[1], 1) << "an entry without a time counts when it is read";
  EXPECT_EQ(s.entries[2], 1);
  EXPECT_EQ(s.newest[2], kNow - 60);
  EXPECT_EQ(s.newest[0], kNow);
  EXPECT_EQ(*s.fill, 0.25);
  EXPECT_EQ(tally.Cursor(), "c1");

  // They leave the count as they leave the window.
  s = tally.Series(kNow + 24 * 3600 + 120);
  EXPECT_EQ(s.entries[0] + s.entries[1] + s.entries[2], 0);
  EXPECT_EQ(s.newest[2], kNow - 60) << "the newest time stays";

  EXPECT_FALSE(tally.Apply(R"({"Log":null,"Entries":[{"Severity":"Fatal"}],"Cursor":""})", kNow));
  EXPECT_EQ(tally.Cursor(), "c1");
}

TEST(LogTally, ARestartBetweenReadsNeitherCountsTwiceNorForgets) {
  LogTally first(2 * 3600);
  ASSERT_TRUE(first.Apply(Document(Entry("9", kNow - 600, "Critical"), "c9"), kNow));

  LogTally restarted(2 * 3600);
  ASSERT_TRUE(restarted.Load(first.Save()));
  EXPECT_EQ(restarted.Cursor(), "c9");
  EXPECT_EQ(restarted.Series(kNow).entries[2], 1);

  // The next read ends that assertion and brings a new Warning.
  ASSERT_TRUE(
      restarted.Apply(Document(Entry("10", kNow + 30, "OK",
                                     R"("Kind":"Deassertion","Resolves":{"Id":"9","Time":)" +
                                         std::to_string(static_cast<long long>(kNow - 600)) +
                                         R"(,"Severity":"Critical"},)") +
                                   "," + Entry("11", kNow + 40, "Warning"),
                               "c11"),
                      kNow + 60));
  const LogSeries s = restarted.Series(kNow + 60);
  EXPECT_EQ(s.entries[2], 0);
  EXPECT_EQ(s.entries[1], 1);

  // A tally saved with another window keeps its counts' times.
  LogTally wider(7 * 86400);
  ASSERT_TRUE(wider.Load(restarted.Save()));
  EXPECT_EQ(wider.Series(kNow + 60).entries[1], 1);
  EXPECT_FALSE(wider.Load(R"({"cursor":"x","width":0,"severities":[]})"));
  EXPECT_EQ(wider.Cursor(), "c11");
}

TEST(LogTally, EightSeriesAtMostWhateverTheLog) {
  LogTally tally;
  std::string entries;
  for (int i = 0; i < 5000; ++i) {
    entries += (i ? "," : "") + Entry(std::to_string(i), kNow - i, i % 3 ? "Warning" : "OK");
  }
  ASSERT_TRUE(tally.Apply(Document(entries, "c"), kNow));
  const std::string text = RenderLogSeries(tally.Series(kNow));
  size_t series = 0;
  for (size_t at = 0; (at = text.find("\nbmcredfish_", at)) != std::string::npos; ++at) ++series;
  EXPECT_EQ(series + (text.rfind("bmcredfish_", 0) == 0), 8u) << text;
  EXPECT_NE(text.find("bmcredfish_log_entries{severity=\"Warning\"} 3333"), std::string::npos);

  double window = 0;
  EXPECT_TRUE(ParseLogWindow("7d", window));
  EXPECT_EQ(window, 7 * 86400);
  for (const char* bad : {"", "10", "1w", "-1h", "2y", "h"})
    EXPECT_FALSE(ParseLogWindow(bad, window));
}
