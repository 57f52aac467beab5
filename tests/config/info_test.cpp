// The info tree is process-wide and created once: every test works under its own
// top-level path (.t1, .t2, ...) and leaves the rest of the tree alone.
#include "toolkit/config/info.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "tests/lib/testing.h"
#include "toolkit/runtime/context.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"

namespace {

std::string code(int rc) { return "#" + std::to_string(rc); }
// The value text, or "#<code>" on failure.
std::string get(const std::string &name) {
  char *out = nullptr;
  int rc = kivinfo_get(nullptr, name.c_str(), &out);
  if (rc != 0) return code(rc);
  std::string s = out;
  xfree(out);
  return s;
}
using list = std::vector<std::string>;
int record(const char *path, const char *text, void *arg) {
  static_cast<list *>(arg)->push_back(std::string(path) + "=" + text);
  return 0;
}
// The entries visited, as "path=text", sorted (children have no order); rc expected.
list walk(const std::string &path, int rc = 0) {
  list seen;
  EXPECT_EQ(kivinfo_walk(path.c_str(), record, &seen), rc) << path;
  std::sort(seen.begin(), seen.end());
  return seen;
}

struct Info : ::testing::Test {
  static void SetUpTestSuite() { ASSERT_NE(kivinfo_init(0), KIV_ENOMEM); }
};

TEST_F(Info, FileSourceIsReadOnceAndAgainAfterAFailure) {
  std::string f = tempfile("t1.cfg", "global:\n  port = 25\n");
  ASSERT_EQ(kivinfo_set(".t1", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".t1"), code(KIV_ENODE));
  EXPECT_EQ(get(".t1.global.port"), "25");
  tempfile("t1.cfg", "global:\n  port = 26\n  extra = 1\n");  // not read again
  EXPECT_EQ(get(".t1.global.port"), "25");
  EXPECT_EQ(get(".t1.global.extra"), code(KIV_ENOTFOUND));

  tempfile("t1.cfg", "a:\n  x = 1\nbroken line\n  y = 2\n");
  ASSERT_EQ(kivinfo_set(".t1", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".t1.a.y"), code(KIV_EINTERNAL));
  EXPECT_TRUE(walk(".t1", KIV_EFTYPE).empty());
  tempfile("t1.cfg", "a:\n  x = 1\n  y = 2\n");
  EXPECT_EQ(get(".t1.a.y"), "2");
  EXPECT_EQ(walk(".t1"), (list{".t1.a.x=1", ".t1.a.y=2", ".t1.a=", ".t1=" + f}));
}

TEST_F(Info, CaseInsensitiveLookupsStoredCaseInWalks) {
  std::string f = tempfile("t3.cfg", "Tcp.S25:\n  Service = smtp\nTcpx:\n  A = 1\n");
  ASSERT_EQ(kivinfo_set(".t3", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".T3.TCP.s25.SERVICE"), "smtp");
  EXPECT_EQ(walk(".T3.tcp"), (list{".t3.Tcp.S25.Service=smtp", ".t3.Tcp.S25=", ".t3.Tcp="}));
  EXPECT_EQ(walk(".t3.tcpx"), (list{".t3.Tcpx.A=1", ".t3.Tcpx="}));
}

// True when another thread completes a lookup: the tree's lock is free.
bool otherthreadproceeds(const std::string &name, const std::string &want) {
  auto result = std::async(std::launch::async, [name] { return get(name); });
  return result.wait_for(std::chrono::seconds(10)) == std::future_status::ready &&
         result.get() == want;
}

TEST_F(Info, SetKindsAndRefusalsLeaveTheLockFree) {
  std::string f = tempfile("t5.cfg", "a:\n  x = 1\n");
  struct {
    const char *path;
    int kind, expect;
    bool removed;  // the old subtree is gone afterwards
  } cases[] = {
      {".t5", KIVINFO_RESERVED, KIV_ENOTSUPP, true},
      {".t5", 3, KIV_EINVAL, true},
      {"t5", KIVINFO_FILE, KIV_EINVAL, false},
      {".", KIVINFO_FILE, KIV_ENOPARENT, false},
      {".t5.none.deeper", KIVINFO_FILE, KIV_ENOPARENT, false},
  };
  for (auto &c : cases) {
    ASSERT_EQ(kivinfo_set(".t5", f.c_str(), KIVINFO_FILE), 0);
    ASSERT_EQ(get(".t5.a.x"), "1");
    EXPECT_EQ(kivinfo_set(c.path, "whatever", c.kind), c.expect) << c.path << " kind " << c.kind;
    EXPECT_TRUE(otherthreadproceeds(".t5.a.x", c.removed ? code(KIV_ENOTFOUND) : "1")) << c.path;
  }
}

int lookinside(const char *, const char *, void *arg) {
  if ((*static_cast<int *>(arg))++ > 0) return 0;
  EXPECT_EQ(get(".t7.a.x"), "1");
  EXPECT_EQ(kivinfo_walk(".t7", record, nullptr), KIV_EBUSY);
  EXPECT_EQ(kivinfo_set(".t7.a", "other", KIVINFO_FILE), KIV_EBUSY);
  return 0;
}

TEST_F(Info, LookupsInsideAWalk) {
  std::string a = tempfile("t7.cfg", "a:\n  x = 1\n");
  ASSERT_EQ(kivinfo_set(".t7", a.c_str(), KIVINFO_FILE), 0);
  int calls = 0;
  ASSERT_EQ(kivinfo_walk(".t7", lookinside, &calls), 0);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(get(".t7.a.x"), "1");
}

std::string lastline;
void capture(const char *line) { lastline = line; }

TEST_F(Info, LookupLogLinesAtLevelFive) {
  std::string f =
      tempfile("t8.cfg", "s:\n  v20 = 01234567890123456789\n  v21 = 012345678901234567890\n");
  ASSERT_EQ(kivinfo_set(".t8", f.c_str(), KIVINFO_FILE), 0);
  kiv_logsink = capture;
  kiv_logconfig("5;=%l: ");
  struct {
    const char *name, *logged;
  } cases[] = {
      {".t8.s.v20", "\".t8.s.v20\" == \"01234567890123456789\""},
      {".t8.s.v21", "\".t8.s.v21\" == \"01234567890123456789\" ..."},
      {".t8.none", "not found: \".t8.none\""},
  };
  for (auto &c : cases) {
    get(c.name);
    EXPECT_EQ(std::string("info.kivinfo_get: ") + c.logged, lastline);
  }
  kiv_logreset();
}

TEST(InfoFixname, MakesOneLowerCaseComponent) {
  std::string text = "My.Service.X-Y_z";
  EXPECT_EQ(kivinfo_fixname(&text[0]), &text[0]);
  EXPECT_EQ(text, "my_service_x-y_z");
  EXPECT_EQ(kivinfo_fixname(nullptr), nullptr);
}

// A relative name is tried under each prefix of the context's search list in turn; the
// first success wins and a failure answers the last attempt's code.
TEST_F(Info, RelativeNamesFollowTheSearchList) {
  std::string f = tempfile("t9.cfg", "one:\n  x = 1\ntwo:\n  x = 2\n  y = 22\n");
  ASSERT_EQ(kivinfo_set(".t9", f.c_str(), KIVINFO_FILE), 0);
  char one[] = ".t9.one", two[] = ".t9.two", top[] = ".t9";
  char *both[] = {one, two, nullptr}, *topfirst[] = {top, one, nullptr}, *none[] = {nullptr};
  kiv_context ctx{0, 0, both}, ctxtop{0, 0, topfirst}, ctxnone{0, 0, none}, ctxnull{0, 0, nullptr};
  struct {
    kiv_context *ctx;
    const char *name, *expect;
  } cases[] = {
      {&ctx, "x", "1"},         {&ctx, "y", "22"},     {&ctx, "z", "#-4"},
      {&ctx, ".t9.two.x", "2"}, {&ctxtop, "x", "1"},   {&ctxtop, "one", "#-4"},
      {&ctxtop, "one.x", "1"},  {nullptr, "x", "#-7"}, {&ctxnone, "x", "#-7"},
      {&ctxnull, "x", "#-7"},
  };
  char *list2[] = {two, top, nullptr};
  kiv_context ctxlast{0, 0, list2};  // the last attempt finds a node
  for (auto &c : cases) {
    char *out = reinterpret_cast<char *>(1);
    int rc = kivinfo_get(c.ctx, c.name, &out);
    std::string got = rc == 0 ? std::string(out) : code(rc);
    if (rc != 0) {
      EXPECT_EQ(out, nullptr) << c.name;
    }
    xfree(rc == 0 ? out : nullptr);
    EXPECT_EQ(got, c.expect) << c.name;
  }
  char *out = nullptr;
  EXPECT_EQ(kivinfo_get(&ctxlast, "one", &out), KIV_ENODE);
}

// A file source's name gets ".cfg" unless its text from the last "." on is exactly
// ".cfg". Each file exists only under the name expected, so a wrong name fails the read.
TEST_F(Info, FileSourceNamesEndInCfg) {
  struct {
    const char *source, *stored;
  } cases[] = {
      {"agents", "agents.cfg"},
      {"agents.cfg", "agents.cfg"},
      {"agents.CFG", "agents.CFG.cfg"},
      {"agents.cfgx", "agents.cfgx.cfg"},
      {"v.d/agents", "v.d/agents.cfg"},
      {"v.cfg/agents", "v.cfg/agents.cfg"},
      {"agents.cfg.cfg", "agents.cfg.cfg"},
  };
  for (auto &c : cases) {
    std::string stored = tempfile(c.stored, "s:\n  k = v\n");
    ASSERT_EQ(kivinfo_set(".t10", (testdir() / c.source).string().c_str(), KIVINFO_FILE), 0)
        << c.source;
    EXPECT_EQ(get(".t10.s.k"), "v") << c.source;
    EXPECT_EQ(walk(".t10"), (list{".t10.s.k=v", ".t10.s=", ".t10=" + stored})) << c.source;
    std::filesystem::remove(stored);
  }
}

// The tree's operations with the heap failing at every point in turn: each answers a
// clean code, and afterwards the tree reads, finds and walks the source as if nothing
// had happened (a failed read leaves the source unread, so it is read again).
TEST(InfoOutOfMemory, EveryOperationLeavesAUsableTree) {
  std::string f = tempfile(
      "oom.cfg", "s:\n  k = value\n  long = " + std::string(100, 'L') + "\nt.u:\n  k = 2\n");
  char s[] = ".oom.s", *searchlist[] = {s, nullptr};
  kiv_context ctx{0, 0, searchlist};
  list full = {".oom.s.k=value", ".oom.s.long=" + std::string(100, 'L'),
               ".oom.s=",        ".oom.t.u.k=2",
               ".oom.t.u=",      ".oom.t=",
               ".oom=" + f};
  auto clean = [](int rc, std::initializer_list<int> allowed) {
    return std::find(allowed.begin(), allowed.end(), rc) != allowed.end();
  };
  int points = failpoints("info tree: init, attach, lookups (absolute, relative), walk", [&] {
    int rc = kivinfo_init(0);
    EXPECT_TRUE(clean(rc, {0, KIV_EBUSY, KIV_ENOMEM})) << rc;
    if (rc == KIV_ENOMEM) {
      xheap_failafter(-1);
      char *out = nullptr;
      EXPECT_EQ(kivinfo_get(nullptr, ".", &out), KIV_ENOTREADY);  // still absent
      return false;
    }
    bool complete = true;
    rc = kivinfo_set(".oom", f.c_str(), KIVINFO_FILE);
    EXPECT_TRUE(clean(rc, {0, KIV_ENOMEM})) << rc;
    complete = complete && rc == 0;
    for (const char *name : {".oom.s.k", "k", ".oom.t.u.k"}) {
      char *out = nullptr;
      // A read that fails for want of memory is a failed read: EINTERNAL for a lookup.
      rc = kivinfo_get(name[0] == '.' ? nullptr : &ctx, name, &out);
      EXPECT_TRUE(clean(rc, {0, KIV_ENOMEM, KIV_EINTERNAL, KIV_ENOTFOUND})) << name << " " << rc;
      if (rc == KIV_ENOTFOUND) {
        EXPECT_FALSE(complete) << name;  // only when the attachment failed
      }
      complete = complete && rc == 0;
      xfree(out);
    }
    list seen;
    rc = kivinfo_walk(".oom", record, &seen);
    // The reader turns a refused allocation into a parse failure: EFTYPE.
    EXPECT_TRUE(clean(rc, {0, KIV_ENOMEM, KIV_EFTYPE})) << rc;
    std::sort(seen.begin(), seen.end());
    complete = complete && rc == 0 && seen == full;
    xheap_failafter(-1);
    EXPECT_EQ(kivinfo_set(".oom", f.c_str(), KIVINFO_FILE), 0);
    EXPECT_EQ(get(".oom.t.u.k"), "2");
    EXPECT_EQ(walk(".oom"), full);
    kivinfo_set(".oom", "gone", KIVINFO_RESERVED);  // the subtree goes; the tree stays
    return complete;
  });
  EXPECT_GE(points, 30);
}

}  // namespace
