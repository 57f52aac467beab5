#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "lib/heap.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/platform.h"

namespace {

std::vector<std::string> *lines;
void capture(const char *line) { lines->push_back(line); }

uint32_t ticks;
uint32_t testticks() { return ticks; }
time_t now;
time_t testtime() { return now; }

const char TAG[] = "ssock.ssock_update";

// Every test starts from the log's process-start state, with lines captured.
class Log : public ::testing::Test {
 protected:
  void SetUp() override { fresh(); }
  void fresh() {
    kiv_logreset();
    lines = &captured;
    kiv_logsink = capture;
    kiv_logsetpid(1234);
  }
  void TearDown() override {
    xheap_failafter(-1);
    kiv_setclock(nullptr, nullptr);
    kiv_logreset();
  }
  std::vector<std::string> captured;
};

std::string prefix(int size = 256, kiv_context *ctx = nullptr, const char *tag = TAG,
                   int severity = KIV_SEV_DEBUG, int code = 0) {
  std::vector<char> buffer(static_cast<size_t>(size) + 1, '#');
  int n = kiv_logprefix(buffer.data(), size, ctx, tag, severity, code);
  EXPECT_GE(n, 0);
  EXPECT_LE(n, size);
  EXPECT_EQ('#', buffer[static_cast<size_t>(size)]) << "written past size " << size;
  return std::string(buffer.data(), static_cast<size_t>(n));
}

std::string localstamp(time_t t) {
  struct tm local;
  char text[64];
  EXPECT_TRUE(kiv_localtime(t, &local));
  strftime(text, sizeof text, "%b %d %H:%M:%S", &local);
  return text;
}

}  // namespace

TEST_F(Log, DebugSpecItems) {
  struct {
    const char *spec;
    int level;
    const char *prefix;  // of a trace line with the tag ssock.ssock_update
  } cases[] = {
      {"", 0, "1234 [*] ssock_update: "},
      {"3", 3, "1234 [*] ssock_update: "},
      {"12", 1, "1234 [*] ssock_update: "},
      {"3;;;9", 9, "1234 [*] ssock_update: "},
      {";5;", 5, "1234 [*] ssock_update: "},
      {"+t", 0, "1234 [*] +00.00 ssock_update: "},
      {"+x;4", 4, "1234 [*] ssock_update: "},
      {"+", 0, "1234 [*] ssock_update: "},
      {"+t;=%l>", 0, "ssock.ssock_update>"},
      {"=%l>;+t", 0, "1234 [*] +00.00 ssock_update: "},
      {"3;=", 3, ""},
      {"=a;=b", 0, "b"},
      {">nowhere/kivd.txt;2", 2, "1234 [*] ssock_update: "},
  };
  for (const auto &c : cases) {
    fresh();
    kiv_logconfig(c.spec);
    EXPECT_EQ(c.level, kiv_loglevel) << c.spec;
    EXPECT_EQ(c.prefix, prefix()) << c.spec;
  }
  kiv_logreset();
  kiv_logconfig(nullptr);
  EXPECT_EQ(0, kiv_loglevel);
  EXPECT_EQ(&kiv_loglevel, kiv_loglevelp());
}

TEST_F(Log, ModuleFilter) {
  struct {
    const char *spec;
    const char *tag;
    int level;
    int expected;
  } cases[] = {
      {"3;ssock", "ssock.start_agent", 0, 1},
      {"3;ssock", "ssock", 0, 1},
      {"3;ssock", "sserv.main", 0, 0},
      {"3;ssock", "ssockx.main", 0, 0},
      {"3;ssoc", "ssock.start_agent", 0, 0},
      {"3;ssock", nullptr, 0, 1},
      {"3;ssock", "ssock.start_agent", 3, 1},
      {"3;ssock", "ssock.start_agent", 4, 0},
      {"3;ssock;sserv", "sserv.main", 0, 1},
      {"3;!ntpipe;ssock", "ntpipe.npipe_read", 0, 0},
      {"3;!ntpipe;ssock", "sserv.main", 0, 1},
      {"3;!ntpipe;ssock", "ssock.x", 0, 1},
      {"3;!ssock;ssock", "ssock.x", 0, 0},  // the first match decides
      {"3;ssock;!ssock", "ssock.x", 0, 1},
      {"3;ssock.start_agent", "ssock.start_agent", 0, 1},
      {"3;ssock.start_agent", "ssock.other", 0, 0},
      {"3;ssock.start_agent", "ssock", 0, 0},
      {"3; ssock", "ssock.x", 0, 0},  // nothing is trimmed
      {"3; ssock", " ssock.x", 0, 1},
      {"3", "anything", 3, 1},
      {"3", "anything", 4, 0},
      {"", "anything", 0, 1},
  };
  for (const auto &c : cases) {
    kiv_logreset();
    kiv_logconfig(c.spec);
    EXPECT_EQ(c.expected, kiv_logcheck(c.level, c.tag))
        << c.spec << " / " << (c.tag ? c.tag : "(null)") << " at " << c.level;
  }
  kiv_logreset();
  kiv_loglevel = -1;
  EXPECT_EQ(0, kiv_logcheck(0, "ssock.x"));
}

