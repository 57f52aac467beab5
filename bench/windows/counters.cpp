// bench_counters: what kivd's counters cost. The cold launch through kivd.exe against the
// counting it does per launch; the monitoring file's text and write at 1,000 ports; and
// the loop's `ls` round trip at 1,000 ports without the file and with it, while it is
// rewritten every interval. The configuration goes under the fixed registry root and is
// removed at the end.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench/windows/bench.h"
#include "ports/internal.h"
#include "ports/ssock.h"
#include "service/metrics.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/counters.h"

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// ---------------------------------------------------------------------------------------
// The launch.

// Ports of their own services: the start throttle (13 launches a minute per service) then
// never refuses one of the series, which runs within a minute.
constexpr int LAUNCH_PORTS = 3;
constexpr int LAUNCHES = 24;

std::string stats_line(kt::client &c, int port) {
  for (const std::string &l : c.command("stats " + std::to_string(port)))
    if (l.rfind(WIRE_STATS_PORT "=", 0) == 0) return l;
  return "";
}

// Milliseconds from connect to the first echoed byte with kivd starting a new echo agent;
// -1 on failure. The port is then disabled (its agent told to drop it, which ends it) and
// enabled again: the next call finds it idle and listening.
double kivd_launch(kt::client &c, int port) {
  double t0 = kt::now_ms();
  SOCKET s = kt::connect_to(port);
  bool ok = s != INVALID_SOCKET && kt::echoes(s, "x");
  double t1 = kt::now_ms();
  if (s != INVALID_SOCKET) closesocket(s);
  std::string p = std::to_string(port);
  ok = c.command("disable " + p) == std::vector<std::string>{"+"} &&
       c.command("enable " + p) == std::vector<std::string>{"+"} && ok;
  ok = kt::poll([&] { return stats_line(c, port).find(" State=idle") != std::string::npos; }) && ok;
  return ok ? t1 - t0 : -1;
}

port_record counted_port;
service_record counted_service;

// Nanoseconds per call of f, the median of 7 runs of a million calls.
template <typename F>
double per_call_ns(F f) {
  constexpr int ROUNDS = 1000000;
  std::vector<double> runs;
  for (int run = 0; run < 7; run++) {
    double t0 = kt::now_ms();
    for (int i = 0; i < ROUNDS; i++) f(i);
    runs.push_back((kt::now_ms() - t0) * 1e6 / ROUNDS);
  }
  return median(runs);
}

// Exactly what counting adds to a launch, on real records with the manager's own
// functions: the performance counter read at the port's event and after the start, the
// connection's and the starts' increments, the histogram, and the agent's end counted for
// the port and its service (its last exit and when, one read of the clock).
void count_one_launch(int i) {
  LARGE_INTEGER woken, started;
  QueryPerformanceCounter(&woken);
  count_of<WIRE_STAT_PORT_CONNECTIONS>(&counted_port)++;
  count_of<WIRE_STAT_PORT_STARTS>(&counted_port)++;
  count_of<WIRE_STAT_SERVICE_STARTS>(&counted_service)++;
  QueryPerformanceCounter(&started);
  kiv_count_launch(counted_port.counts, microseconds(started.QuadPart - woken.QuadPart));
  DWORD code = static_cast<DWORD>(i & 1);
  count_end(&count_of<WIRE_STAT_PORT_ENDS_ZERO>(&counted_port), code);
  count_end(&count_of<WIRE_STAT_SERVICE_ENDS_ZERO>(&counted_service), code,
            &count_of<WIRE_STAT_SERVICE_LAST_EXIT>(&counted_service));
}

struct counting_figures {
  double launch_ns, counter_pair_ns, clock_ns, accounting_ns;
};

counting_figures counting() {
  counting_figures f;
  f.launch_ns = per_call_ns(count_one_launch);
  f.counter_pair_ns = per_call_ns([](int) {
    LARGE_INTEGER a, b;
    QueryPerformanceCounter(&a);
    QueryPerformanceCounter(&b);
  });
  f.clock_ns = per_call_ns([](int) { kiv_time(); });
  // A pass reads the clock once and accounts every port with it, launch or not.
  time_t now = kiv_time();
  f.accounting_ns = per_call_ns([now](int i) { account_state(&counted_port, now + i); });
  return f;
}

