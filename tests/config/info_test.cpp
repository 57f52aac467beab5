// The info tree is process-wide and created once: every test works under its own
// top-level path (.t1, .t2, ...) and leaves the rest of the tree alone.
#include "toolkit/config/info.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/heap.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/platform.h"

namespace fs = std::filesystem;

namespace {

class Info : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    int rc = kivinfo_init(0);
    ASSERT_TRUE(rc == 0 || rc == KIV_EBUSY) << rc;
    EXPECT_EQ(kivinfo_init(0), KIV_EBUSY);
    dir = fs::temp_directory_path() / ("kivinfo-" + std::to_string(kiv_processid()));
    fs::create_directories(dir);
  }
  static void TearDownTestSuite() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  // Writes a .cfg file (binary, so the bytes are exactly these) and returns its path.
  static std::string file(const std::string &name, const std::string &text) {
    std::string path = (dir / name).string();
    FILE *f = fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr) << path;
    if (f) {
      fwrite(text.data(), 1, text.size(), f);
      fclose(f);
    }
    return path;
  }
  static fs::path dir;
};
fs::path Info::dir;

// The value text, or "#<code>" on failure (out must then be null).
std::string get(const std::string &name, kiv_context *ctx = nullptr) {
  char *out = reinterpret_cast<char *>(1);
  int rc = kivinfo_get(ctx, name.c_str(), &out);
  if (rc != 0) {
    EXPECT_EQ(out, nullptr) << name;
    return "#" + std::to_string(rc);
  }
  std::string s = out;
  xfree(out);
  return s;
}
std::string code(int rc) { return "#" + std::to_string(rc); }

struct visits {
  std::vector<std::string> seen;  // "path=text"
};
int record(const char *path, const char *text, void *arg) {
  static_cast<visits *>(arg)->seen.push_back(std::string(path) + "=" + text);
  return 0;
}
using list = std::vector<std::string>;
list sorted(list v) {
  std::sort(v.begin(), v.end());
  return v;
}
// The entries visited, as "path=text", sorted (children have no order).
list walk(const std::string &path, int *rc = nullptr) {
  visits v;
  int r = kivinfo_walk(path.c_str(), record, &v);
  if (rc) *rc = r;
  else EXPECT_EQ(r, 0) << path;
  std::sort(v.seen.begin(), v.seen.end());
  return v.seen;
}

TEST_F(Info, FileSourceIsReadOnceOnFirstNeed) {
  std::string f = file("t1.cfg", "global:\n  port = 25\nx:\n  y = 1\nx.y:\n  z = 2\n");
  ASSERT_EQ(kivinfo_set(".t1", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".t1"), code(KIV_ENODE));
  EXPECT_EQ(get(".t1.global.port"), "25");
  EXPECT_EQ(get(".t1.global"), code(KIV_ENODE));
  // A section replaced the value .t1.x.y by a node; what lies below it stays.
  EXPECT_EQ(get(".t1.x.y"), code(KIV_ENODE));
  EXPECT_EQ(get(".t1.x.y.z"), "2");
  // Changed or gone, the file is not read again for this attachment.
  file("t1.cfg", "global:\n  port = 26\n  extra = 1\n");
  EXPECT_EQ(get(".t1.global.port"), "25");
  EXPECT_EQ(get(".t1.global.extra"), code(KIV_ENOTFOUND));
  fs::remove(f);
  EXPECT_EQ(get(".t1.global.none"), code(KIV_ENOTFOUND));
  EXPECT_EQ(walk(".t1.global"), sorted({".t1.global=", ".t1.global.port=25"}));
  // Attaching again starts over with the file as it is now.
  file("t1.cfg", "global:\n  port = 26\n");
  ASSERT_EQ(kivinfo_set(".t1", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".t1.global.port"), "26");
  EXPECT_EQ(get(".t1.x.y.z"), code(KIV_ENOTFOUND));
}

