// What the reliability runs share: their size, the faults their threads see, and the
// end of a run (kivd holds no more than after warm-up, and still ends cleanly).
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/support.h"

namespace rel {

// A reduced default for make test, the full size from the environment (make soak).
inline int run_size(const char *variable, int fallback) {
  const char *text = getenv(variable);
  int n = text ? atoi(text) : 0;
  return n > 0 ? n : fallback;
}

// Faults seen by a run's threads, the first 20 of them kept for the report.
struct faults {
  std::mutex lock;
  std::vector<std::string> seen;
  void fault(const std::string &what) {
    std::lock_guard<std::mutex> g(lock);
    if (seen.size() < 20) seen.push_back(what);
  }
};

// The run's end: kivd still runs and holds no more than it held after warm-up (a little
// slack for what the system itself keeps), the row of the summary table make soak prints,
// and a clean end on "quit -Q".
inline void finish(kt::kivd &d, const kt::usage &warm, const std::string &run,
                   const std::string &figures) {
  kt::usage end;
  ASSERT_EQ(WaitForSingleObject(d.h, 0), static_cast<DWORD>(WAIT_TIMEOUT))
      << "kivd ended during the " << run;
  ASSERT_TRUE(kt::usage_of(d.pid, &end));
  EXPECT_LE(end.handles, warm.handles + 10) << kt::describe(warm, end);
  EXPECT_LE(end.private_bytes, warm.private_bytes + 512 * 1024) << kt::describe(warm, end);
  printf("| %-14s | %s; %s\n", run.c_str(), figures.c_str(), kt::describe(warm, end).c_str());
  fflush(stdout);
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
}

}  // namespace rel
