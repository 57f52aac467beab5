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

namespace {

// A stop that arrives before initialize has created `die` is remembered: the loop then
// ends at its first wait instead of running on (in a child process: the loop holds the
// fixed pipe name while it runs).
TEST(EarlyStopDeathTest, AStopBeforeDieExistsEndsTheLoopAtOnce) {
  EXPECT_EXIT(
      {
        // Without the remembered stop the loop would wait a day: give up long before.
        CreateThread(nullptr, 0, [](void *) -> DWORD { Sleep(20000); ExitProcess(4); }, nullptr, 0, nullptr);
        stop_service();
        if (initialize() != 0) exit(2);
        exit(run_service() == 0 ? 7 : 3);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