bool bench_launch() {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(LAUNCH_PORTS);
  for (int i = 0; i < LAUNCH_PORTS; i++) {
    std::string name = "echo" + std::to_string(i);
    reg.service(name.c_str(), "\"" + kt::echo_agent_exe() + "\"");
    reg.port(ports[i], "auto", name.c_str());
  }
  std::vector<double> launches;
  {
    kt::kivd d("");
    kt::client c;
    // One launch on each port, untimed, so that none of the series pays for first loads.
    bool ok = true;
    for (int port : ports) ok = ok && kivd_launch(c, port) >= 0;
    for (int i = 0; ok && i < LAUNCHES; i++) {
      double ms = kivd_launch(c, ports[i % LAUNCH_PORTS]);
      ok = ms >= 0;
      launches.push_back(ms);
    }
    if (!ok) {
      fprintf(stderr, "bench_counters: launch %zu failed\n", launches.size());
      return false;
    }
  }
  // No build without the counters exists, and building one would measure a different
  // binary's layout and luck; the counting is the only difference between the launch with
  // counters and without, so "without" is the measured launch less the counting's own cost.
  double launch_ms = median(launches);
  counting_figures cost = counting();
  double counting = cost.launch_ns, ratio = launch_ms / (launch_ms - counting / 1e6);
  printf("cold launch through kivd.exe, connect -> first echoed byte, %d launches:\n", LAUNCHES);
  printf("  median %.2f ms (min %.2f, max %.2f)\n", launch_ms,
         *std::min_element(launches.begin(), launches.end()),
         *std::max_element(launches.begin(), launches.end()));
  printf(
      "  counting per launch %.3f us (median of 7 x 1,000,000), of which the performance "
      "counter pair %.3f us and the clock read of the end's time %.3f us\n",
      counting / 1e3, cost.counter_pair_ns / 1e3, cost.clock_ns / 1e3);
  printf("  cold launch %.2f ms, counting %.3f us: with/without %.6f (goal <= 1.02)\n", launch_ms,
         counting / 1e3, ratio);
  printf("  state accounting, per port and pass of the loop (launch or not): %.1f ns\n",
         cost.accounting_ns);
  return true;
}

// ---------------------------------------------------------------------------------------
// The monitoring file at 1,000 ports.

constexpr int PORTS = 1000;

// Counts of plausible sizes: from a few to millions, as a long-running kivd has them.
struct counts_maker {
  unsigned seed = 12345;
  uint64_t next() {
    seed = seed * 1103515245u + 12345u;
    static const uint64_t scale[] = {10, 1000, 100000, 10000000};
    return (seed >> 8) % scale[(seed >> 4) % 4];
  }
};

// The stats lines of 1,000 ports of 100 services, 3 global programs and kivd itself, in
// the listing's own format with every item of each kind.
std::string stats_lines() {
  counts_maker m;
  std::string lines;
  char line[KIV_STATS_LINE];
  auto add = [&](int n, wire_stats_kind kind, uint64_t *counts, int ncounts) {
    for (int i = 0; i < ncounts; i++) counts[i] = m.next();
    kiv_stats_items(line, sizeof line, &n, kind, counts);
    lines.append(line, static_cast<size_t>(n));
    lines += '\n';
  };
  uint64_t counts[KIV_PORT_COUNTS];
  for (int i = 0; i < PORTS; i++) {
    int n = snprintf(line, sizeof line,
                     WIRE_STATS_PORT "=%d " WIRE_STATS_SERVICE "=web-%03d " WIRE_STATS_STATE "=%s",
                     20000 + i, i % 100, WIRE_STATS_WORDS[m.next() % WIRE_STATS_STATES]);
    add(n, WIRE_OF_PORT, counts, KIV_PORT_COUNTS);
  }
  for (int i = 0; i < 100; i++)
    add(snprintf(line, sizeof line, WIRE_STATS_SERVICE "=web-%03d", i), WIRE_OF_SERVICE, counts,
        KIV_SERVICE_COUNTS);
  for (const char *name : {"watchdog", "collector", "rotate logs"})
    add(snprintf(line, sizeof line, WIRE_STATS_PROGRAM "=%s", name), WIRE_OF_PROGRAM, counts,
        KIV_PROGRAM_COUNTS);
  kiv_counters_begin();
  for (int id = kiv_stats_first(WIRE_OF_KIVD); id < WIRE_STAT_COUNT; id++)
    kiv_counter_set(static_cast<wire_stat>(id), m.next());
  int n = kiv_counters_line(line, sizeof line, GetCurrentProcessId());
  lines.append(line, static_cast<size_t>(n));
  lines += '\n';
  return lines;
}

