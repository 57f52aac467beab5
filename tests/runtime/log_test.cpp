#ifdef _WIN32
#include <windows.h>
#endif

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "toolkit/runtime/cinit.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"
#include "tests/lib/testing.h"

static std::vector<std::string> captured;
static void capture(const char *line) { captured.push_back(line); }
static uint32_t ticks;
static uint32_t testticks() { return ticks; }
static const char TAG[] = "ssock.ssock_update";

// The toolkit is initialised once per process, so the whole story is one ordered test.
// It is the only caller of kiv_init here; the log takes its own lock, so the tests run
// in any order.
TEST(Init, RefusedVersionThenOnceOnly) {
  kiv_logreset();
  captured.clear();
  kiv_logsink = capture;
  // A version that is not provided: refused, answered with 5/0, nothing recorded.
  kiv_initrec rec{0, 0, 3, 1, 0, 0};
  EXPECT_EQ(KIV_ENOTFOUND, kiv_init(&rec));
  EXPECT_EQ(5u, rec.version);
  EXPECT_STREQ("exportable", kiv_flavour());
  EXPECT_TRUE(captured.empty());
  // The wrapper's call with any version succeeds, at level 1 with its trace line; the
  // caller's words come back, the policy flag cleared.
  kiv_loglevel = 1;
  kiv_setallocreporter(nullptr);
  kiv_initrec mine{0xCAFE, KIV_INIT_NOSUB1, 0, 0, 0, 0};
  EXPECT_EQ(0, kiv_cinit(&mine));
  EXPECT_EQ(0xCAFEu, mine.first);
  EXPECT_EQ(KIV_INIT_NOSUB1, mine.flags);
  EXPECT_STREQ("non-exportable", kiv_flavour());
  // The start-up gave the allocator its report.
  kiv_allocfail("init", 8);
  std::string pid = std::to_string(kiv_processid());
  EXPECT_EQ((std::vector<std::string>{pid + " [*] kiv_init: non-exportable",
                                      pid + " [*] init: failed to allocate 8 bytes"}),
            captured);
  // Again: refused with its warning, even at level 0, and nothing changes.
  captured.clear();
  kiv_loglevel = 0;
  kiv_logconfig("=%f%(e%[C: ");
  EXPECT_EQ(KIV_EBUSY, kiv_init(nullptr));
  EXPECT_EQ(KIV_EBUSY, kiv_cinit(nullptr));
  EXPECT_EQ(std::vector<std::string>(2, "kiv_init (Warning) [EBUSY]: called more than once"),
            captured);
  kiv_logreset();
}

// Every test starts from the log's process-start state, with lines captured.
class Log : public ::testing::Test {
 protected:
  void SetUp() override { fresh(); }
  void TearDown() override {
    kiv_logreset();
    captured.clear();
  }
  static void fresh() {
    kiv_logreset();
    captured.clear();
    kiv_logsink = capture;
    kiv_logsetpid(1234);
  }
};

// The prefix written into exactly `size` characters, with a guard after them.
static std::string prefix(int size, kiv_context *ctx = nullptr, const char *tag = TAG,
                          int severity = 4, int code = 0) {
  std::vector<char> buffer(static_cast<size_t>(size) + 1, '#');
  int n = kiv_logprefix(buffer.data(), size, ctx, tag, severity, code);
  EXPECT_TRUE(n >= 0 && n <= size && buffer.back() == '#') << n << " of " << size;
  return std::string(buffer.data(), static_cast<size_t>(n < 0 ? 0 : n));
}

TEST_F(Log, ModuleFilter) {
  std::string many = "3";  // a list longer than one block
  for (int i = 0; i < 20; i++) many += ";m" + std::to_string(i);
  struct {
    std::string debugspec;
    const char *tag;
    int level, expected;
  } cases[] = {
      {"3;ssock", "ssock.start_agent", 0, 1},
      {"3;ssock", "ssock", 0, 1},
      {"3;ssock", "ssockx.main", 0, 0},
      {"3;ssoc", "ssock.start_agent", 0, 0},
      {"3;ssock", nullptr, 0, 1},
      {"3;ssock", "ssock.x", 4, 0},
      {"3;ssock;sserv", "sserv.main", 0, 1},
      {"3;!ntpipe;ssock", "ntpipe.r", 0, 0},
      {"3;!ntpipe;ssock", "sserv.m", 0, 1},
      {"3;!ssock;ssock", "ssock.x", 0, 0},
      {"3;ssock.start_agent", "ssock.other", 0, 0},
      {"3; ssock", "ssock.x", 0, 0},
      {"3", "anything", 3, 1},
      {"", "anything", 0, 1},
      {many, "m19.f", 3, 1},
      {many, "m20.f", 3, 0},
  };
  for (const auto &c : cases) {
    kiv_logreset();
    kiv_logconfig(c.debugspec.c_str());
    EXPECT_EQ(c.expected, kiv_logcheck(c.level, c.tag))
        << c.debugspec << " / " << (c.tag ? c.tag : "(null)");
  }
}

