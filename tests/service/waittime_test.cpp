#include <gtest/gtest.h>

#include "service/sserv.h"

namespace {

TEST(WaitTime, Rules) {
  const time_t now = 1700000000;
  struct {
    time_t due;
    int seconds;
  } cases[] = {
      {now + 3, 4},                  // due + 1
      {now + 10, 11},
      {now + 1, 2},
      {now, 6},                      // overdue: 5 + 1
      {now - 100, 6},
      {now + 86400, 86401},          // the port manager's horizon when nothing is due
      {now + SSERV_WEEK - 1, SSERV_WEEK},
      {now + SSERV_WEEK, SSERV_WEEK},  // never longer than a week
      {now + 400000000, SSERV_WEEK},
  };
  for (auto &c : cases) EXPECT_EQ(wait_seconds(c.due, now), c.seconds) << "due in " << c.due - now;
}

}  // namespace