std::string *gathered;

int gather_line(int, const char *text, int length) {
  gathered->append(text, static_cast<size_t>(length));
  *gathered += '\n';
  return 0;
}

// Milliseconds the loop spends gathering the stats lines of PORTS configured ports (the
// manager's records in this process, listening) before it hands the text on; the median of
// runs. The lines of the last run are in *lines. -1 when the ports are not configured.
double gather_ms(int runs, std::string *lines) {
  kt::registry reg;
  reg.service("svc", kt::NO_PROGRAM);
  for (int port : kt::free_ports(PORTS)) reg.port(port, "auto", "svc");
  if (kivinfo_init(0) != 0 || ssock_reconfig() != 0) return -1;
  std::vector<double> ms;
  for (int i = 0; i < runs; i++) {
    lines->clear();
    gathered = lines;
    double t0 = kt::now_ms();
    ssock_stats(0, gather_line);
    char line[KIV_STATS_LINE];
    gather_line(0, line, kiv_counters_line(line, sizeof line, GetCurrentProcessId()));
    ms.push_back(kt::now_ms() - t0);
  }
  gathered = nullptr;
  ssock_cleanup();
  ssock_reset();
  return median(ms);
}

std::string temp_path(const char *name) {
  char dir[MAX_PATH];
  GetTempPathA(sizeof dir, dir);
  return std::string(dir) + name;
}

bool bench_file() {
  constexpr int RUNS = 9;
  std::string lines = stats_lines(), text, path = temp_path("kivd_bench_counters.prom");
  std::vector<double> texts, writes;
  for (int i = 0; i < RUNS; i++) {
    double t0 = kt::now_ms();
    text = metrics_text(lines);
    double t1 = kt::now_ms();
    DWORD error = metrics_write(path, text);
    double t2 = kt::now_ms();
    if (error) {
      fprintf(stderr, "bench_counters: cannot write %s: %lu\n", path.c_str(), error);
      return false;
    }
    texts.push_back(t1 - t0);
    writes.push_back(t2 - t1);
  }
  WIN32_FILE_ATTRIBUTE_DATA a;
  bool sized = GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &a);
  DeleteFileA(path.c_str());
  std::string fresh;
  double gather = gather_ms(RUNS, &fresh);
  if (gather < 0) {
    fprintf(stderr, "bench_counters: %d ports not configured\n", PORTS);
    return false;
  }
  std::vector<double> fresh_texts;
  for (int i = 0; i < RUNS; i++) {
    double t0 = kt::now_ms();
    metrics_text(fresh);
    fresh_texts.push_back(kt::now_ms() - t0);
  }
  printf("monitoring file, %d ports, 100 services, 3 programs (%zu bytes of stats lines):\n", PORTS,
         lines.size());
  printf("  metrics_text  median %.2f ms (of %d)\n", median(texts), RUNS);
  printf("  metrics_write median %.2f ms (of %d), the file %lu bytes (%zu lines of text)\n",
         median(writes), RUNS, sized ? a.nFileSizeLow : 0UL,
         static_cast<size_t>(std::count(text.begin(), text.end(), '\n')));
  printf(
      "  %d freshly configured ports (counts 0): gathering the lines on the loop %.2f ms, "
      "their text on the writer's thread %.2f ms (%zu bytes of lines)\n",
      PORTS, gather, median(fresh_texts), fresh.size());
  return true;
}

// ---------------------------------------------------------------------------------------
// The loop's `ls` while the file is written.

constexpr double LS_WINDOW_MS = 17000;  // more than one interval of the file's writes

struct ls_figures {
  std::vector<double> ms, started;  // each round trip's time and start
  std::vector<double> rewrites;     // each rewrite's last-write time on the same clock
  // The worst round trip under way in the half second before a rewrite: the loop gathers
  // the lines and makes the text before it hands them to the writer.
  double worst_near_rewrite() const {
    double worst = 0;
    for (double written : rewrites)
      for (size_t i = 0; i < ms.size(); i++)
        if (started[i] <= written && started[i] + ms[i] >= written - 500)
          worst = std::max(worst, ms[i]);
    return worst;
  }
};

