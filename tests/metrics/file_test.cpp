// The monitoring file on the disk: the writer's rename over the file, read while it is
// rewritten; its failures as one event; and kivd.exe writing the file the configuration
// names, again every interval and at stop.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lib/wire.h"
#include "service/metrics.h"
#include "tests/metrics/exposition.h"
#include "tests/support/support.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/events.h"

namespace {

std::string folder() {
  std::string dir = kt::build_dir() + "\\tests\\metrics\\files";
  CreateDirectoryA(dir.c_str(), nullptr);
  return dir;
}

bool exists(const std::string &path) {
  return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The file as a collector reads it: opened for reading, sharing reading and writing but
// not deletion, so a rename over it waits until it is closed again. "" when it cannot be
// opened; *busy then tells whether it was refused only while a rename held it (the rename
// holds the file with the right to delete it for a moment, and a reader that does not
// share that is refused then, as on Windows, and reads it at its next try).
std::string read_file(const std::string &path, bool *opened = nullptr, bool *busy = nullptr) {
  HANDLE h = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened) *opened = h != INVALID_HANDLE_VALUE;
  if (busy) *busy = h == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION;
  if (h == INVALID_HANDLE_VALUE) return "";
  std::string text;
  char buffer[65536];
  DWORD n = 0;
  while (ReadFile(h, buffer, sizeof buffer, &n, nullptr) && n > 0) text.append(buffer, n);
  CloseHandle(h);
  return text;
}

// Events as the outlet sees them, from whatever thread emits them.
std::mutex seen_lock;
std::vector<std::string> seen;
void collect(void *, const kivev_event *ev) {
  std::lock_guard<std::mutex> hold(seen_lock);
  seen.push_back(std::string(kivev_name(ev->id)) + " " + (ev->text ? ev->text : ""));
}
std::vector<std::string> events() {
  std::lock_guard<std::mutex> hold(seen_lock);
  return seen;
}

// Lines of many ports, so that a write takes long enough to be caught half-way.
std::string ports(int count, int connections) {
  std::string lines;
  for (int i = 0; i < count; i++)
    lines += "Port=" + std::to_string(7000 + i) +
             " Service=s State=idle Connections=" + std::to_string(connections) +
             " Starts=1 Launch1ms=1 LaunchMicroseconds=9\n";
  return lines;
}

TEST(MetricsWriter, WritesTheWholeTextOrLeavesTheFileAsItWas) {
  std::string dir = folder(), file = dir + "\\whole.prom", taken = dir + "\\taken.prom";
  CreateDirectoryA(taken.c_str(), nullptr);  // a folder where the file should be
  DeleteFileA(file.c_str());
  struct {
    std::string path;
    DWORD error;
  } rows[] = {
      {file, 0},
      {file, 0},  // over the file of the first
      {dir + "\\no such folder\\kivd.prom", ERROR_PATH_NOT_FOUND},
      {taken, ERROR_ACCESS_DENIED},
  };
  int n = 0;
  for (const auto &r : rows) {
    std::string text = "# written " + std::to_string(++n) + "\n";
    EXPECT_EQ(metrics_write(r.path, text), r.error) << r.path;
    EXPECT_FALSE(exists(r.path + METRICS_TEMP)) << r.path;
    if (r.error == 0) {
      EXPECT_EQ(read_file(r.path), text);
    }
  }
  RemoveDirectoryA(taken.c_str());
}

// A collector polls the file while kivd rewrites it again and again with texts of two
// lengths: every read is one of the two texts, whole.
TEST(MetricsWriter, AReaderNeverSeesHalfAFile) {
  ASSERT_EQ(metrics_start(), 0);
  std::string file = folder() + "\\polled.prom";
  const std::string texts[2] = {metrics_text(ports(300, 1)), metrics_text(ports(30, 2))};
  ASSERT_EQ(metrics_write(file, texts[1]), 0u);
  std::atomic<bool> done{false};
  std::atomic<int> reads{0};
  std::string torn;
  std::thread reader([&] {
    while (!done) {
      bool opened = false, busy = false;
      std::string text = read_file(file, &opened, &busy);
      if ((!opened || (text != texts[0] && text != texts[1])) && !busy && torn.empty())
        torn = opened ? "a text of " + std::to_string(text.size()) + " bytes" : "no file";
      reads += opened;
      // Paced, so that a rename finds the file closed: a reader that held it open for
      // good would only hold the writes off.
      Sleep(1);
    }
  });
  // Rewritten until the reader has read it many times, whatever the machine's pace.
  int writes = 0;
  while (writes < 40 || (reads < 100 && writes < 5000)) {
    metrics_post(file, texts[writes++ % 2]);
    ASSERT_TRUE(metrics_flush(30000));
  }
  done = true;
  reader.join();
  EXPECT_EQ(torn, "") << reads << " reads, " << writes << " writes";
  EXPECT_EQ(expo::parse(texts[0]).error, "");
  // The last text queued is the one written.
  metrics_post(file, texts[0]);
  ASSERT_TRUE(metrics_flush(30000));
  EXPECT_EQ(read_file(file), texts[0]);
}

// Writes that fail are one event, whatever their number, until one succeeds; texts queued
// faster than the disk takes them leave the newest.
TEST(MetricsWriter, FailuresAreOneEventUntilAWriteSucceeds) {
  ASSERT_EQ(metrics_start(), 0);
  kivev_reset();
  ASSERT_EQ(kivev_addoutlet(collect, nullptr, 0), 0);
  std::string dir = folder(), bad = dir + "\\missing\\kivd.prom", good = dir + "\\good.prom";
  struct {
    std::string path;
    std::vector<std::string> said;  // all events so far
  } rows[] = {
      {bad, {"METRICS_FAILED " + bad}},
      {bad, {"METRICS_FAILED " + bad}},
      {bad, {"METRICS_FAILED " + bad}},
      {good, {"METRICS_FAILED " + bad, "METRICS_RESUMED " + good}},
      {good, {"METRICS_FAILED " + bad, "METRICS_RESUMED " + good}},
      {bad, {"METRICS_FAILED " + bad, "METRICS_RESUMED " + good, "METRICS_FAILED " + bad}},
      {"", {"METRICS_FAILED " + bad, "METRICS_RESUMED " + good, "METRICS_FAILED " + bad}},
  };
  int n = 0;
  for (const auto &r : rows) {
    SCOPED_TRACE(++n);
    metrics_post(r.path, "# " + std::to_string(n) + "\n");
    ASSERT_TRUE(metrics_flush(30000));
    EXPECT_EQ(events(), r.said);
  }
  EXPECT_EQ(read_file(good), "# 5\n");
  kivev_reset();
}

// kivd.exe with the global key's file: written at start, rewritten every interval (a
// reader polling it meanwhile reads it whole each time) and at stop, with no temporary
// file left.
TEST(MetricsFile, KivdWritesTheFileAtStartEveryIntervalAndAtStop) {
  kt::registry reg;
  std::string file = folder() + "\\kivd.prom";
  DeleteFileA(file.c_str());
  reg.set("global", "metrics", file);
  kt::kivd daemon("-D3");
  std::string first;
  ASSERT_TRUE(kt::poll([&] { return !(first = read_file(file)).empty(); })) << daemon.err();
  expo::parsed at_start = expo::parse(first);
  EXPECT_EQ(at_start.error, "") << first;
  ASSERT_EQ(at_start.types["kivd_uptime_seconds"], "gauge") << first;
  int reads = 0;
  std::string torn;
  EXPECT_TRUE(kt::poll(
      [&] {
        bool busy = false;
        std::string text = read_file(file, nullptr, &busy);
        expo::parsed now = expo::parse(text);
        reads += !busy;
        if ((text.empty() || !now.error.empty()) && !busy && torn.empty())
          torn = now.error + ": " + text;
        return now.samples["kivd_uptime_seconds{}"] > at_start.samples["kivd_uptime_seconds{}"];
      },
      (METRICS_SECONDS + 30) * 1000))
      << daemon.err();
  EXPECT_EQ(torn, "") << reads << " reads";
  int written = daemon.log_count("Wrote " + file);
  EXPECT_GE(written, 2);
  daemon.quit();
  EXPECT_GT(daemon.log_count("Wrote " + file), written) << "no write at stop";
  EXPECT_EQ(expo::parse(read_file(file)).error, "");
  EXPECT_FALSE(exists(file + METRICS_TEMP));
}

// What the file says of a port is what `stats` says: every count that does not move with
// the clock, read from the file kivd wrote after the port last changed.
TEST(MetricsFile, TheFileSaysWhatStatsSays) {
  kt::registry reg;
  std::string file = folder() + "\\agree.prom";
  DeleteFileA(file.c_str());
  int port = kt::free_port();
  reg.auto_ports("echo", "\"" + kt::echo_agent_exe() + "\"", {port});
  reg.set("global", "metrics", file);
  kt::kivd daemon("-D3");
  ASSERT_TRUE(daemon.log_has(kt::listening(port))) << daemon.err();
  ASSERT_TRUE(kt::echoes(port));
  // A write after the connection: the uptime it holds is past the one of the first file.
  double began = -1;
  ASSERT_TRUE(kt::poll([&] { return !read_file(file).empty(); })) << daemon.err();
  began = expo::parse(read_file(file)).samples["kivd_uptime_seconds{}"];
  expo::parsed written;
  ASSERT_TRUE(kt::poll(
      [&] {
        written = expo::parse(read_file(file));
        return written.error.empty() && written.samples["kivd_uptime_seconds{}"] > began;
      },
      (METRICS_SECONDS + 30) * 1000));
  kt::client c;
  std::string line;
  for (const std::string &l : c.command("stats " + std::to_string(port)))
    if (l.rfind("Port=", 0) == 0) line = l;
  ASSERT_FALSE(line.empty());
  struct row {
    const char *item, *metric, *label;
  };
#define ROW_OF(id, kind, item, metric, label, ...) {item, metric, label},
  const row rows[] = {WIRE_STATS_ROWS(ROW_OF)};
#undef ROW_OF
  int compared = 0;
  int first = kiv_stats_first(WIRE_OF_PORT);
  for (int i = first; i < first + kiv_stats_rows(WIRE_OF_PORT); i++) {
    std::string item = rows[i].item;
    if (item.find("Seconds") != std::string::npos) continue;  // moves with the clock
    size_t at = line.find(" " + item + "=");
    ASSERT_NE(at, std::string::npos) << item << " in " << line;
    double value = atof(line.c_str() + at + item.size() + 2);
    std::string key = "kivd_" + std::string(rows[i].metric) + "{port=\"" + std::to_string(port) +
                      "\",service=\"echo\"" +
                      (*rows[i].label ? "," + std::string(rows[i].label) : "") + "}";
    ASSERT_EQ(written.samples.count(key), 1u) << key;
    EXPECT_EQ(written.samples[key], value) << key;
    compared++;
  }
  EXPECT_GE(compared, 10);
  EXPECT_EQ(written.samples["kivd_port_connections_total{port=\"" + std::to_string(port) +
                            "\",service=\"echo\"}"],
            1);
}

// The lines of kivd's own events of one number.
std::vector<std::string> own_events(kt::client &c, const std::string &number) {
  std::vector<std::string> lines = c.command("why"), out;
  for (const std::string &l : lines)
    if (l.rfind(number + "\t", 0) == 0) out.push_back(l);
  return out;
}

// A file that cannot be written is one event however often it is tried; after a
// reconfiguration names one that can, the file appears and the event log says so.
TEST(MetricsFile, AFileThatCannotBeWrittenIsOneEventAndReconfigMovesIt) {
  kt::registry reg;
  std::string dir = folder(), bad = dir + "\\missing\\kivd.prom", good = dir + "\\moved.prom";
  DeleteFileA(good.c_str());
  reg.set("global", "metrics", bad);
  kt::kivd daemon("-D3");
  // Once at start and once an interval later.
  ASSERT_TRUE(kt::poll([&] { return daemon.log_count("Cannot write " + bad) >= 2; },
                       (METRICS_SECONDS + 30) * 1000))
      << daemon.err();
  kt::client c;
  std::vector<std::string> failed = own_events(c, "306");
  ASSERT_EQ(failed.size(), 1u) << testing::PrintToString(failed);
  EXPECT_NE(failed[0].find("\ttext=" + bad + "\t"), std::string::npos) << failed[0];
  reg.set("global", "metrics", good);
  EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  EXPECT_TRUE(kt::poll([&] { return !read_file(good).empty(); }, (METRICS_SECONDS + 30) * 1000))
      << daemon.err();
  EXPECT_TRUE(kt::poll([&] { return own_events(c, "307").size() == 1; })) << daemon.err();
  EXPECT_EQ(own_events(c, "306").size(), 1u);
  c.close();
  daemon.quit();
}

// A value kivd cannot use is refused by name, once, and no file is written.
TEST(MetricsFile, ARefusedValueIsSaidOnceAndWritesNothing) {
  kt::registry reg;
  std::string file = folder() + "\\" + std::string(240, 'x');
  reg.set("global", "metrics", file);
  kt::kivd daemon("-D3");
  kt::client c;
  std::vector<std::string> refused;
  EXPECT_TRUE(kt::poll([&] { return !(refused = own_events(c, "106")).empty(); })) << daemon.err();
  ASSERT_EQ(refused.size(), 1u) << testing::PrintToString(refused);
  EXPECT_NE(refused[0].find("\ttext=.global.metrics\t"), std::string::npos) << refused[0];
  c.close();
  daemon.quit();
  EXPECT_EQ(daemon.log_count("Wrote "), 0) << daemon.err();
  EXPECT_EQ(daemon.log_count("Bad monitoring file"), 1) << daemon.err();
}

}  // namespace
