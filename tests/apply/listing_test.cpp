// kivctl's reading of the port listing: lines as kivd writes them into fields, the table
// people read and the JSON scripts read.
#include <gtest/gtest.h>

#include <vector>

#include "tools/kivctl/listing.h"

namespace {

// Each line read into its fields, shown as the table people read (a column as wide as its
// longest entry, the state in words), as the JSON scripts read and as status counts it.
// The disable command's mark is the largest time in kivd's zone, east or west.
TEST(Listing, LinesBecomeTheTableAndJson) {
  std::vector<listed_port> ports;
  for (const char *line : {" 7007  echo          Auto", "   25  mail          On Agent=412",
                           "65534  a-much-longer-name   Auto Agent=9", " 7008  two words     Auto",
                           " 7009  say \"hi\"\\     Hook Parent=77 Agent=78",
                           " 7010  echo          Auto Disable=2026-11-24_22:10",
                           " 7011  echo          Auto Disable=2038-01-19_17:14",
                           " 7012  echo          On Disable=2038-01-18_03:14 Agent=5",
                           " 7013  echo          Auto Disable=2038-01-20_03:15"}) {
    ports.emplace_back();
    ASSERT_TRUE(parse_listing_line(line, &ports.back())) << line;
  }
  EXPECT_EQ(listing_table(ports),
            "PORT   SERVICE             MODE  STATE\n"
            " 7007  echo                auto  idle\n"
            "   25  mail                on    serving (pid 412)\n"
            "65534  a-much-longer-name  auto  serving (pid 9)\n"
            " 7008  two words           auto  idle\n"
            " 7009  say \"hi\"\\           hook  serving (pid 78), hooked by pid 77\n"
            " 7010  echo                auto  disabled until 2026-11-24 22:10\n"
            " 7011  echo                auto  disabled until enabled\n"
            " 7012  echo                on    disabled until enabled\n"
            " 7013  echo                auto  disabled until 2038-01-20 03:15\n");
  EXPECT_EQ(listing_table({}), "PORT   SERVICE  MODE  STATE\n");
  // For scripts: every field in every record, null where there is none.
  EXPECT_EQ(
      listing_json({ports[4], ports[5], ports[7]}),
      "[{\"port\":7009,\"service\":\"say \\\"hi\\\"\\\\\",\"mode\":\"hook\",\"state\":"
      "\"serving\",\"agent\":78,\"parent\":77,\"disabled_until\":null,\"until_enabled\":false,"
      "\"address\":null,\"account\":null,\"memory\":null,\"processes\":null,\"cpu\":null},\n"
      " {\"port\":7010,\"service\":\"echo\",\"mode\":\"auto\",\"state\":\"disabled\",\"agent\":"
      "null,\"parent\":null,\"disabled_until\":\"2026-11-24 22:10\",\"until_enabled\":false,"
      "\"address\":null,\"account\":null,\"memory\":null,\"processes\":null,\"cpu\":null},\n"
      " {\"port\":7012,\"service\":\"echo\",\"mode\":\"on\",\"state\":\"disabled\",\"agent\":"
      "5,\"parent\":null,\"disabled_until\":null,\"until_enabled\":true,"
      "\"address\":null,\"account\":null,\"memory\":null,\"processes\":null,\"cpu\":null}]");
  EXPECT_EQ(listing_json({}), "[]");
  port_counts n = count_ports(ports);
  EXPECT_EQ(std::vector<int>(
                {n.total, n.in[WIRE_IDLE], n.in[WIRE_SERVING], n.in[WIRE_DISABLED], n.hooked}),
            std::vector<int>({9, 2, 3, 4, 1}));
  EXPECT_EQ(reply_json("+"), "{\"ok\":true}");
  EXPECT_EQ(reply_json("-Failed with code -4"), "{\"ok\":false,\"error\":\"Failed with code -4\"}");
  EXPECT_EQ(reply_json("-\x01 odd"), "{\"ok\":false,\"error\":\"\\u0001 odd\"}");
  for (const char *bad : {"", "!", "+", " 7007 echo Auto", "  abc  echo          Auto",
                          " 7007  echo          Sometimes", " 7007  echo          Auto Agent=x",
                          "    0  echo          Auto", "Auto", " 7007  echo          Auto Cpu=0",
                          " 7007  echo          Auto Memory=64M"}) {
    listed_port p;
    EXPECT_FALSE(parse_listing_line(bad, &p)) << '"' << bad << '"';
  }
}

// A port with an address ends its line with " Address=<text>"; optional items come in
// any order and names kivctl does not know are skipped. ls shows the port where it
// listens; JSON has the address, null for every IPv4 address.
TEST(Listing, AddressesAndItemsInAnyOrder) {
  std::vector<listed_port> ports;
  for (const char *line : {" 7007  echo          Auto Address=127.0.0.1",
                           " 7008  echo          On Address=::1 Agent=6",
                           " 7009  echo          Hook Agent=8 Address=:: Later=x Parent=7",
                           "   25  echo          Auto"}) {
    ports.emplace_back();
    ASSERT_TRUE(parse_listing_line(line, &ports.back())) << line;
  }
  EXPECT_EQ(listing_table(ports),
            "PORT            SERVICE  MODE  STATE\n"
            "127.0.0.1:7007  echo     auto  idle\n"
            "    [::1]:7008  echo     on    serving (pid 6)\n"
            "     [::]:7009  echo     hook  serving (pid 8), hooked by pid 7\n"
            "            25  echo     auto  idle\n");
  EXPECT_EQ(listing_json({ports[1], ports[3]}),
            "[{\"port\":7008,\"service\":\"echo\",\"mode\":\"on\",\"state\":\"serving\","
            "\"agent\":6,\"parent\":null,\"disabled_until\":null,\"until_enabled\":false,"
            "\"address\":\"::1\",\"account\":null,\"memory\":null,\"processes\":null,\"cpu\":null},\n"
            " {\"port\":25,\"service\":\"echo\",\"mode\":\"auto\",\"state\":\"idle\","
            "\"agent\":null,\"parent\":null,\"disabled_until\":null,\"until_enabled\":false,"
            "\"address\":null,\"account\":null,\"memory\":null,\"processes\":null,\"cpu\":null}]");
}

// A service's account and limits follow the other items, each only when set; items come in
// any order and unknown ones are skipped. The table shows the account only when some port
// has one.
TEST(Listing, AccountAndLimits) {
  std::vector<listed_port> ports(3);
  ASSERT_TRUE(parse_listing_line(" 7007  echo          Auto", &ports[0]));
  ASSERT_TRUE(parse_listing_line(
      "   25  a=b c         Auto Agent=7 Account=LocalService Memory=64 Processes=10 Cpu=50",
      &ports[1]));
  ASSERT_TRUE(parse_listing_line(
      "   26  echo          On Later=x Processes=3 Account=restricted Disable=2026-11-24_22:10",
      &ports[2]));
  EXPECT_EQ(listing_table(ports),
            "PORT   SERVICE  MODE  ACCOUNT       STATE\n"
            " 7007  echo     auto  system        idle\n"
            "   25  a=b c    auto  LocalService  serving (pid 7)\n"
            "   26  echo     on    restricted    disabled until 2026-11-24 22:10\n");
  EXPECT_EQ(listing_json({ports[1], ports[2]}),
            "[{\"port\":25,\"service\":\"a=b c\",\"mode\":\"auto\",\"state\":\"serving\","
            "\"agent\":7,\"parent\":null,\"disabled_until\":null,\"until_enabled\":false,"
            "\"address\":null,\"account\":\"LocalService\",\"memory\":64,\"processes\":10,\"cpu\":50},\n"
            " {\"port\":26,\"service\":\"echo\",\"mode\":\"on\",\"state\":\"disabled\","
            "\"agent\":null,\"parent\":null,\"disabled_until\":\"2026-11-24 22:10\","
            "\"until_enabled\":false,\"address\":null,\"account\":\"restricted\",\"memory\":null,"
            "\"processes\":3,\"cpu\":null}]");
}

}  // namespace
