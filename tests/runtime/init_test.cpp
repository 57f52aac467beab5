#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/runtime/cinit.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/platform.h"

namespace {
std::vector<std::string> *lines;
void capture(const char *line) { lines->push_back(line); }
}  // namespace

// The toolkit is initialised once per process, so the whole story is one ordered test.
TEST(Init, RefusedVersionThenOnceOnly) {
  std::vector<std::string> captured;
  kiv_logreset();
  lines = &captured;
  kiv_logsink = capture;

  // A version that is not provided: refused, answered with 5/0, nothing recorded.
  kiv_initrec rec{0, 0, 5, 1, 0, 0};
  EXPECT_EQ(KIV_ENOTFOUND, kiv_init(&rec));
  EXPECT_EQ(5u, rec.version);
  EXPECT_EQ(0u, rec.revision);
  EXPECT_STREQ("exportable", kiv_flavour());
  EXPECT_TRUE(captured.empty());
  kiv_initrec later{0, 0, 3, 0, 0, 0};
  EXPECT_EQ(KIV_ENOTFOUND, kiv_init(&later));

  // Still uninitialised: the wrapper's call with any version succeeds, at level 1 with
  // its trace line. The caller's words come back, the policy flag cleared.
  kiv_loglevel = 1;
  kiv_initrec mine{0xCAFE, KIV_INIT_NOSUB1, 0, 0, 0, 0};
  EXPECT_EQ(0, kiv_cinit(&mine));
  EXPECT_EQ(0xCAFEu, mine.first);
  EXPECT_EQ(KIV_INIT_NOSUB1, mine.flags);
  EXPECT_EQ(5u, mine.version);
  EXPECT_EQ(0u, mine.revision);
  EXPECT_STREQ("non-exportable", kiv_flavour());
  EXPECT_TRUE(kiv_locks_ready());
  EXPECT_EQ(0, kiv_net_init());  // already started
  std::string pid = std::to_string(kiv_processid());
  ASSERT_EQ(1u, captured.size());
  EXPECT_EQ(pid + " [*] kiv_init: non-exportable", captured[0]);

  // Again: refused with its warning, even at level 0, and nothing changes.
  captured.clear();
  kiv_loglevel = 0;
  kiv_logconfig("=%f%(e%[C: ");
  EXPECT_EQ(KIV_EBUSY, kiv_init(nullptr));
  EXPECT_EQ(KIV_EBUSY, kiv_cinit(nullptr));
  EXPECT_STREQ("non-exportable", kiv_flavour());
  std::vector<std::string> expected(2, "kiv_init (Warning) [EBUSY]: called more than once");
  EXPECT_EQ(expected, captured);
  kiv_logreset();
}