uint64_t last_write(const std::string &path) {
  WIN32_FILE_ATTRIBUTE_DATA a;
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &a)) return 0;
  return (uint64_t(a.ftLastWriteTime.dwHighDateTime) << 32) | a.ftLastWriteTime.dwLowDateTime;
}

// kivd.exe as configured (the file named or not): `ls` round trips for LS_WINDOW_MS, and
// the file's rewrites meanwhile (its last-write time polled beside them).
bool ls_window(const std::string &file, ls_figures *out) {
  kt::kivd d("");
  kt::client c;
  size_t want = PORTS + 2;  // the listing's "!" and "." around a line per port
  if (!kt::poll([&] { return c.command("ls").size() == want; })) {
    fprintf(stderr, "bench_counters: ls never listed %d ports\n", PORTS);
    return false;
  }
  if (!file.empty() && !kt::poll([&] { return last_write(file) != 0; })) {
    fprintf(stderr, "bench_counters: %s never written\n", file.c_str());
    return false;
  }
  // The system time in 100 ns units against the bench's clock in ms, to place a write.
  FILETIME system;
  GetSystemTimeAsFileTime(&system);
  double offset =
      kt::now_ms() - double((uint64_t(system.dwHighDateTime) << 32) | system.dwLowDateTime) / 1e4;
  std::atomic<bool> done{false};
  std::thread watch([&] {
    for (uint64_t seen = last_write(file); !done; Sleep(10)) {
      uint64_t now = last_write(file);
      if (now != seen) out->rewrites.push_back(double(now) / 1e4 + offset);
      seen = now;
    }
  });
  bool ok = true;
  for (double end = kt::now_ms() + LS_WINDOW_MS; ok && kt::now_ms() < end;) {
    double t0 = kt::now_ms();
    ok = c.command("ls").size() == want;
    out->ms.push_back(kt::now_ms() - t0);
    out->started.push_back(t0);
  }
  done = true;
  watch.join();
  if (!ok) fprintf(stderr, "bench_counters: ls failed after %zu round trips\n", out->ms.size());
  return ok;
}

bool bench_ls() {
  std::string file = temp_path("kivd_bench_ls.prom");
  DeleteFileA(file.c_str());
  ls_figures without, with;
  bool ok;
  {
    // PORTS ports of a program that does not exist: each listens, none starts anything.
    kt::registry reg;
    reg.service("svc", kt::NO_PROGRAM);
    for (int port : kt::free_ports(PORTS)) reg.port(port, "auto", "svc");
    ok = ls_window("", &without);
    reg.set("global", "metrics", file);
    ok = ok && ls_window(file, &with);
  }
  DeleteFileA(file.c_str());
  if (!ok) return false;
  printf("ls round trip, kivd.exe with %d ports, %.0f s each:\n", PORTS, LS_WINDOW_MS / 1e3);
  printf("  %-28s  %9s  %9s  %6s  %8s  %s\n", "", "median ms", "worst ms", "trips", "rewrites",
         "worst in the 0.5 s before a write");
  for (auto &row : {std::make_pair("without the file", &without),
                    std::make_pair("with the file every 15 s", &with)}) {
    const ls_figures &f = *row.second;
    char around[32] = "-";
    if (!f.rewrites.empty()) snprintf(around, sizeof around, "%.2f ms", f.worst_near_rewrite());
    printf("  %-28s  %9.2f  %9.2f  %6zu  %8zu  %s\n", row.first, median(f.ms),
           *std::max_element(f.ms.begin(), f.ms.end()), f.ms.size(), f.rewrites.size(), around);
  }
  printf(
      "  ratio with/without: median %.3f, worst %.3f; with the file, the worst trip in the "
      "half second before a write against the run's median: %.3f\n",
      median(with.ms) / median(without.ms),
      *std::max_element(with.ms.begin(), with.ms.end()) /
          *std::max_element(without.ms.begin(), without.ms.end()),
      with.worst_near_rewrite() / median(with.ms));
  return true;
}

}  // namespace

int main() {
  bool ok = bench_launch();
  ok = bench_file() && ok;
  ok = bench_ls() && ok;
  return ok ? 0 : 1;
}
