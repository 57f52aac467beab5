// What the native unit tests share: out-of-memory runs over the heap's fail-after seam,
// and files of given bytes in a folder of the test process's own.
#pragma once
#include <cstdio>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "toolkit/runtime/platform.h"

// Runs a scenario for n = 0, 1, 2, ... until one run goes through without a refusal.
// Each run starts with the seam armed by xheap_failafter(n); run() checks that each
// result is a clean one, disarms the seam, checks that what it built is still whole and
// usable, releases it (the native build's leak checker sees what stays) and returns true
// when nothing was refused. Returns the failure points gone through, and prints them.
template <class Run>
int failpoints(const char *scenario, Run run, int most = 20000) {
  for (int n = 0; n < most; n++) {
    xheap_failafter(n);
    bool complete = run();
    xheap_failafter(-1);
    if (complete || ::testing::Test::HasFatalFailure()) {
      std::printf("[ oom ] %s: %d failure points\n", scenario, n);
      return n;
    }
  }
  ADD_FAILURE() << scenario << " still met a refusal after " << most << " failure points";
  return most;
}

// One folder per process (the native and the Windows runs may overlap), removed when the
// tests end.
inline std::filesystem::path testdir() {
  return std::filesystem::temp_directory_path() / ("kivtest-" + std::to_string(kiv_processid()));
}
struct testdir_cleanup : ::testing::Environment {
  void TearDown() override { std::filesystem::remove_all(testdir()); }
};
inline ::testing::Environment *const testdir_cleaner =
    ::testing::AddGlobalTestEnvironment(new testdir_cleanup);

// Writes exactly these bytes to the file `name` (folders made as needed) under the
// process's folder; returns its path.
inline std::string tempfile(const std::string &name, const std::string &bytes) {
  std::filesystem::path path = testdir() / name;
  std::filesystem::create_directories(path.parent_path());
  FILE *f = fopen(path.string().c_str(), "wb");
  EXPECT_NE(nullptr, f) << path;
  if (f) fwrite(bytes.data(), 1, bytes.size(), f), fclose(f);
  return path.string();
}
