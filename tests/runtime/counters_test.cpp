#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/counters.h"

namespace {

time_t now;
time_t testtime() { return now; }

struct Counters : ::testing::Test {
  void SetUp() override {
    now = 1800000000;
    kiv_setclock(testtime, nullptr);
    kiv_counters_begin();
  }
  void TearDown() override { kiv_setclock(nullptr, nullptr); }
};

// A launch counts in the first bucket it fits (its bound included), above the last in "more".
TEST(CountersLayout, LaunchBuckets) {
  struct {
    uint64_t microseconds;
    int bucket;
  } cases[] = {
      {0, KIV_LAUNCH_FIRST},         {1000, KIV_LAUNCH_FIRST},       {1001, KIV_LAUNCH_FIRST + 1},
      {5000, KIV_LAUNCH_FIRST + 1},  {5001, KIV_LAUNCH_FIRST + 2},   {20000, KIV_LAUNCH_FIRST + 2},
      {99999, KIV_LAUNCH_FIRST + 3}, {100001, KIV_LAUNCH_FIRST + 4}, {500000, KIV_LAUNCH_FIRST + 4},
      {500001, KIV_LAUNCH_MORE},     {~0ull, KIV_LAUNCH_MORE},
  };
  for (auto &c : cases) EXPECT_EQ(c.bucket, kiv_launch_bucket(c.microseconds)) << c.microseconds;
  uint64_t counts[KIV_PORT_COUNTS] = {};
  kiv_count_launch(counts, 700);
  kiv_count_launch(counts, 2500);
  kiv_count_launch(counts, 900);
  EXPECT_EQ(2u, counts[KIV_LAUNCH_FIRST]);
  EXPECT_EQ(1u, counts[KIV_LAUNCH_FIRST + 1]);
  EXPECT_EQ(4100u, counts[KIV_LAUNCH_SUM]);
  EXPECT_EQ(0u, counts[0]);  // the port's own rows are left alone
}

// The items of each kind: its rows' names in order, the port's histogram after them.
TEST(CountersLayout, ItemsOfEachKind) {
  uint64_t counts[KIV_PORT_COUNTS];
  for (int i = 0; i < KIV_PORT_COUNTS; i++) counts[i] = 100 + i;
  struct {
    wire_stats_kind kind;
    const char *begins, *ends;
  } cases[] = {
      {WIRE_OF_PORT, " Connections=100 Starts=101 EndsZero=102 ",
       " DisabledSeconds=113 Launch1ms=114 Launch5ms=115 Launch20ms=116 Launch100ms=117"
       " Launch500ms=118 LaunchMore=119 LaunchMicroseconds=120"},
      {WIRE_OF_SERVICE, " Starts=100 StartFailures=101 ", " LastExit=106 LastExitTime=107"},
      {WIRE_OF_PROGRAM, " Starts=100 StartFailures=101 ", " LastExit=106 LastExitTime=107"},
  };
  for (auto &c : cases) {
    char line[KIV_STATS_LINE];
    line[0] = '\0';
    int length = 0;
    kiv_stats_items(line, sizeof line, &length, c.kind, counts);
    std::string text = line;
    EXPECT_EQ(text.size(), static_cast<size_t>(length));
    EXPECT_EQ(0u, text.find(c.begins)) << text;
    EXPECT_EQ(text.size() - strlen(c.ends), text.rfind(c.ends)) << text;
  }
  // A line too short for an item leaves it out whole.
  char small[29];  // one short of the second item
  small[0] = '\0';
  int length = 0;
  kiv_stats_items(small, sizeof small, &length, WIRE_OF_SERVICE, counts);
  EXPECT_STREQ(" Starts=100", small);
  EXPECT_EQ(11, length);
}

TEST_F(Counters, OwnCountsUptimeAndLine) {
  kiv_count(WIRE_STAT_KIVD_COMMANDS);
  kiv_count(WIRE_STAT_KIVD_COMMANDS);
  kiv_count(WIRE_STAT_KIVD_HUNG_UP);
  kiv_count(WIRE_STAT_PORT_STARTS);  // not kivd's: ignored
  now += 42;
  char line[KIV_STATS_LINE];
  int length = kiv_counters_line(line, sizeof line, 4711);
  EXPECT_EQ(std::string("Kivd=4711 Uptime=42 Commands=2 CommandsRefused=0 ClientsHungUp=1 "
                        "Events=0 EventsHeld=0 Handovers=0"),
            std::string(line, static_cast<size_t>(length)));
  EXPECT_EQ(0u, kiv_counter(WIRE_STAT_PORT_STARTS));
  // What a hand-over carries: every row set alike, the uptime included.
  kiv_counter_set(WIRE_STAT_KIVD_UPTIME, 1000);
  kiv_counter_set(WIRE_STAT_KIVD_HANDOVERS, 3);
  EXPECT_EQ(1000u, kiv_counter(WIRE_STAT_KIVD_UPTIME));
  now += 5;
  EXPECT_EQ(1005u, kiv_counter(WIRE_STAT_KIVD_UPTIME));
  EXPECT_EQ(3u, kiv_counter(WIRE_STAT_KIVD_HANDOVERS));
  now -= 2000;  // a clock set back before the start
  EXPECT_EQ(0u, kiv_counter(WIRE_STAT_KIVD_UPTIME));
  kiv_counters_begin();
  EXPECT_EQ(0u, kiv_counter(WIRE_STAT_KIVD_COMMANDS));
  EXPECT_EQ(0u, kiv_counter(WIRE_STAT_KIVD_HANDOVERS));
  EXPECT_EQ(0u, kiv_counter(WIRE_STAT_KIVD_UPTIME));
}

}  // namespace