TEST_F(Log, ASecondSpecReplacesTheFirst) {
  kiv_logconfig("5;=%l: ;ssock");
  kiv_logconfig("sserv");
  // The module list of the first spec released the level and the template with it.
  EXPECT_EQ(0, kiv_loglevel);
  EXPECT_EQ("1234 [*] ssock_update: ", prefix());
  EXPECT_EQ(0, kiv_logcheck(0, "ssock.x"));
  EXPECT_EQ(1, kiv_logcheck(0, "sserv.main"));
}

TEST_F(Log, ModuleListGrowsPastSeveralBlocks) {
  std::string spec = "3";
  for (int i = 0; i < 20; i++) spec += ";m" + std::to_string(i);
  kiv_logconfig(spec.c_str());
  for (int i = 0; i < 20; i++)
    EXPECT_EQ(1, kiv_logcheck(3, ("m" + std::to_string(i) + ".f").c_str())) << i;
  EXPECT_EQ(0, kiv_logcheck(3, "m20.f"));
  EXPECT_TRUE(captured.empty());
}

TEST_F(Log, ModuleListThatCannotGrowDropsTheRest) {
  // Whichever allocation the heap refuses, the names kept are the first ones in order,
  // the refusal is reported, and the list is never written past its end.
  for (long fail = 0; fail < 24; fail++) {
    fresh();
    captured.clear();
    xheap_failafter(fail);
    kiv_logconfig("3;m0;m1;m2;m3;m4;m5;m6;m7;m8;m9");
    xheap_failafter(-1);
    // With nothing kept there is no list at all, and every module passes.
    bool nolist = kiv_logcheck(3, "other") == 1;
    int kept = 0;
    while (!nolist && kept < 10 && kiv_logcheck(3, ("m" + std::to_string(kept)).c_str()))
      kept++;
    for (int i = kept; i < 10 && !nolist; i++)
      EXPECT_EQ(0, kiv_logcheck(3, ("m" + std::to_string(i)).c_str())) << fail << " " << i;
    if (kept < 10) {
      ASSERT_FALSE(captured.empty()) << fail;
      EXPECT_NE(std::string::npos, captured[0].find("kiv_logconfig: failed to allocate"))
          << captured[0];
    } else {
      EXPECT_TRUE(captured.empty()) << fail;
    }
  }
}

