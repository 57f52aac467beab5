#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"
#include "toolkit/runtime/platform.h"

namespace {

std::vector<std::string> *lines;
void capture(const char *line) { lines->push_back(line); }

class Memory : public ::testing::Test {
 protected:
  void SetUp() override {
    kiv_logreset();
    lines = &captured;
    kiv_logsink = capture;
  }
  void TearDown() override {
    xheap_failafter(-1);
    kiv_logreset();
  }
  std::vector<std::string> captured;
};

}  // namespace

TEST_F(Memory, ZeroSizesGiveNullWithoutAReport) {
  EXPECT_EQ(nullptr, kiv_alloc(0, "ssock.addprog"));
  EXPECT_EQ(nullptr, kiv_zalloc(0, "ssock.addprog"));
  EXPECT_EQ(nullptr, kiv_realloc(nullptr, 0, "ssock.addprog"));
  // Size 0 releases the block (the leak checker of the native build would see it).
  void *block = kiv_alloc(16, "ssock.addprog");
  ASSERT_NE(nullptr, block);
  EXPECT_EQ(nullptr, kiv_realloc(block, 0, "ssock.addprog"));
  EXPECT_TRUE(captured.empty()) << captured.front();
}

TEST_F(Memory, FailuresAreReportedUnderTheCallersTag) {
  kiv_logsetpid(1234);
  struct {
    const char *tag;
    const char *expected;
  } cases[] = {
      {"ntpipe.npipe_write", "1234 [*] npipe_write: failed to allocate 64 bytes"},
      {"sserv", "1234 [*] sserv: failed to allocate 64 bytes"},
      {nullptr, "1234 [*] kiv_alloc: failed to allocate 64 bytes"},
  };
  for (const auto &c : cases) {
    captured.clear();
    xheap_failafter(0);
    EXPECT_EQ(nullptr, kiv_alloc(64, c.tag));
    EXPECT_EQ(nullptr, kiv_zalloc(64, c.tag));
    EXPECT_EQ(nullptr, kiv_realloc(nullptr, 64, c.tag));
    xheap_failafter(-1);
    EXPECT_EQ(std::vector<std::string>(3, c.expected), captured);
  }
}

TEST_F(Memory, ReportIsFatalOutOfMemoryWithTheRealProcessId) {
  // Default prefix, cache empty: %p fills it from the process itself.
  xheap_failafter(0);
  EXPECT_EQ(nullptr, kiv_alloc(64, nullptr));
  xheap_failafter(-1);
  ASSERT_EQ(1u, captured.size());
  EXPECT_EQ(std::to_string(kiv_processid()) + " [*] kiv_alloc: failed to allocate 64 bytes",
            captured[0]);

  captured.clear();
  kiv_logconfig("=%(e%[C %f: ");
  kiv_allocfail("memdb.store", 3000000000u);  // %d of the size, as the report has it
  ASSERT_EQ(1u, captured.size());
  EXPECT_EQ(" (FATAL) [ENOMEM] store: failed to allocate -1294967296 bytes", captured[0]);
}

TEST_F(Memory, FailedResizeReturnsTheOldBlockUnchanged) {
  auto *p = static_cast<char *>(kiv_alloc(8, "ssock.grow"));
  ASSERT_NE(nullptr, p);
  memcpy(p, "kept", 5);
  kiv_logsetpid(7);
  xheap_failafter(0);
  char *q = static_cast<char *>(kiv_realloc(p, 1 << 20, "ssock.grow"));
  xheap_failafter(-1);
  EXPECT_EQ(p, q);
  EXPECT_STREQ("kept", q);
  ASSERT_EQ(1u, captured.size());
  EXPECT_EQ("7 [*] grow: failed to allocate 1048576 bytes", captured[0]);
  xfree(q);
}
