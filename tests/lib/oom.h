// Out-of-memory runs over the heap's fail-after seam, shared by the test executables.
#pragma once
#include <cstdio>

#include <gtest/gtest.h>

#include "lib/heap.h"

// Runs a scenario for n = 0, 1, 2, ... until one run goes through without a refusal.
// run(n) arms the seam with xheap_failafter(n) where refusals may begin, checks that each
// result is a clean one, disarms the seam, checks that what it built is still whole and
// usable, releases it (the native build's leak checker sees what stays) and returns true
// when nothing was refused. Returns the failure points gone through, and prints them.
template <class Run>
int failpoints(const char *scenario, Run run, int most = 20000) {
  for (int n = 0; n < most; n++) {
    bool complete = run(n);
    xheap_failafter(-1);
    if (complete || ::testing::Test::HasFatalFailure()) {
      std::printf("[ oom ] %s: %d failure points\n", scenario, n);
      return n;
    }
  }
  ADD_FAILURE() << scenario << " still met a refusal after " << most << " failure points";
  return most;
}