TEST_F(Log, PrefixDirectives) {
  kiv_context ctx{7, 0, nullptr};
  struct {
    const char *templ;
    int size;
    kiv_context *ctx;
    const char *tag;
    int severity;
    int code;
    const char *expected;
  } cases[] = {
      {"%%", 256, nullptr, TAG, 4, 0, "%"},
      {"%p", 256, nullptr, TAG, 4, 0, "1234"},
      {"<%n>", 256, nullptr, TAG, 4, 0, "<>"},
      {"%s", 256, nullptr, TAG, 4, 0, "*"},
      {"%s", 256, &ctx, TAG, 4, 0, "7"},
      {"%l", 256, nullptr, TAG, 4, 0, "ssock.ssock_update"},
      {"%f", 256, nullptr, TAG, 4, 0, "ssock_update"},
      {"%f", 256, nullptr, "sserv", 4, 0, "sserv"},
      {"%f", 256, nullptr, "a.b.c", 4, 0, "c"},
      {"%f", 256, nullptr, "a.", 4, 0, ""},
      {"%l%f", 256, nullptr, nullptr, 4, 0, ""},
      {"%e", 256, nullptr, TAG, 0, 0, "Unknown"},
      {"%e", 256, nullptr, TAG, 1, 0, "FATAL"},
      {"%e", 256, nullptr, TAG, 2, 0, "ERROR"},
      {"%e", 256, nullptr, TAG, 3, 0, "Warning"},
      {"%e", 256, nullptr, TAG, 4, 0, ""},
      {"%e", 256, nullptr, TAG, 5, 0, "Unknown"},
      {"%c|%C", 256, nullptr, TAG, 2, -12, "System error|ESYS"},
      {"%c|%C", 256, nullptr, TAG, 2, 0, "|"},
      {"%c|%C", 256, nullptr, TAG, 2, -40, "Unknown error code|UNKNOWN"},
      {"%q%Z%9", 256, nullptr, TAG, 4, 0, "<%q?><%Z?><%9?>"},
      // brackets
      {"%[c%{C", 256, nullptr, TAG, 2, -12, " [System error] {ESYS}"},
      {"%[c%{C", 256, nullptr, TAG, 2, 0, ""},
      {"a%(e", 256, nullptr, TAG, 2, 0, "a (ERROR)"},
      {"a%(eb", 256, nullptr, TAG, 4, 0, "ab"},
      {"%<p", 256, nullptr, TAG, 4, 0, " <1234>"},
      {"%({[e", 256, nullptr, TAG, 1, 0, " [FATAL]"},
      {"%(n", 256, nullptr, TAG, 1, 0, ""},
      {"%(%", 256, nullptr, TAG, 1, 0, " (%)"},
      {"%(x", 256, nullptr, TAG, 1, 0, " (<%x?>)"},
      // room: blank and opening bracket need more than two characters, the closing one
      {"%(e", 8, nullptr, TAG, 2, 0, " (ERROR)"},
      {"%(e", 7, nullptr, TAG, 2, 0, " (ERROR"},
      {"%(e", 3, nullptr, TAG, 2, 0, " (E"},
      {"%(e", 2, nullptr, TAG, 2, 0, "ER"},
      {"x%(e", 3, nullptr, TAG, 2, 0, "xER"},
      {"%(e", 1, nullptr, TAG, 2, 0, "E"},
      {"%p", 2, nullptr, TAG, 4, 0, "12"},
      {"abc", 0, nullptr, TAG, 4, 0, ""},
      // the end of the template
      {"ab%", 256, nullptr, TAG, 4, 0, "ab"},
      {"ab%(", 256, nullptr, TAG, 4, 0, "ab"},
      {"ab%[<", 256, nullptr, TAG, 4, 0, "ab"},
      // escapes
      {"a\\nb", 256, nullptr, TAG, 4, 0, "a\nb"},
      {"\\t|\\\\", 256, nullptr, TAG, 4, 0, "\t|\\"},
      {"\\x\\", 256, nullptr, TAG, 4, 0, "\\x\\"},
      {"\\\\n", 256, nullptr, TAG, 4, 0, "\\n"},
      {"\\%p", 256, nullptr, TAG, 4, 0, "%p"},
  };
  for (const auto &c : cases) {
    fresh();
    kiv_logconfig((std::string("=") + c.templ).c_str());
    EXPECT_EQ(c.expected, prefix(c.size, c.ctx, c.tag, c.severity, c.code))
        << "template " << c.templ << " size " << c.size;
  }
}

TEST_F(Log, ProcessIdIsFilledOnFirstUse) {
  kiv_logreset();  // cache empty
  EXPECT_EQ(std::to_string(kiv_processid()) + " [*] ssock_update: ", prefix());
  kiv_logsetpid(99);
  EXPECT_EQ("99 [*] ssock_update: ", prefix());
}

TEST_F(Log, TimeSincePreviousLine) {
  kiv_setclock(nullptr, testticks);
  kiv_logconfig("=%t");
  ticks = 5000;
  EXPECT_EQ("00.00", prefix());
  ticks += 125500;
  EXPECT_EQ("25.50", prefix());
  ticks += 9;  // below a hundredth
  EXPECT_EQ("00.00", prefix());
  ticks += 1230;
  EXPECT_EQ("01.23", prefix());

  // A context keeps its own previous time and leaves the process-wide one alone.
  kiv_context ctx{1, 0, nullptr};
  EXPECT_EQ("00.00", prefix(256, &ctx));
  ticks += 2000;
  EXPECT_EQ("02.00", prefix(256, &ctx));
  EXPECT_EQ(ticks / 10, ctx.prevtime);
  EXPECT_EQ("02.00", prefix());
}

