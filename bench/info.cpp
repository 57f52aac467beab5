// The info tree as the port manager uses it: lookups beneath a source that was already
// read, and a walk of ".tcp" holding 1,000 ports (5 entries each, plus the source).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "lib/heap.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/platform.h"

namespace {

std::string cfgfile;

void setup() {
  static bool done = false;
  if (done) return;
  done = true;
  kivinfo_init(0);
  cfgfile = (std::filesystem::temp_directory_path() /
             ("kivinfo-bench-" + std::to_string(kiv_processid()) + ".cfg"))
                .string();
  FILE *f = fopen(cfgfile.c_str(), "w");
  for (int port = 0; port < 1000; port++)
    fprintf(f, "s%d:\n  service = svc%d\n  start = auto\n  lifespan = 60\n", port, port % 50);
  fclose(f);
  kivinfo_set(".tcp", cfgfile.c_str(), KIVINFO_FILE);
  char *out = nullptr;
  kivinfo_get(nullptr, ".tcp.s0.service", &out);  // reads the file once
  xfree(out);
}

void LookupBeneathReadSource(benchmark::State &state) {
  setup();
  const char *names[] = {".tcp.s500.service", ".TCP.S17.Start", ".tcp.s999.lifespan"};
  size_t i = 0;
  for (auto _ : state) {
    char *out = nullptr;
    benchmark::DoNotOptimize(kivinfo_get(nullptr, names[i++ % 3], &out));
    xfree(out);
  }
}
BENCHMARK(LookupBeneathReadSource);

int count(const char *, const char *, void *arg) {
  ++*static_cast<int *>(arg);
  return 0;
}

void WalkThousandPorts(benchmark::State &state) {
  setup();
  int visited = 0;
  for (auto _ : state) {
    visited = 0;
    kivinfo_walk(".tcp", count, &visited);
  }
  state.counters["entries"] = visited;
}
BENCHMARK(WalkThousandPorts);

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!cfgfile.empty()) std::remove(cfgfile.c_str());
  return 0;
}
