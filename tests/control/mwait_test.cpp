#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>

#include <thread>
#include <vector>

#include "control/mwait.h"

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
  DWORD wait(DWORD timeout) { return mwait_any(static_cast<DWORD>(h.size()), h.data(), FALSE, timeout, FALSE); }
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

TEST(Mwait, ReportsEachSignalledHandleAcrossGroupBoundaries) {
  events ev(200);
  EXPECT_EQ(ev.wait(0), MWAIT_TIMEOUT);
  EXPECT_EQ(ev.wait(30), MWAIT_TIMEOUT);
  for (int k : {0, 1, 62, 63, 64, 125, 126, 127, 188, 189, 199}) {
    SetEvent(ev.h[k]);
    EXPECT_EQ(ev.wait(5000), static_cast<DWORD>(k));
    ResetEvent(ev.h[k]);
  }
}

// Each handle k, signalled while the wait is under way, is the one reported.
void expect_woken_by(events &ev, std::initializer_list<int> ks) {
  for (int k : ks) {
    std::thread setter([&] {
      Sleep(20);
      SetEvent(ev.h[k]);
    });
    EXPECT_EQ(ev.wait(20000), static_cast<DWORD>(k));
    setter.join();
    ResetEvent(ev.h[k]);
  }
}

TEST(Mwait, WakesForAHandleSignalledWhileWaiting) {
  events ev(300);
  expect_woken_by(ev, {5, 150, 299});
}

TEST(Mwait, LowestIndexWithinAndAcrossGroups) {
  events few(10);  // within one system wait
  SetEvent(few.h[7]);
  SetEvent(few.h[3]);
  EXPECT_EQ(few.wait(0), 3u);
  events ev(200);
  for (int k : {199, 130, 64, 63, 0}) SetEvent(ev.h[k]);
  // Whatever group a helper saw first, the lowest signalled index of all is reported.
  for (int k : {0, 63, 64, 130, 199}) {
    EXPECT_EQ(ev.wait(INFINITE), static_cast<DWORD>(k));
    ResetEvent(ev.h[k]);
  }
  std::thread setter([&] {
    Sleep(20);
    SetEvent(ev.h[190]);
    SetEvent(ev.h[70]);
  });
  DWORD r = ev.wait(20000);
  setter.join();
  EXPECT_TRUE(r == 70 || r == 190) << r;
  EXPECT_EQ(ev.wait(0), 70u);
}

TEST(Mwait, HelpersAreReusedAcrossWaits) {
  events ev(1000);
  EXPECT_EQ(ev.wait(1), MWAIT_TIMEOUT);  // the helpers exist now
  int before = thread_count();
  for (int i = 0; i < 50; i++) EXPECT_EQ(ev.wait(1), MWAIT_TIMEOUT);
  SetEvent(ev.h[999]);
  EXPECT_EQ(ev.wait(INFINITE), 999u);
  EXPECT_EQ(thread_count(), before);
}

// Beyond 64 groups of helpers (4,032 handles) the wait grows; a time-out is never an index,
// whatever the count; wait-all and a bad handle fail at once rather than hang.
TEST(Mwait, AnyCountAndFailuresThatDoNotHang) {
  events ev(4100);
  EXPECT_EQ(ev.wait(20), MWAIT_TIMEOUT);
  expect_woken_by(ev, {258, 4031, 4032, 4099});
  EXPECT_EQ(mwait_any(100, ev.h.data(), TRUE, 0, FALSE), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  std::vector<HANDLE> bad(ev.h.begin(), ev.h.begin() + 100);
  HANDLE closed = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  CloseHandle(closed);
  for (DWORD count : {10u, 100u}) {
    bad[count - 1] = closed;
    EXPECT_EQ(mwait_any(count, bad.data(), FALSE, 20000, FALSE), WAIT_FAILED) << count;
  }
}

TEST(Mwait, AProcessThatEndsIsSeen) {
  events ev(130);
  std::vector<HANDLE> h = ev.h;
  char cmdline[] = "cmd.exe /c exit 3";
  STARTUPINFOA si = {};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi;
  ASSERT_TRUE(CreateProcessA(nullptr, cmdline, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                             nullptr, &si, &pi));
  CloseHandle(pi.hThread);
  h[100] = pi.hProcess;
  EXPECT_EQ(mwait_any(static_cast<DWORD>(h.size()), h.data(), FALSE, 30000, FALSE), 100u);
  CloseHandle(pi.hProcess);
}

}  // namespace