TEST_F(Log, LocalTimeDirectiveAndSeparatorLine) {
  now = 1700000000 + 37;
  kiv_setclock(testtime, nullptr);
  std::string stamp = localstamp(now);
  ASSERT_EQ(15u, stamp.size()) << stamp;

  kiv_logconfig("=%T|");
  EXPECT_EQ(stamp + "|", prefix());

  kiv_logconfig("3;=");
  const char *empty = "", *none = nullptr;  // not literals: the format checker would object
  kiv_log(nullptr, "sserv.main", empty);
  kiv_log(nullptr, "sserv.main", none);
  ASSERT_EQ(2u, captured.size());
  EXPECT_EQ("========== " + stamp, captured[0]);
  EXPECT_EQ(captured[0], captured[1]);

  // The separator is cut to the room that the prefix leaves.
  captured.clear();
  kiv_logconfig(("=" + std::string(KIV_LOGLINE - 6, 'p')).c_str());
  kiv_log(nullptr, "sserv.main", none);
  ASSERT_EQ(1u, captured.size());
  EXPECT_EQ(std::string(KIV_LOGLINE - 6, 'p') + "=====", captured[0]);
}

TEST_F(Log, TraceAndReportLines) {
  kiv_logconfig("3");
  kiv_log(nullptr, TAG, "Listening on port %d for %s", 25, "smtp");
  kiv_logerror(nullptr, "ssock.start_agent", KIV_SEV_ERROR, KIV_ESYS, "Failed %s(): %d",
               "CreateProcess", 2);
  std::vector<std::string> expected = {
      "1234 [*] ssock_update: Listening on port 25 for smtp",
      "1234 [*] start_agent: Failed CreateProcess(): 2",
  };
  EXPECT_EQ(expected, captured);

  // The time on: a plus sign and %t after the bracketed asterisk.
  captured.clear();
  kiv_setclock(nullptr, testticks);
  ticks = 100;
  kiv_logconfig("3;+t");
  kiv_log(nullptr, TAG, "x");
  ticks += 1500;
  kiv_log(nullptr, TAG, "y");
  expected = {"1234 [*] +00.00 ssock_update: x", "1234 [*] +01.50 ssock_update: y"};
  EXPECT_EQ(expected, captured);
}

TEST_F(Log, ReportTemplateShowsSeverityAndCode) {
  now = 1700000000;
  kiv_setclock(testtime, nullptr);
  kiv_logconfig("3;=%T %p %l%(e%[c: ");
  kiv_logerror(nullptr, "ssock.x", KIV_SEV_ERROR, KIV_ENOTFOUND, "no %s", "port");
  kiv_log(nullptr, "ssock.x", "trace");
  std::string stamp = localstamp(now);
  std::vector<std::string> expected = {
      stamp + " 1234 ssock.x (ERROR) [Not found]: no port",
      stamp + " 1234 ssock.x: trace",
  };
  EXPECT_EQ(expected, captured);
}

TEST_F(Log, LevelsAndFilterApplyToTraceLinesOnly) {
  // Level 0 (no spec): reports pass, trace lines are the callers' business.
  kiv_logerror(nullptr, "sserv.main", KIV_SEV_FATAL, 0, "boom");
  kiv_logconfig("3;ssock");
  kiv_log(nullptr, "sserv.main", "dropped");
  kiv_logerror(nullptr, "sserv.main", KIV_SEV_FATAL, 0, "kept");
  kiv_log(nullptr, "ssock.f", "passes");
  kiv_loglevel = -1;
  kiv_log(nullptr, "ssock.f", "dropped at a negative level");
  std::vector<std::string> expected = {"1234 [*] main: boom", "1234 [*] main: kept",
                                       "1234 [*] f: passes"};
  EXPECT_EQ(expected, captured);
}

TEST_F(Log, LinesAreCutAt2047Characters) {
  kiv_logconfig("3");
  std::string big(3000, 'x');
  kiv_log(nullptr, "a.b", "%s", big.c_str());
  kiv_logerror(nullptr, "a.b", 1, 0, "%s", big.c_str());
  ASSERT_EQ(2u, captured.size());
  std::string head = "1234 [*] b: ";
  std::string expected = head + std::string(KIV_LOGLINE - 1 - head.size(), 'x');
  EXPECT_EQ(expected, captured[0]);
  EXPECT_EQ(expected, captured[1]);

  // A prefix that fills the whole buffer leaves no room for the message.
  captured.clear();
  kiv_logconfig(("3;=" + std::string(2100, 'p')).c_str());
  kiv_log(nullptr, "a.b", "message");
  kiv_logerror(nullptr, "a.b", 1, 0, "message");
  ASSERT_EQ(2u, captured.size());
  EXPECT_EQ(std::string(KIV_LOGLINE - 1, 'p'), captured[0]);
  EXPECT_EQ(captured[0], captured[1]);
}

