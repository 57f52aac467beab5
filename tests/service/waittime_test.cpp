#include <gtest/gtest.h>

#include <vector>

#include "toolkit/runtime/mwait.h"
#include "service/sserv.h"

namespace {

TEST(WaitTime, Rules) {
  const time_t now = 1700000000;
  struct {
    time_t due;
    int seconds;
  } cases[] = {
      {now + 3, 4},  // due + 1
      {now + 10, 11},
      {now + 1, 2},
      {now, 6},  // overdue: 5 + 1
      {now - 100, 6},
      {now + 86400, 86401},  // the port manager's horizon when nothing is due
      {now + SSERV_WEEK - 1, SSERV_WEEK},
      {now + SSERV_WEEK, SSERV_WEEK},  // never longer than a week
      {now + 400000000, SSERV_WEEK},
  };
  for (auto &c : cases) EXPECT_EQ(wait_seconds(c.due, now), c.seconds) << "due in " << c.due - now;
}

// A set the system cannot wait on (here a closed handle among 100) must neither spin nor
// hide `die`: the loop then waits on `die` alone for a second at a time.
TEST(WaitTime, AFailingWaitStillSeesDieAndDoesNotSpin) {
  std::vector<HANDLE> h(100);
  for (HANDLE &e : h) e = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE closed = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  CloseHandle(closed);
  h[40] = closed;
  FILETIME created, ended, kernel0, user0, kernel1, user1;
  GetThreadTimes(GetCurrentThread(), &created, &ended, &kernel0, &user0);
  DWORD index = 0;
  DWORD begin = GetTickCount();
  EXPECT_EQ(loop_wait(100, h.data(), 2500, &index), 0);
  EXPECT_EQ(index, MWAIT_TIMEOUT);
  EXPECT_GE(GetTickCount() - begin, SSERV_RETRY_MS - 50) << "the failing wait was retried at once";
  GetThreadTimes(GetCurrentThread(), &created, &ended, &kernel1, &user1);
  auto ms = [](FILETIME a, FILETIME b) {
    return ((ULONGLONG(b.dwHighDateTime) << 32 | b.dwLowDateTime) -
            (ULONGLONG(a.dwHighDateTime) << 32 | a.dwLowDateTime)) /
           10000;
  };
  EXPECT_LT(ms(user0, user1) + ms(kernel0, kernel1), 200u) << "busy while waiting";
  SetEvent(h[99]);  // `die`, the last handle
  EXPECT_EQ(loop_wait(100, h.data(), 20000, &index), 0);
  EXPECT_EQ(index, 99u);
  h[40] = nullptr;
  for (HANDLE e : h)
    if (e) CloseHandle(e);
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
        CreateThread(
            nullptr, 0,
            [](void *) -> DWORD {
              Sleep(20000);
              ExitProcess(4);
            },
            nullptr, 0, nullptr);
        stop_service();
        if (initialize() != 0) exit(2);
        exit(run_service() == 0 ? 7 : 3);
      },
      ::testing::ExitedWithCode(7), "");
}

}  // namespace