// A debugspec's items set the level and the prefix template; each case's prefix is that of a
// line with the given severity, code, room, tag and context.
TEST_F(Log, SpecItemsAndPrefixDirectives) {
  kiv_context ctx{7, 0, nullptr};
  struct {
    const char *debugspec, *expected;
    int level = 0, severity = 4, code = 0, size = 256;
    const char *tag = TAG;
    kiv_context *ctx = nullptr;
  } cases[] = {
      {"", "1234 [*] ssock_update: "},
      {"12", "1234 [*] ssock_update: ", 1},
      {"3;;;9", "1234 [*] ssock_update: ", 9},
      {"3;0", "1234 [*] ssock_update: ", 0},
      {"+t", "1234 [*] +00.00 ssock_update: "},
      {"+x;4", "1234 [*] ssock_update: ", 4},
      {"+t;=%l>", "ssock.ssock_update>"},
      {"=%l>;+t", "1234 [*] +00.00 ssock_update: "},
      {"3;=", "", 3},
      {"=a;=b", "b"},
      {">nowhere/kivd.txt;2", "1234 [*] ssock_update: ", 2},
      {"=%%|%p|<%n>|%s|%l|%f", "%|1234|<>|*|ssock.ssock_update|ssock_update"},
      {"=%s", "7", 0, 4, 0, 256, TAG, &ctx},
      {"=%f", "c", 0, 4, 0, 256, "a.b.c"},
      {"=<%l%f>", "<>", 0, 4, 0, 256, nullptr},
      {"=%e|", "Unknown|", 0, 0},
      {"=%e|", "FATAL|", 0, 1},
      {"=%e|", "Warning|", 0, 3},
      {"=%e|", "Unknown|", 0, 5},
      {"=%c|%C", "System error|ESYS", 0, 2, -12},
      {"=%c|%C", "|", 0, 2},
      {"=%q%9", "<%q?><%9?>"},
      {"=%c|%C", "Unknown error code|UNKNOWN", 0, 2, -40},
      // brackets: a blank and the bracket around a value, nothing for an empty one
      {"=%[c%{C", " [System error] {ESYS}", 0, 2, -12},
      {"=%[c%{C", "", 0, 2},
      {"=a%(eb", "ab"},
      {"=%<p", " <1234>"},
      {"=%({[e", " [FATAL]", 0, 1},
      {"=%(%", " (%)"},
      {"=%(x", " (<%x?>)"},
      // room: blank and opening bracket need more than two characters, the closing one
      {"=%(e", " (ERROR", 0, 2, 0, 7},
      {"=%(e", " (E", 0, 2, 0, 3},
      {"=%(e", "ER", 0, 2, 0, 2},
      {"=abc", "", 0, 4, 0, 0},
      {"=ab%[<", "ab"},
      {"=a\\nb\\t|\\\\|\\x\\", "a\nb\t|\\|\\x\\"},
      {"=\\%p", "%p"},
  };
  for (const auto &c : cases) {
    fresh();
    kiv_logconfig(c.debugspec);
    EXPECT_EQ(c.level, kiv_loglevel) << c.debugspec;
    EXPECT_EQ(c.expected, prefix(c.size, c.ctx, c.tag, c.severity, c.code))
        << c.debugspec << " size " << c.size;
  }
}

// %t is the time since the previous line in seconds and hundredths, wrapping at 100 s.
TEST_F(Log, TimeSincePreviousLine) {
  kiv_setclock(nullptr, testticks);
  kiv_logconfig("=%t");
  kiv_context ctx{1, 0, nullptr};  // keeps its own previous time
  struct {
    uint32_t step;
    kiv_context *ctx;
    const char *expected;
  } cases[] = {{5000, nullptr, "00.00"}, {125500, nullptr, "25.50"}, {9, nullptr, "00.00"},
               {1230, nullptr, "01.23"}, {0, &ctx, "00.00"},         {2000, &ctx, "02.00"},
               {0, nullptr, "02.00"}};
  for (const auto &c : cases) {
    ticks += c.step;
    EXPECT_EQ(c.expected, prefix(256, c.ctx)) << ticks;
  }
  kiv_setclock(nullptr, nullptr);
}