TEST_F(Log, FileSinkIsOpenedLazilyAndRetried) {
  namespace fs = std::filesystem;
  fs::path dir = fs::temp_directory_path() / ("kivlog-" + std::to_string(kiv_processid()));
  fs::remove_all(dir);
  fs::path file = dir / "kivd.txt";
  kiv_logreset();  // the real sink
  kiv_logsetpid(1234);
  kiv_logconfig(("3;>" + file.string()).c_str());

  // No directory yet: the line goes to standard error, the file is tried again later.
  testing::internal::CaptureStderr();
  kiv_log(nullptr, "a.b", "first");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ("1234 [*] b: first\n", err);
  EXPECT_FALSE(fs::exists(file));

  ASSERT_TRUE(fs::create_directory(dir));
  // Nothing at all at a negative level, not even a failure report; the file stays unopened.
  kiv_loglevel = -1;
  kiv_logerror(nullptr, "a.b", 1, KIV_ENOMEM, "hidden");
  EXPECT_FALSE(fs::exists(file));
  kiv_loglevel = 0;
  kiv_logerror(nullptr, "a.b", 1, KIV_ENOMEM, "second");
  kiv_log(nullptr, "a.b", "third");
  kiv_logreset();  // closes the stream

  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  in.close();
  EXPECT_EQ("1234 [*] b: second\n1234 [*] b: third\n", text.str());
  fs::remove_all(dir);
}

namespace {
std::atomic<int> inside{0};
std::atomic<int> overlaps{0};
std::string *sinkbuffer;
// Appends character by character, yielding, so that a second writer would interleave.
void slowsink(const char *line) {
  if (inside.fetch_add(1) != 0) overlaps++;
  for (const char *p = line; *p; p++) {
    sinkbuffer->push_back(*p);
    std::this_thread::yield();
  }
  sinkbuffer->push_back('\n');
  inside.fetch_sub(1);
}
}  // namespace

TEST_F(Log, TwoThreadsWriteWholeLines) {
  std::string out;
  sinkbuffer = &out;
  kiv_logsink = slowsink;
  kiv_logconfig("3;=");
  const int count = 200;
  auto writer = [](char who) {
    for (int i = 0; i < count; i++) kiv_log(nullptr, "t.w", "%c-line-%03d", who, i);
  };
  std::thread a(writer, 'a');
  std::thread b(writer, 'b');
  a.join();
  b.join();
  EXPECT_EQ(0, overlaps.load());
  std::istringstream in(out);
  std::string line;
  int seen[2] = {0, 0};
  while (std::getline(in, line)) {
    ASSERT_EQ(10u, line.size()) << line;
    ASSERT_TRUE(line[0] == 'a' || line[0] == 'b') << line;
    int &n = seen[line[0] - 'a'];
    EXPECT_EQ(n, std::stoi(line.substr(7))) << line;  // each thread's lines in order
    n++;
  }
  EXPECT_EQ(count, seen[0]);
  EXPECT_EQ(count, seen[1]);
}

namespace {
int nestedcalls;
void nestingsink(const char *line) {
  lines->push_back(line);
  nestedcalls++;
  if (nestedcalls < 10) kiv_log(nullptr, "t.n", "nested %d", nestedcalls);
}
}  // namespace

TEST_F(Log, SinkThatLogsNestsOnceAndDropsTheThirdLevel) {
  kiv_logsink = nestingsink;
  kiv_logconfig("3;=");
  nestedcalls = 0;
  kiv_log(nullptr, "t.n", "outer");
  std::vector<std::string> expected = {"outer", "nested 1"};
  EXPECT_EQ(expected, captured);

  // The nesting is undone: a line from another thread still gets through.
  captured.clear();
  kiv_logsink = capture;
  std::thread other([] { kiv_log(nullptr, "t.n", "later"); });
  other.join();
  EXPECT_EQ(std::vector<std::string>{"later"}, captured);
}