TEST_F(Info, FailedReadIsTriedAgain) {
  std::string f = file("t2.cfg", "a:\n  x = 1\nbroken line\n  y = 2\n");
  ASSERT_EQ(kivinfo_set(".t2", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".t2.a.y"), code(KIV_EINTERNAL));
  int rc = 0;
  EXPECT_TRUE(walk(".t2", &rc).empty());
  EXPECT_EQ(rc, KIV_EFTYPE);
  file("t2.cfg", "a:\n  x = 1\n  y = 2\n");
  EXPECT_EQ(get(".t2.a.y"), "2");
  fs::remove(f);
  EXPECT_EQ(walk(".t2"), sorted({".t2=" + f, ".t2.a=", ".t2.a.x=1", ".t2.a.y=2"}));

  // A source that cannot be opened is no different.
  std::string missing = (dir / "t2-missing.cfg").string();
  ASSERT_EQ(kivinfo_set(".t2", missing.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".t2.a.x"), code(KIV_EINTERNAL));
  walk(".t2", &rc);
  EXPECT_EQ(rc, KIV_EACCES);
  file("t2-missing.cfg", "a:\n  x = 3\n");
  EXPECT_EQ(get(".t2.a.x"), "3");
}

TEST_F(Info, CaseInsensitiveLookupsStoredCaseInWalks) {
  std::string f = file("t3.cfg", "Tcp.S25:\n  Service = smtp\nTcpx:\n  A = 1\n");
  ASSERT_EQ(kivinfo_set(".t3", f.c_str(), KIVINFO_FILE), 0);
  EXPECT_EQ(get(".T3.TCP.s25.SERVICE"), "smtp");
  EXPECT_EQ(walk(".T3.tcp"), sorted({".t3.Tcp=", ".t3.Tcp.S25=", ".t3.Tcp.S25.Service=smtp"}));
  EXPECT_EQ(walk(".t3.tcpx"), sorted({".t3.Tcpx=", ".t3.Tcpx.A=1"}));
  EXPECT_EQ(walk(".t3.tcp.s25.service"), list{".t3.Tcp.S25.Service=smtp"});
  EXPECT_EQ(walk(".t3.tc"), list{});
  EXPECT_EQ(walk(".t3").size(), 6u);
}

TEST_F(Info, SetKindsFileNamesAndRefusals) {
  std::string old = file("t5.cfg", "a:\n  x = 1\n");
  auto reattach = [&] {
    ASSERT_EQ(kivinfo_set(".t5", old.c_str(), KIVINFO_FILE), 0);
    ASSERT_EQ(get(".t5.a.x"), "1");
  };
  struct {
    const char *path;
    bool nullsource;
    int kind;
    int expect;
    bool removed;  // the old subtree is gone afterwards
  } cases[] = {
      {".t5", false, KIVINFO_RESERVED, KIV_ENOTSUPP, true},
      {".t5", false, 3, KIV_EINVAL, true},
      {".t5", false, -1, KIV_EINVAL, true},
      {".t5", true, KIVINFO_FILE, KIV_EINVAL, false},
      {"t5", false, KIVINFO_FILE, KIV_EINVAL, false},
      {nullptr, false, KIVINFO_FILE, KIV_EINVAL, false},
      {".", false, KIVINFO_FILE, KIV_ENOPARENT, false},
      {".t5.none.deeper", false, KIVINFO_FILE, KIV_ENOPARENT, false},
      {".t5.a.x.below", false, KIVINFO_REGISTRY, KIV_ENOPARENT, false},
  };
  for (auto &c : cases) {
    reattach();
    EXPECT_EQ(kivinfo_set(c.path, c.nullsource ? nullptr : "whatever", c.kind), c.expect)
        << (c.path ? c.path : "(null)") << " kind " << c.kind;
    EXPECT_EQ(get(".t5.a.x"), c.removed ? code(KIV_ENOTFOUND) : "1") << (c.path ? c.path : "(null)");
  }
  EXPECT_EQ(get("."), code(KIV_ENODE));  // the root survives

  // File names: ".cfg" is added unless the text from the last "." is exactly ".cfg".
  struct {
    const char *given, *read;
  } names[] = {{"agents", "agents.cfg"},
               {"agents.cfg", "agents.cfg"},
               {"agents.CFG", "agents.CFG.cfg"},
               {"sub.d/agents", "sub.d/agents.cfg"}};
  fs::create_directories(dir / "sub.d");
  for (auto &n : names) {
    std::string read = file(n.read, "");
    ASSERT_EQ(kivinfo_set(".t5", (dir / n.given).string().c_str(), KIVINFO_FILE), 0);
    EXPECT_EQ(walk(".t5"), list{".t5=" + read}) << n.given;
  }

  // A registry source is not read at attachment or at its own path; here it cannot be
  // read at all, and no callback runs.
  const char *reg = "HKEY_CURRENT_USER\\Software\\kivd-no-such-key\\tcp";
  ASSERT_EQ(kivinfo_set(".t5", reg, KIVINFO_REGISTRY), 0);
  EXPECT_EQ(get(".t5"), code(KIV_ENODE));
  EXPECT_EQ(get(".t5.s25.service"), code(KIV_EINTERNAL));
  int rc = 0;
  EXPECT_TRUE(walk(".t5", &rc).empty());
  EXPECT_LT(rc, 0);
}