TEST_F(Log, AllocatorReportsFailuresUnderTheCallersTag) {
  kiv_setallocreporter(kiv_allocreport);  // as the toolkit's start-up does
  xheap_failafter(0);
  for (const char *tag : {"ntpipe.npipe_write", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(nullptr, kiv_alloc(64, tag));
    EXPECT_EQ(nullptr, kiv_zalloc(64, tag));
    EXPECT_EQ(nullptr, kiv_realloc(nullptr, 64, tag));
  }
  xheap_failafter(-1);
  std::string tagged = "1234 [*] npipe_write: failed to allocate 64 bytes",
              untagged = "1234 [*] kiv_alloc: failed to allocate 64 bytes";
  EXPECT_EQ((std::vector<std::string>{tagged, tagged, tagged, untagged, untagged, untagged}),
            captured);
  // A failed resize returns the old block unchanged; size 0 releases it without a report.
  captured.clear();
  auto *p = static_cast<char *>(kiv_alloc(8, "ssock.grow"));
  memcpy(p, "kept", 5);
  kiv_logconfig("=%(e%[C %f: ");
  xheap_failafter(0);
  EXPECT_EQ(p, kiv_realloc(p, 1 << 20, "ssock.grow"));
  xheap_failafter(-1);
  EXPECT_STREQ("kept", p);
  EXPECT_EQ(nullptr, kiv_realloc(p, 0, "ssock.grow"));
  kiv_allocfail("memdb.store", 3000000000u);  // the size as %d, as the report has it
  EXPECT_EQ(
      (std::vector<std::string>{" (FATAL) [ENOMEM] grow: failed to allocate 1048576 bytes",
                                " (FATAL) [ENOMEM] store: failed to allocate -1294967296 bytes"}),
      captured);
}

static std::vector<std::string> events;
static void eventoutlet(void *, const kivev_event *ev) {
  events.push_back(kivev_name(ev->id) + std::string(" ") + (ev->text ? ev->text : ""));
}

// A file that cannot take lines is one event, not one per line, and another when it
// takes them again.
TEST_F(Log, FileSinkIsOpenedLazilyAndRetried) {
  namespace fs = std::filesystem;
  fs::path dir = testdir() / "log";
  std::string file = (dir / "kivd.txt").string();
  kiv_logreset();  // the real sink
  kiv_logsetpid(1234);
  kivev_reset();
  events.clear();
  kivev_addoutlet(eventoutlet, nullptr, 0);
  kiv_logconfig(("3;>" + file).c_str());
  // No directory yet: the lines go to standard error, the file is tried again later.
  testing::internal::CaptureStderr();
  kiv_log(nullptr, "a.b", "first");
  kiv_log(nullptr, "a.b", "again");
  EXPECT_EQ("1234 [*] b: first\n1234 [*] b: again\n", testing::internal::GetCapturedStderr());
  ASSERT_TRUE(fs::create_directories(dir));
  kiv_logerror(nullptr, "a.b", 1, KIV_ENOMEM, "second");
  kiv_log(nullptr, "a.b", "third");
  std::vector<std::string> said = {"TRACE_FAILED " + file, "TRACE_RESUMED " + file};
  // A full disk: each write fails.
  if (fs::exists("/dev/full")) {
    kiv_logconfig("3;>/dev/full");
    testing::internal::CaptureStderr();
    kiv_log(nullptr, "a.b", "lost");
    kiv_log(nullptr, "a.b", "lost");
    EXPECT_EQ("1234 [*] b: lost\n1234 [*] b: lost\n", testing::internal::GetCapturedStderr());
    said.push_back("TRACE_FAILED /dev/full");
  }
  kiv_logreset();  // closes the stream
  kivev_reset();
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  EXPECT_EQ("1234 [*] b: second\n1234 [*] b: third\n", text.str());
  EXPECT_EQ(said, events);
}

// The log file is rotated when it passes its size, three old files kept, no line lost or
// doubled at a seam; the size is the file item's, 10 MB without one, never with "<0".
TEST_F(Log, FileRotatesAtItsSize) {
  namespace fs = std::filesystem;
  fs::path dir = testdir() / "rotate";
  std::string file = (dir / "kivd.txt").string();
  auto read = [](const std::string &name) {
    std::stringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
  };
#ifdef _WIN32
  const int LINE = 11;  // "line 0000" and CR LF: the log file is a text file
#else
  const int LINE = 10;
#endif
  struct {
    const char *size;
    int lines;
    int limit;  // bytes, 0 for no rotation
  } cases[] = {
      {"<1K", 50, 0}, {"<100", 500, 100}, {"<0", 500, 0}, {"", 500, 0}, {"<1k", 500, 1024}};
  for (const auto &c : cases) {
    fs::remove_all(dir);
    ASSERT_TRUE(fs::create_directories(dir));
    kiv_logreset();
    kiv_logconfig(("3;=;>" + file + c.size).c_str());
    for (int i = 0; i < c.lines; i++) kiv_log(nullptr, "a.b", "line %04d", i);
    kiv_logreset();
    if (c.size[0]) {
      EXPECT_FALSE(fs::exists(file + c.size)) << "the size is no part of the name";
    }
    // Rotated after the line that reached the size.
    uintmax_t rotated = static_cast<uintmax_t>((c.limit + LINE - 1) / LINE * LINE);
    EXPECT_EQ(rotated, fs::exists(file + ".1") ? fs::file_size(file + ".1") : 0) << c.size;
    // Oldest first, the lines run on without a gap to the last one written.
    std::string all = read(file + ".3") + read(file + ".2") + read(file + ".1") + read(file);
    std::istringstream lines(all);
    std::string line;
    int expected = c.lines - static_cast<int>(all.size()) / 10;
    while (std::getline(lines, line)) {
      char want[16];
      snprintf(want, sizeof want, "line %04d", expected++);
      ASSERT_EQ(want, line) << c.size;
    }
    EXPECT_EQ(c.lines, expected) << c.size;
    EXPECT_FALSE(fs::exists(file + ".4")) << c.size;
    // Past three kept files too: Windows renames nothing onto the oldest while it exists.
    if (c.limit) {
      EXPECT_LT(fs::exists(file) ? fs::file_size(file) : 0, static_cast<uintmax_t>(c.limit))
          << c.size;
    }
  }
  EXPECT_EQ(fs::file_size(file + ".1"), fs::file_size(file + ".3")) << "three kept";
}

namespace {

std::string content(const std::string &name) {
  std::stringstream text;
  text << std::ifstream(name, std::ios::binary).rdbuf();
  return text.str();
}

// The numbers of the "line %04d" lines of the files, oldest file first, in order.
std::vector<int> numbered(const std::vector<std::string> &files) {
  std::vector<int> numbers;
  for (const std::string &name : files) {
    std::istringstream lines(content(name));
    int n;
    for (std::string line; std::getline(lines, line);)
      if (sscanf(line.c_str(), "line %d", &n) == 1) numbers.push_back(n);
  }
  return numbers;
}

// The log file's path in a fresh, empty folder of that name.
std::string fresh_file(const char *folder) {
  std::filesystem::path dir = testdir() / folder;
  std::filesystem::remove_all(dir);
  EXPECT_TRUE(std::filesystem::create_directories(dir));
  return (dir / "kivd.txt").string();
}

std::vector<int> upto(int count) {
  std::vector<int> numbers(static_cast<size_t>(count));
  for (int i = 0; i < count; i++) numbers[static_cast<size_t>(i)] = i;
  return numbers;
}

}  // namespace

// A rotation that fails (the heap refuses the names it needs) leaves the lines going into F
// and is tried again an eighth of the size on, not at the next line.
TEST_F(Log, AFailedRotationIsTriedAgainAnEighthOfTheSizeOn) {
  namespace fs = std::filesystem;
  std::string file = fresh_file("rotate_retry");
#ifdef _WIN32
  const uintmax_t LINE = 11;
#else
  const uintmax_t LINE = 10;
#endif
  const int LIMIT = 8000;
  kiv_logreset();
  kiv_logconfig(("3;=;>" + file + "<8000").c_str());
  int line = 0;
  kiv_log(nullptr, "a.b", "line %04d", line++);
  while (fs::file_size(file) + LINE < static_cast<uintmax_t>(LIMIT))
    kiv_log(nullptr, "a.b", "line %04d", line++);
  xheap_failafter(0);  // the line that reaches the size: its rotation fails
  kiv_log(nullptr, "a.b", "line %04d", line++);
  xheap_failafter(-1);
  EXPECT_FALSE(fs::exists(file + ".1"));
  while (!fs::exists(file + ".1") && line < 2000) kiv_log(nullptr, "a.b", "line %04d", line++);
  kiv_logreset();
  EXPECT_GE(fs::file_size(file + ".1"), static_cast<uintmax_t>(LIMIT + LIMIT / 8));
  EXPECT_EQ(numbered({file + ".1", file}), upto(line));
}

#ifdef _WIN32
// A reader that holds F open without delete sharing (following it live) keeps it from
// being renamed: the kept files stay as they were, lines go on into F, and the rotation is
// tried again until the reader lets go.
TEST_F(Log, ARotationThatCannotRenameKeepsTheKeptFiles) {
  namespace fs = std::filesystem;
  std::string file = fresh_file("rotate_held");
  for (int i = 1; i <= KIV_LOGKEEP; i++)
    std::ofstream(file + "." + std::to_string(i), std::ios::binary) << "kept " << i << "\n";
  HANDLE reader = CreateFileA(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, 0, nullptr);
  ASSERT_NE(reader, INVALID_HANDLE_VALUE);
  kiv_logreset();
  kiv_logconfig(("3;=;>" + file + "<1k").c_str());
  int line = 0;
  while (line < 400) kiv_log(nullptr, "a.b", "line %04d", line++);  // past the size four times
  for (int i = 1; i <= KIV_LOGKEEP; i++)
    EXPECT_EQ(content(file + "." + std::to_string(i)), "kept " + std::to_string(i) + "\n") << i;
  EXPECT_GE(fs::file_size(file), 4400u);
  CloseHandle(reader);
  // The next retry is at most an eighth of the size on: F becomes F.1, the oldest goes.
  while (line < 440) kiv_log(nullptr, "a.b", "line %04d", line++);
  kiv_logreset();
  EXPECT_EQ(content(file + ".3"), "kept 2\n");
  EXPECT_EQ(content(file + ".2"), "kept 1\n");
  EXPECT_EQ(numbered({file + ".1", file}), upto(line));
  EXPECT_LT(fs::file_size(file), 1024u);
  EXPECT_FALSE(fs::exists(file + ".0"));
}
#endif

static std::atomic<int> inside{0}, overlaps{0};
static std::string sunk;
// Appends character by character, yielding, so that a second writer would interleave.
static void slowsink(const char *line) {
  if (inside.fetch_add(1) != 0) overlaps++;
  for (const char *p = line; *p; p++, std::this_thread::yield()) sunk += *p;
  sunk += '\n';
  inside.fetch_sub(1);
}

TEST_F(Log, TwoThreadsWriteWholeLines) {
  kiv_logsink = slowsink;
  kiv_logconfig("3;=");
  auto writer = [](char who) {
    for (int i = 0; i < 200; i++) kiv_log(nullptr, "t.w", "%c-line-%03d", who, i);
  };
  std::thread a(writer, 'a'), b(writer, 'b');
  a.join();
  b.join();
  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(400u * 11, sunk.size());  // each line whole, none lost
}

static void nestingsink(const char *line) {
  captured.push_back(line);
  if (captured.size() < 10) kiv_log(nullptr, "t.n", "nested %d", static_cast<int>(captured.size()));
}

TEST_F(Log, SinkThatLogsNestsOnceAndDropsTheThirdLevel) {
  kiv_logsink = nestingsink;
  kiv_logconfig("3;=");
  kiv_log(nullptr, "t.n", "outer");
  EXPECT_EQ((std::vector<std::string>{"outer", "nested 1"}), captured);
  kiv_logsink = capture;  // the nesting is undone: a line from another thread gets through
  std::thread([] { kiv_log(nullptr, "t.n", "later"); }).join();
  EXPECT_EQ((std::vector<std::string>{"outer", "nested 1", "later"}), captured);
}

static time_t fixedtime() { return 1700000000; }

// Levels, templates and long lines. An empty or null format makes kiv_log write a
// separator with the local time, cut to the room after the prefix; a report with such a
// format is its prefix alone.
TEST_F(Log, LinesAsWritten) {
  kiv_setclock(fixedtime, nullptr);
  struct tm local;
  ASSERT_TRUE(kiv_localtime(fixedtime(), &local));
  char when[64];
  strftime(when, sizeof when, "%b %d %H:%M:%S", &local);
  const char *none = nullptr, *empty = "";       // variables: the compiler checks literal formats
  std::string longprefix(KIV_LOGLINE - 8, 'p');  // leaves room for 7 characters
  kiv_logerror(nullptr, "sserv.main", KIV_SEV_FATAL, 0, "at level 0 reports pass");
  kiv_logconfig("3;ssock;=%l%(e%[c: ");
  kiv_log(nullptr, "sserv.main", "dropped by the filter");
  kiv_logerror(nullptr, "sserv.main", KIV_SEV_ERROR, KIV_ENOTFOUND, "no %s", "port");
  kiv_log(nullptr, "ssock.x", "%s", std::string(3000, 'x').c_str());
  kiv_loglevel = -1;
  kiv_log(nullptr, "ssock.f", "dropped at a negative level");
  kiv_logconfig("3;=%f: ");
  kiv_log(nullptr, "a.sep", "%s", "");  // an empty text is not an empty format
  kiv_log(nullptr, "a.sep", empty);
  kiv_log(nullptr, "a.sep", none);
  kiv_logerror(nullptr, "a.rep", KIV_SEV_ERROR, KIV_ESYS, empty);
  kiv_logerror(nullptr, "a.rep", KIV_SEV_ERROR, KIV_ESYS, none);
  kiv_logconfig(("3;=" + longprefix).c_str());
  kiv_log(nullptr, "a.sep", empty);
  kiv_setclock(nullptr, nullptr);
  std::vector<std::string> expected = {"1234 [*] main: at level 0 reports pass",
                                       "sserv.main (ERROR) [Not found]: no port",
                                       "ssock.x: " + std::string(KIV_LOGLINE - 1 - 9, 'x'),
                                       "sep: ",
                                       std::string("sep: ========== ") + when,
                                       std::string("sep: ========== ") + when,
                                       "rep: ",
                                       "rep: ",
                                       longprefix + "======="};
  EXPECT_EQ(expected, captured);
}

// The port manager hands the kept debug spec to every agent: it must be a copy of the last one
// given, gone with a null debug spec and after a reset.
TEST_F(Log, KeepsACopyOfTheLastDebugSpec) {
  auto kept = [] { return kiv_logspec() ? "[" + std::string(kiv_logspec()) + "]" : "none"; };
  EXPECT_EQ("none", kept());
  std::string spec = "3;ssock;>c:/kivd.txt";
  kiv_logconfig(spec.c_str());
  spec[0] = '9';
  EXPECT_EQ("[3;ssock;>c:/kivd.txt]", kept());
  kiv_logconfig("");
  EXPECT_EQ("[]", kept());
  kiv_logconfig(nullptr);
  EXPECT_EQ("none", kept());
  kiv_logconfig("4");
  fresh();  // a reset; a refused copy: the out-of-memory run below
  EXPECT_EQ("none", kept());
}

// Every item of a debug spec that the heap refuses is dropped (and reported); the rest
// apply, and the log goes on writing whole lines.
TEST_F(Log, OutOfMemoryDropsItemsAndKeepsTheLogWhole) {
  std::string spec = "4;=%f: ";  // no exclusion: an unlisted module passes only without a list
  for (int i = 0; i < 20; i++) spec += ";m" + std::to_string(i);
  int points = failpoints("log: a debug spec of 22 items", [&] {
    fresh();
    kiv_logconfig(spec.c_str());
    xheap_failafter(-1);
    EXPECT_EQ(4, kiv_loglevel);
    bool complete = kiv_logspec() != nullptr;
    if (kiv_logspec()) {
      EXPECT_EQ(spec, kiv_logspec());
    }
    int included = 0;
    for (int i = 0; i < 20; i++)
      included += kiv_logcheck(0, ("m" + std::to_string(i) + ".f").c_str());
    complete = complete && included == 20 && kiv_logcheck(0, "other.f") == 0;
    std::string p = prefix(256);
    EXPECT_TRUE(p == "ssock_update: " || p == "1234 [*] ssock_update: ") << p;
    complete = complete && p == "ssock_update: ";
    captured.clear();
    kiv_logerror(nullptr, "m0.f", KIV_SEV_ERROR, 0, "still written");
    EXPECT_EQ(1u, captured.size());
    kiv_logreset();  // releases what was kept; the leak checker sees the rest
    return complete;
  });
  EXPECT_GE(points, 22);
}
