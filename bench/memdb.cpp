// memdb against std::unordered_map with the same case-folding hash and equality, at
// 1k, 10k and 100k keys. memdb keeps its fixed 512 chains (as the info tree does), so
// its chains grow with the key count while the map rehashes. Prints the GET ratios.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "lib/heap.h"
#include "toolkit/config/memdb.h"

namespace {

inline unsigned char fold(unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; }

struct foldhash {
  size_t operator()(const std::string &k) const {
    uint32_t h = static_cast<uint32_t>(k.size());
    for (unsigned char c : k) h = 9 * h + fold(c);
    return h;
  }
};
struct foldequal {
  bool operator()(const std::string &a, const std::string &b) const {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++)
      if (fold(static_cast<unsigned char>(a[i])) != fold(static_cast<unsigned char>(b[i])))
        return false;
    return true;
  }
};
using foldmap = std::unordered_map<std::string, std::string, foldhash, foldequal>;

struct keyset {
  std::vector<std::string> keys, values;
  std::vector<size_t> order;  // a shuffled visiting order for lookups
  explicit keyset(size_t n) {
    for (size_t i = 0; i < n; i++) {
      keys.push_back(".tcp.S" + std::to_string(i) + ".Service");
      values.push_back("service-" + std::to_string(i));
      order.push_back(i);
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(42));
  }
};

const keyset &keysof(size_t n) {
  static std::map<size_t, keyset> sets;
  auto it = sets.find(n);
  if (it == sets.end()) it = sets.emplace(n, keyset(n)).first;
  return it->second;
}

kiv_memdb *filled(const keyset &ks, int flags) {
  kiv_memdb *db = nullptr;
  kiv_memdbnew(512, 0, &db);
  kiv_memdbopt(db, MEMDB_NOCASE | flags, 0);
  for (size_t i = 0; i < ks.keys.size(); i++) {
    kiv_memdbrec r{static_cast<int32_t>(ks.keys[i].size()), const_cast<char *>(ks.keys[i].data()),
                   static_cast<int32_t>(ks.values[i].size()),
                   const_cast<char *>(ks.values[i].data())};
    kiv_memdbfunc(MEMDB_PUT, &r, db);
  }
  return db;
}

void MemdbPut(benchmark::State &state) {
  const keyset &ks = keysof(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    kiv_memdb *db = filled(ks, 0);
    benchmark::DoNotOptimize(db->count);
    kiv_memdbfree(db);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void MapPut(benchmark::State &state) {
  const keyset &ks = keysof(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    foldmap m;
    for (size_t i = 0; i < ks.keys.size(); i++) m[ks.keys[i]] = ks.values[i];
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// One lookup per iteration. NOCOPYOUT hands out the stored pointer, as find() does.
void MemdbGet(benchmark::State &state) {
  const keyset &ks = keysof(static_cast<size_t>(state.range(0)));
  kiv_memdb *db = filled(ks, MEMDB_NOCOPYOUT);
  size_t i = 0;
  for (auto _ : state) {
    const std::string &k = ks.keys[ks.order[i++ % ks.order.size()]];
    kiv_memdbrec r{static_cast<int32_t>(k.size()), const_cast<char *>(k.data()), 0, nullptr};
    benchmark::DoNotOptimize(kiv_memdbfunc(MEMDB_GET, &r, db));
    benchmark::DoNotOptimize(r.data);
  }
  kiv_memdbfree(db);
}

void MapGet(benchmark::State &state) {
  const keyset &ks = keysof(static_cast<size_t>(state.range(0)));
  foldmap m;
  for (size_t i = 0; i < ks.keys.size(); i++) m[ks.keys[i]] = ks.values[i];
  size_t i = 0;
  for (auto _ : state) {
    auto it = m.find(ks.keys[ks.order[i++ % ks.order.size()]]);
    benchmark::DoNotOptimize(it->second.data());
  }
}

// The info tree's way: every lookup hands out a heap copy that the caller frees.
void MemdbGetCopy(benchmark::State &state) {
  const keyset &ks = keysof(static_cast<size_t>(state.range(0)));
  kiv_memdb *db = filled(ks, 0);
  size_t i = 0;
  for (auto _ : state) {
    const std::string &k = ks.keys[ks.order[i++ % ks.order.size()]];
    kiv_memdbrec r{static_cast<int32_t>(k.size()), const_cast<char *>(k.data()), 0, nullptr};
    benchmark::DoNotOptimize(kiv_memdbfunc(MEMDB_GET, &r, db));
    xfree(r.data);
  }
  kiv_memdbfree(db);
}

void MapGetCopy(benchmark::State &state) {
  const keyset &ks = keysof(static_cast<size_t>(state.range(0)));
  foldmap m;
  for (size_t i = 0; i < ks.keys.size(); i++) m[ks.keys[i]] = ks.values[i];
  size_t i = 0;
  for (auto _ : state) {
    auto it = m.find(ks.keys[ks.order[i++ % ks.order.size()]]);
    void *copy = malloc(it->second.size());
    memcpy(copy, it->second.data(), it->second.size());
    benchmark::DoNotOptimize(copy);
    free(copy);
  }
}

class recorder : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> times;  // name -> real time per iteration (ns)
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs)
      if (r.run_type == Run::RT_Iteration) times[r.benchmark_name()] = r.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char **argv) {
  const char *names[] = {"MemdbPut", "MapPut", "MemdbGet", "MapGet", "MemdbGetCopy", "MapGetCopy"};
  benchmark::internal::Function *fns[] = {MemdbPut, MapPut,       MemdbGet,
                                          MapGet,   MemdbGetCopy, MapGetCopy};
  for (int i = 0; i < 6; i++)
    benchmark::RegisterBenchmark(names[i], fns[i])->Arg(1000)->Arg(10000)->Arg(100000);
  benchmark::Initialize(&argc, argv);
  recorder rep;
  benchmark::RunSpecifiedBenchmarks(&rep);
  for (const char *n : {"1000", "10000", "100000"}) {
    auto ratio = [&](const char *a, const char *b) {
      double x = rep.times[std::string(a) + "/" + n], y = rep.times[std::string(b) + "/" + n];
      return y > 0 ? x / y : 0.0;
    };
    printf("%6s keys: GET memdb/unordered_map %.2f (with copies %.2f), PUT %.2f\n", n,
           ratio("MemdbGet", "MapGet"), ratio("MemdbGetCopy", "MapGetCopy"),
           ratio("MemdbPut", "MapPut"));
  }
  benchmark::Shutdown();
  return 0;
}
