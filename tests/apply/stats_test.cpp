// kivctl's reading of the stats listing: which lines it takes, a table for people (busiest
// first) and JSON that says what the lines say.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tools/kivctl/stats.h"

namespace {

stats_line parsed(const std::string &line) {
  stats_line l;
  EXPECT_TRUE(parse_stats_line(line, &l)) << line;
  return l;
}

std::vector<stats_line> parsed(const std::vector<std::string> &lines) {
  std::vector<stats_line> out;
  for (const std::string &line : lines) out.push_back(parsed(line));
  return out;
}

TEST(StatsLine, WhichLinesAreRead) {
  struct {
    const char *line;
    bool read;
    wire_stats_kind kind = WIRE_OF_PORT;
    const char *name = "";
    size_t items = 0;
  } cases[] = {
      {"Port=7000 Service=echo State=idle Connections=3", true, WIRE_OF_PORT, "7000", 3},
      {"Service=echo Starts=2", true, WIRE_OF_SERVICE, "echo", 1},
      {"Program=sync Starts=1 Later=x", true, WIRE_OF_PROGRAM, "sync", 2},  // an unknown item
      {"Kivd=4711 Uptime=5", true, WIRE_OF_KIVD, "4711", 1},
      {"Service=my echo  svc Starts=2", true, WIRE_OF_SERVICE, "my echo  svc", 1},
      {"Port=x Service=echo", false},  // a port is a number
      {"Kivd= Uptime=5", false},
      {"Agent=1 Starts=2", false},  // no kind kivctl knows
      {" 7000  echo         Auto", false},
      {"", false},
      {"=1 Starts=2", false},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.line);
    stats_line l;
    ASSERT_EQ(c.read, parse_stats_line(c.line, &l));
    if (!c.read) continue;
    EXPECT_EQ(c.kind, l.kind);
    EXPECT_EQ(c.name, l.name);
    EXPECT_EQ(c.items, l.items.size());
  }
  stats_line l = parsed("Port=7 Service=a b State=resting RestsThrottled=18446744073709551615");
  EXPECT_EQ("a b", l.item("Service"));
  EXPECT_EQ("resting", l.item("State"));
  EXPECT_EQ(18446744073709551615ull, l.number("RestsThrottled"));
  EXPECT_EQ(0ull, l.number("State"));
  EXPECT_EQ(0ull, l.number("Missing"));
}

const std::vector<std::string> LISTING = {
    "Port=7001 Service=quiet State=idle Connections=0 Starts=0 EndsZero=0",
    "Port=7000 Service=echo State=serving Connections=5 Starts=4 EndsZero=2 EndsCode=1 "
    "EndsException=0 RestsThrottled=1 RestsException=2 Disables=1 Launch1ms=1 Launch5ms=1 "
    "Launch20ms=2 Launch100ms=0 Launch500ms=0 LaunchMore=0 LaunchMicroseconds=30000",
    "Port=7002 Service=echo State=disabled-until-enabled Connections=5 Starts=5 LaunchMore=1",
    "Service=quiet Starts=0",
    "Service=echo Starts=9 StartFailures=1 EndsZero=2 EndsCode=1 EndsException=3 Throttles=1 "
    "LastExit=3221225477 LastExitTime=0",
    "Program=sync Starts=1 LastExit=3 LastExitTime=0",
    "Kivd=4711 Uptime=93784 Commands=7 CommandsRefused=2 ClientsHungUp=1 Events=4 EventsHeld=3 "
    "Handovers=1",
};

