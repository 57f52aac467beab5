#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>

#include <thread>
#include <vector>

#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/mwait.h"

namespace {

// Manual-reset events, closed at the end of the test.
struct events {
  std::vector<HANDLE> h;
  explicit events(int n) {
    for (int i = 0; i < n; i++) h.push_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  }
  ~events() {
    for (HANDLE e : h) CloseHandle(e);
  }
  DWORD size() const { return static_cast<DWORD>(h.size()); }
  DWORD wait(DWORD timeout) { return mwait_any(size(), h.data(), FALSE, timeout, FALSE); }
  DWORD wait_all(DWORD timeout) { return mwait_all(size(), h.data(), timeout); }
  // Runs the wait while another thread signals `ks` in that order, once the wait is under way.
  template <typename Wait>
  DWORD wait_while_set(std::initializer_list<int> ks, Wait wait) {
    std::thread setter([this, ks] {
      Sleep(20);
      for (int k : ks) SetEvent(h[k]);
    });
    DWORD r = wait();
    setter.join();
    return r;
  }
};

int thread_count() {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 te;
  te.dwSize = sizeof te;
  int n = 0;
  DWORD self = GetCurrentProcessId();
  for (BOOL ok = Thread32First(snap, &te); ok; ok = Thread32Next(snap, &te))
    if (te.th32OwnerProcessID == self) n++;
  CloseHandle(snap);
  return n;
}

// Each index, signalled before the wait and then while it waits, is the one reported,
// across the group boundaries (groups of 63 beyond 64 handles); 192 and 258, the
// platform's I/O-completion and time-out codes, are indexes like any other; beyond 64
// groups of helpers (4,032 handles) the wait grows.
TEST(Mwait, ReportsEachSignalledIndex) {
  struct row {
    int count;
    std::vector<int> indexes;
  } rows[] = {
      {64, {0, 63}},
      {200, {0, 1, 62, 63, 64, 125, 126, 127, 188, 189, 199}},
      {300, {5, 150, 192, 258, 299}},
      {4100, {258, 4031, 4032, 4099}},
  };
  for (const row &r : rows) {
    events ev(r.count);
    EXPECT_EQ(ev.wait(0), MWAIT_TIMEOUT) << r.count;
    EXPECT_EQ(ev.wait(30), MWAIT_TIMEOUT) << r.count;
    for (int k : r.indexes) {
      SetEvent(ev.h[k]);
      EXPECT_EQ(ev.wait(5000), static_cast<DWORD>(k)) << r.count;
      ResetEvent(ev.h[k]);
      EXPECT_EQ(ev.wait_while_set({k}, [&] { return ev.wait(20000); }), static_cast<DWORD>(k))
          << r.count;
      ResetEvent(ev.h[k]);
    }
  }
}

// The lowest signalled index of them all is reported, whatever group a helper saw first:
// for handles signalled before the wait, and for a high index signalled during the wait
// followed by a lower one of the same helper's group (which that helper never reports).
// The helpers of one wait are reused by the next: no thread is added.
TEST(Mwait, LowestSignalledIndexWithHelpersReused) {
  events ev(4100);
  EXPECT_EQ(ev.wait(1), MWAIT_TIMEOUT);  // the helpers exist now
  int before = thread_count();
  for (int k : {199, 130, 64, 63, 0}) SetEvent(ev.h[k]);
  for (int k : {0, 63, 64, 130, 199}) {
    EXPECT_EQ(ev.wait(INFINITE), static_cast<DWORD>(k));
    ResetEvent(ev.h[k]);
  }
  for (int i = 0; i < 50; i++) EXPECT_EQ(ev.wait(1), MWAIT_TIMEOUT);
  EXPECT_EQ(thread_count(), before);
  struct row {
    int high, low;
  } during[] = {{120, 70}, {250, 190}, {4090, 4040}, {190, 70}};
  for (const row &r : during) {
    EXPECT_EQ(ev.wait_while_set({r.high, r.low}, [&] { return ev.wait(20000); }),
              static_cast<DWORD>(r.low))
        << r.high << " then " << r.low;
    ResetEvent(ev.h[r.low]);
    EXPECT_EQ(ev.wait(0), static_cast<DWORD>(r.high));
    ResetEvent(ev.h[r.high]);
  }
}

// Wait-any refuses wait-all beyond 64 handles, and a bad handle fails either wait at once
// rather than hang.
TEST(Mwait, FailuresThatDoNotHang) {
  events ev(100);
  EXPECT_EQ(mwait_any(100, ev.h.data(), TRUE, 0, FALSE), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  std::vector<HANDLE> bad = ev.h;
  HANDLE closed = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  CloseHandle(closed);
  for (DWORD count : {10u, 100u}) {
    bad[count - 1] = closed;
    EXPECT_EQ(mwait_any(count, bad.data(), FALSE, 20000, FALSE), WAIT_FAILED) << count;
    EXPECT_EQ(mwait_all(count, bad.data(), 20000), WAIT_FAILED) << count;
  }
}

// Wait-all at and beyond one system wait: done when every handle is signalled, before
// the wait or during it, and a time-out while any one (first or last) is not.
TEST(Mwait, WaitAll) {
  EXPECT_EQ(mwait_all(0, nullptr, 0), 0u);
  for (int count : {3, 64, 65, 200}) {
    events ev(count);
    for (HANDLE e : ev.h) SetEvent(e);
    EXPECT_EQ(ev.wait_all(0), 0u) << count;
    for (int missing : {0, count - 1}) {
      ResetEvent(ev.h[missing]);
      EXPECT_EQ(ev.wait_all(30), MWAIT_TIMEOUT) << count << " without " << missing;
      EXPECT_EQ(ev.wait_while_set({missing}, [&] { return ev.wait_all(20000); }), 0u)
          << count << " without " << missing;
    }
  }
}

// Beyond 64 handles the groups share one limit: a group that starts with part of it spent
// waits only the rest. Each reading of the tick moves it by 1.65 s, so the third group
// finds 50 ms left; its last handle, a timer, fires 1.5 s later: a group that waited a
// whole limit of its own, or a limit counted from its own start, would see it.
TEST(Mwait, WaitAllGroupsShareOneLimit) {
  static uint32_t tick;
  events ev(2 * MAXIMUM_WAIT_OBJECTS + 1);
  for (HANDLE e : ev.h) SetEvent(e);
  HANDLE timer = CreateWaitableTimerA(nullptr, TRUE, nullptr);
  LARGE_INTEGER due;
  due.QuadPart = -15000000;
  ASSERT_TRUE(SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE));
  std::swap(timer, ev.h.back());
  kiv_setclock(nullptr, [] { return tick += 1650; });
  EXPECT_EQ(ev.wait_all(5000), MWAIT_TIMEOUT);
  kiv_setclock(nullptr, nullptr);
  CloseHandle(timer);
}

}  // namespace
