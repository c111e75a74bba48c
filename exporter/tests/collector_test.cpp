// Scrapes share BMC reads and answer by their deadline.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "collector.h"

namespace {

using Clock = Collector::Clock;
using std::chrono::milliseconds;

// A BMC read that takes as long as the test says, counting the reads.
struct FakeBmc {
  std::atomic<int> reads{0};
  std::atomic<int> delayMs{0};
  Collector::ReadFunction Function() {
    return [this] {
      std::this_thread::sleep_for(milliseconds(delayMs.load()));
      ReadResult r;
      r.powerOn = ++reads % 2 == 1;
      r.readings = R"({"Chassis":[]})";
      return r;
    };
  }
};

// A scrape as the server makes it: begun, answered once Ready.
Snapshot ScrapeWithin(Collector& c, int ms) {
  const Collector::Ticket ticket = c.Begin(Clock::now() + milliseconds(ms));
  while (!c.Ready(ticket)) std::this_thread::sleep_for(milliseconds(1));
  return c.Finish(ticket);
}

}  // namespace

TEST(Collector, ScrapesBegunDuringAReadShareIt) {
  FakeBmc bmc;
  bmc.delayMs = 500;
  Collector collector(bmc.Function(), milliseconds(0));
  std::vector<Collector::Ticket> scrapes;
  for (int i = 0; i < 50; ++i)
    scrapes.push_back(collector.Begin(Clock::now() + milliseconds(5000)));
  for (const auto& ticket : scrapes) {
    while (!collector.Ready(ticket)) std::this_thread::sleep_for(milliseconds(1));
    const Snapshot snapshot = collector.Finish(ticket);
    EXPECT_TRUE(snapshot.LastReadOk());
    EXPECT_FALSE(snapshot.stale);
  }
  // The start-up read, which all 50 waited for.
  EXPECT_EQ(bmc.reads, 1);
}

TEST(Collector, AReadYoungerThanTheMaximumAgeServesWithoutReading) {
  // A minute apart from its read at most, however slow the machine.
  FakeBmc young;
  Collector collector(young.Function(), std::chrono::minutes(1));
  ScrapeWithin(collector, 5000);
  ScrapeWithin(collector, 5000);
  EXPECT_EQ(young.reads, 1);
  FakeBmc old;
  Collector aging(old.Function(), milliseconds(100));
  ScrapeWithin(aging, 5000);
  std::this_thread::sleep_for(milliseconds(200));  // older than the maximum age for sure
  EXPECT_EQ(ScrapeWithin(aging, 5000).reads, 2u);
  EXPECT_EQ(old.reads, 2);
}