// The table for people: sections in order, busiest first, each column from its items.
TEST(StatsTable, BusiestFirstAndTheColumnsFromTheItems) {
  std::string table = stats_table(parsed(LISTING));
  std::vector<std::string> rows;
  for (size_t at = 0, end; (end = table.find('\n', at)) != std::string::npos; at = end + 1)
    rows.push_back(table.substr(at, end - at));
  ASSERT_EQ(13u, rows.size()) << table;
  EXPECT_EQ(0u, rows[0].find("PORT  SERVICE  STATE ")) << rows[0];
  // Equal connections: more starts first; the ports' cells in the heading's order.
  EXPECT_EQ(
      "7002  echo     disabled-until-enabled            5       5  0/0/0                0         "
      "0  >500ms",
      rows[1]);
  EXPECT_EQ(
      "7000  echo     serving                           5       4  2/1/0                3         "
      "1  <=5ms",
      rows[2]);
  EXPECT_EQ(0u, rows[3].find("7001  quiet    idle  ")) << rows[3];
  EXPECT_EQ('-', rows[3].back());
  EXPECT_EQ("", rows[4]);
  EXPECT_EQ(0u, rows[5].find("SERVICE  STARTS  FAILED  ENDS 0/CODE/EXC  THROTTLES  LAST EXIT"));
  EXPECT_EQ("echo          9       1  2/1/3                    1  -", rows[6]);
  EXPECT_EQ(0u, rows[7].find("quiet         0")) << rows[7];
  EXPECT_EQ("", rows[8]);
  EXPECT_EQ(0u, rows[9].find("PROGRAM  STARTS")) << rows[9];
  EXPECT_EQ(0u, rows[10].find("sync          1       0  0/0/0")) << rows[10];
  EXPECT_EQ("", rows[11]);
  EXPECT_EQ(
      "kivd (pid 4711): up 1d 02:03:04, commands 7 (2 refused), clients hung up on 1, events 4 (3 "
      "held back), hand-overs 1",
      rows[12]);
}

// The middle launch's bucket: the first bucket that holds half of them.
TEST(StatsTable, LaunchMedian) {
  struct {
    const char *items;
    const char *median;
  } cases[] = {
      {"", "-"},
      {" Launch1ms=1", "<=1ms"},
      {" Launch1ms=1 Launch5ms=1", "<=1ms"},
      {" Launch1ms=1 Launch5ms=2", "<=5ms"},
      {" Launch1ms=1 Launch500ms=1 LaunchMore=1", "<=500ms"},
      {" Launch100ms=1 LaunchMore=2", ">500ms"},
  };
  for (auto &c : cases) {
    std::string table = stats_table({parsed("Port=1 Service=s State=idle" + std::string(c.items))});
    std::string row = table.substr(table.find('\n') + 1);
    EXPECT_EQ(std::string(c.median) + "\n", row.substr(row.rfind("  ") + 2)) << c.items;
  }
}

// A last exit shows its code, an exception's in hex, and when.
TEST(StatsTable, LastExit) {
  struct {
    const char *items;
    const char *begins;
  } cases[] = {
      {" LastExit=0 LastExitTime=0", "-"},
      {" LastExit=3 LastExitTime=1800000000", "3 at 20"},
      {" LastExit=3221225477 LastExitTime=1800000000", "0xc0000005 at 20"},
  };
  for (auto &c : cases) {
    std::string table = stats_table({parsed("Service=s Starts=1" + std::string(c.items))});
    std::string row = table.substr(table.find('\n') + 1);
    size_t column = table.find("LAST EXIT");
    EXPECT_EQ(std::string(c.begins), row.substr(column, strlen(c.begins))) << row;
  }
}

// JSON: an object per line, every item (unknown ones too), counts as numbers, names as text.
TEST(StatsJson, EveryItemCountsAsNumbersNamesAsText) {
  std::string json = stats_json(parsed({"Port=7000 Service=123 State=idle Connections=5 Later=7",
                                        "Service=123 Starts=0 Note=a b", "Kivd=9 Uptime=05"}));
  EXPECT_EQ(
      "[{\"kind\":\"port\",\"Port\":7000,\"Service\":\"123\",\"State\":\"idle\",\"Connections\":5,"
      "\"Later\":7},\n"
      " {\"kind\":\"service\",\"Service\":\"123\",\"Starts\":0,\"Note\":\"a b\"},\n"
      " {\"kind\":\"kivd\",\"Kivd\":9,\"Uptime\":\"05\"}]",
      json);
  EXPECT_EQ("[]", stats_json({}));
}

}  // namespace
