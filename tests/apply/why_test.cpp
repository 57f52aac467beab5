// kivctl's reading of the `why` listing: the state line that ends a port's answer is
// printed last as what holds now, never with a next step of its own.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "tools/kivctl/why.h"

namespace {

std::string local(long long t, const char *format) {
  time_t when = static_cast<time_t>(t);
  char text[40];
  strftime(text, sizeof text, format, localtime(&when));
  return text;
}

TEST(Why, TheStateLineIsPrintedAsNow) {
  std::vector<why_event> events(2);
  ASSERT_TRUE(parse_why_line(
      "103\t1700000000\terror\tThe agent could not be started.\tport=7007\tservice=echo"
      "\tsyserror=2\terrortext=gone\tuntil=1700000003",
      &events[0]));
  ASSERT_TRUE(
      parse_why_line("0\t1700000001\tinfo\tPort 7007 of service echo rests until then.\tport=7007"
                     "\tservice=echo\tstate=resting\tuntil=1700000003",
                     &events[1]));
  EXPECT_EQ(events[1].number, WHY_STATE);
  std::string at = local(1700000000, "%Y-%m-%d %H:%M:%S");
  std::string now = local(1700000001, "%Y-%m-%d %H:%M:%S");
  EXPECT_EQ(why_table(events),
            at + "  error    The agent could not be started.  Next: resting until " +
                local(1700000003, "%H:%M:%S") + "\n" + now +
                "  now      Port 7007 of service echo rests until then.\n");
  std::string json = why_json(events);
  EXPECT_NE(json.find(",{\"number\":0,\"time\":\"2023-11-14T22:13:21Z\",\"severity\":\"info\","
                      "\"text\":\"Port 7007 of service echo rests until then.\",\"next\":\"\","
                      "\"fields\":{\"port\":7007,\"service\":\"echo\",\"state\":\"resting\","
                      "\"until\":\"2023-11-14T22:13:23Z\"}}]"),
            std::string::npos)
      << json;
}

}  // namespace
