// xsnprintf against the C library's snprintf on the formats the log uses most. After the
// runs, prints snprintf CPU time / xsnprintf CPU time for each format (above 1: ours is faster).
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "lib/printf.h"

namespace {
// Kept out of the compiler's sight so that neither call is folded away.
const char *volatile tag = "ssock.ssock_update";
const char *volatile service = "smtp";
volatile int port = 2525;
volatile unsigned code = 0x2746;

char buffer[2048];

// The format through a volatile pointer: a literal format would let the compiler turn
// snprintf into a plain copy, which measures nothing.
const char *opaque(const char *format) {
  const char *volatile f = format;
  return f;
}

// One pair of benchmarks per format: the same call with either formatter. Every pair
// passes at least one argument (the literal one an unused 0) to keep the macro plain.
#define PAIR(name, format, ...)                                                                \
  void BM_xsnprintf_##name(benchmark::State &state) {                                          \
    for (auto _ : state) {                                                                     \
      benchmark::DoNotOptimize(xsnprintf(buffer, sizeof buffer, opaque(format), __VA_ARGS__)); \
      benchmark::ClobberMemory();                                                              \
    }                                                                                          \
  }                                                                                            \
  void BM_snprintf_##name(benchmark::State &state) {                                           \
    for (auto _ : state) {                                                                     \
      benchmark::DoNotOptimize(snprintf(buffer, sizeof buffer, opaque(format), __VA_ARGS__));  \
      benchmark::ClobberMemory();                                                              \
    }                                                                                          \
  }                                                                                            \
  BENCHMARK(BM_xsnprintf_##name);                                                              \
  BENCHMARK(BM_snprintf_##name);

PAIR(literal, "ssock.ssock_update", 0)
PAIR(d, "%d", port)
PAIR(d5, "%5d", port)
PAIR(s, "%s", tag)
PAIR(s_left11, "%-11s", service)
PAIR(alt_x, "%#x", code)
PAIR(mixed, "Listening on port %d for %s", port, service)
PAIR(log_line, "%s: port %5d, service %-11s, code %#x", tag, port, service, code)

// Shows the usual table and keeps each benchmark's time per iteration.
class ratio_reporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> times;
  std::vector<std::string> order;
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.benchmark_name();
      if (!times.count(name)) order.push_back(name);
      times[name] = run.GetAdjustedCPUTime();
    }
  }
};
}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  ratio_reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const std::string ours = "BM_xsnprintf_";
  printf("\nsnprintf CPU time / xsnprintf CPU time (goal >= 1.0):\n");
  for (const std::string &name : reporter.order) {
    if (name.compare(0, ours.size(), ours) != 0) continue;
    std::string format = name.substr(ours.size());
    auto theirs = reporter.times.find("BM_snprintf_" + format);
    if (theirs == reporter.times.end() || reporter.times[name] <= 0) continue;
    printf("  %-10s %6.2f\n", format.c_str(), theirs->second / reporter.times[name]);
  }
  return 0;
}