// True when another thread completes a lookup within the time limit. The thread is
// detached on failure: it would be stuck on the lock for good.
bool otherthreadproceeds() {
  auto done = std::make_shared<std::promise<std::string>>();
  std::future<std::string> result = done->get_future();
  std::thread([done] { done->set_value(get(".t6.a.x")); }).detach();
  if (result.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return false;
  return result.get() == "1";
}

TEST_F(Info, LockIsFreeAfterEveryRefusal) {
  std::string f = file("t6.cfg", "a:\n  x = 1\n");
  for (int kind : {KIVINFO_RESERVED, 9}) {
    ASSERT_EQ(kivinfo_set(".t6", f.c_str(), KIVINFO_FILE), 0);
    EXPECT_NE(kivinfo_set(".t6.q", "s", kind), 0);
    EXPECT_TRUE(otherthreadproceeds()) << "kind " << kind;
  }
  EXPECT_EQ(kivinfo_set("t6", "s", KIVINFO_FILE), KIV_EINVAL);
  EXPECT_EQ(kivinfo_set(".", "s", KIVINFO_FILE), KIV_ENOPARENT);
  EXPECT_EQ(kivinfo_set(".t6.no.parent", "s", KIVINFO_FILE), KIV_ENOPARENT);
  EXPECT_EQ(get(".t6.missing"), code(KIV_ENOTFOUND));
  EXPECT_EQ(kivinfo_walk("t6", record, nullptr), KIV_EINVAL);
  EXPECT_TRUE(otherthreadproceeds());
}

struct inside {
  int calls = 0;
  std::string value, unread, nested;
  int set = 0;
};
int lookinside(const char *, const char *, void *arg) {
  auto *in = static_cast<inside *>(arg);
  if (in->calls++ > 0) return 0;
  in->value = get(".t7.a.x");
  in->unread = get(".t7b.b.y");
  in->nested = std::to_string(kivinfo_walk(".t7", record, nullptr));
  in->set = kivinfo_set(".t7.a", "other", KIVINFO_FILE);
  return 0;
}

TEST_F(Info, LookupsInsideAWalk) {
  std::string a = file("t7.cfg", "a:\n  x = 1\n");
  std::string b = file("t7b.cfg", "b:\n  y = 2\n");
  ASSERT_EQ(kivinfo_set(".t7", a.c_str(), KIVINFO_FILE), 0);
  ASSERT_EQ(kivinfo_set(".t7b", b.c_str(), KIVINFO_FILE), 0);
  inside in;
  ASSERT_EQ(kivinfo_walk(".t7", lookinside, &in), 0);
  EXPECT_EQ(in.calls, 3);
  EXPECT_EQ(in.value, "1");
  EXPECT_EQ(in.unread, code(KIV_ENOTFOUND));  // reading needs a walk of its own
  EXPECT_EQ(in.nested, std::to_string(KIV_EBUSY));
  EXPECT_EQ(in.set, KIV_EBUSY);  // refused, nothing removed
  EXPECT_EQ(get(".t7.a.x"), "1");
  EXPECT_EQ(get(".t7b.b.y"), "2");
}

std::vector<std::string> lines;
void capture(const char *line) {
  std::string s = line;
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  lines.push_back(s);
}
bool endswith(const std::string &s, const std::string &end) {
  return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

TEST_F(Info, LookupLogLinesAtLevelFive) {
  std::string f = file("t8.cfg", "s:\n  v20 = 01234567890123456789\n  v21 = 012345678901234567890\n");
  ASSERT_EQ(kivinfo_set(".t8", f.c_str(), KIVINFO_FILE), 0);
  lines.clear();
  kiv_logsink = capture;
  kiv_loglevel = 4;
  EXPECT_EQ(get(".t8.s.v20"), "01234567890123456789");
  EXPECT_TRUE(lines.empty());
  kiv_loglevel = 5;
  struct {
    std::string name, result, logged;
  } cases[] = {
      {".t8.s.v20", "01234567890123456789", "\".t8.s.v20\" == \"01234567890123456789\""},
      {".t8.s.v21", "012345678901234567890", "\".t8.s.v21\" == \"01234567890123456789\" ..."},
      {".t8.s", code(KIV_ENODE), "not found: \".t8.s\""},
      {".t8.none", code(KIV_ENOTFOUND), "not found: \".t8.none\""},
      {"relative", code(KIV_EINVAL), "not found: \"relative\""},
  };
  for (auto &c : cases) {
    lines.clear();
    EXPECT_EQ(get(c.name), c.result);
    ASSERT_EQ(lines.size(), 1u) << c.name;
    EXPECT_TRUE(endswith(lines[0], c.logged)) << lines[0] << " | " << c.logged;
    EXPECT_NE(lines[0].find("kivinfo_get"), std::string::npos) << lines[0];
  }
  kiv_logreset();
}

TEST_F(Info, RelativeNamesUseTheSearchList) {
  std::string f = file("t9.cfg", "a:\n  x = 1\nb:\n  x = 2\n");
  ASSERT_EQ(kivinfo_set(".t9", f.c_str(), KIVINFO_FILE), 0);
  char p1[] = ".t9.none", p2[] = ".t9.b", p3[] = ".t9.a";
  char *list[] = {p1, p2, p3, nullptr};
  kiv_context ctx{};
  ctx.searchlist = list;
  EXPECT_EQ(get("x", &ctx), "2");
  EXPECT_EQ(get("y", &ctx), code(KIV_ENOTFOUND));
  ctx.searchlist = nullptr;
  EXPECT_EQ(get("x", &ctx), code(KIV_EINVAL));
}

TEST(InfoFixname, MakesOneLowerCaseComponent) {
  struct {
    const char *in, *out;
  } cases[] = {{"My.Service", "my_service"}, {"", ""}, {"A.B..C", "a_b__c"}, {"x-Y_z\xC4", "x-y_z\xC4"}};
  for (auto &c : cases) {
    std::string text = c.in;
    EXPECT_EQ(kivinfo_fixname(&text[0]), &text[0]);
    EXPECT_EQ(text, c.out);
  }
  EXPECT_EQ(kivinfo_fixname(nullptr), nullptr);
}

}  // namespace
