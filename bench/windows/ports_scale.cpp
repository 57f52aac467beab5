// How the port manager's work grows with the number of configured ports: one supervision
// pass, one reconfiguration that changes nothing and one listing, with 10, 100 and 1,000
// idle "auto" ports listening on loopback. The configuration goes under the fixed
// registry root and is removed at the end.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "ports/ssock.h"
#include "bench/windows/bench.h"
#include "tests/support/ports.h"
#include "toolkit/config/info.h"

namespace {

constexpr unsigned SIZES[] = {10, 100, 1000};
constexpr int ROUNDS = 15;
constexpr int SERVICES = 10;

int discard(int, const char *, int length) { return length; }

// Median seconds of one call over ROUNDS calls.
template <typename F>
double median_of(F &&call) {
  std::vector<double> t;
  for (int i = 0; i < ROUNDS; i++) {
    double t0 = seconds_now();
    call();
    t.push_back(seconds_now() - t0);
  }
  std::sort(t.begin(), t.end());
  return t[t.size() / 2];
}

int ignore(const char *, const char *, void *) { return 0; }

// What a reconfiguration spends on the registry alone: the three subtrees attached again
// and read by a walk, with nothing done for their entries.
void read_registry() {
  for (const char *subtree : {"global", "services", "tcp"}) {
    std::string path = std::string(".") + subtree;
    kivinfo_set(path.c_str(), (std::string(SSOCK_ROOT) + "\\" + subtree).c_str(), KIVINFO_REGISTRY);
    kivinfo_walk(path.c_str(), ignore, nullptr);
  }
}

void clear_config() { RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Orvane\\Agents"); }

struct row {
  unsigned ports;
  double update, reconfig, read, info;  // seconds; read: the registry part of reconfig
};

}  // namespace

int main() {
  if (kivinfo_init(0) != 0) return 1;
  std::vector<row> rows;
  for (unsigned n : SIZES) {
    clear_config();
    auto ports = porttest::free_ports(n);
    // The agents are never started: nobody connects.
    for (int s = 0; s < SERVICES; s++)
      porttest::set_service("s" + std::to_string(s), "\"" + echo_agent_exe() + "\"");
    for (unsigned i = 0; i < ports.size(); i++)
      porttest::set_port(ports[i], "auto", ("s" + std::to_string(i % SERVICES)).c_str());
    ssock_reconfig();
    HANDLE *handles = nullptr;
    time_t due;
    unsigned listening = ssock_waitset(&handles, &due);
    if (ports.size() != n || listening != n) {
      fprintf(stderr, "bench_ports_scale: %u of %u ports listening (ulimit -n?)\n", listening, n);
      ssock_cleanup();
      ssock_reset();
      clear_config();
      return 1;
    }
    rows.push_back({n, median_of([] { ssock_update(); }), median_of([] { ssock_reconfig(); }),
                    median_of(read_registry), median_of([] { ssock_info(0, discard); })});
    ssock_cleanup();
    ssock_reset();
  }
  clear_config();

  printf("port manager with idle listening ports, median of %d calls:\n", ROUNDS);
  printf("  %6s  %12s  %12s  %14s  %12s\n", "ports", "update ms", "reconfig ms", "(registry ms)",
         "info ms");
  for (auto &r : rows)
    printf("  %6u  %12.3f  %12.3f  %14.3f  %12.3f\n", r.ports, r.update * 1e3, r.reconfig * 1e3,
           r.read * 1e3, r.info * 1e3);
  printf("  growth for each tenfold of ports (linear: 10x):\n");
  for (size_t i = 1; i < rows.size(); i++)
    printf("  %6s  %11.1fx  %11.1fx  %13.1fx  %11.1fx   (%u -> %u)\n", "",
           rows[i].update / rows[i - 1].update, rows[i].reconfig / rows[i - 1].reconfig,
           rows[i].read / rows[i - 1].read, rows[i].info / rows[i - 1].info, rows[i - 1].ports,
           rows[i].ports);
  printf("  1,000 ports, one supervision pass: %.3f ms (goal < 10 ms)\n", rows.back().update * 1e3);
  return 0;
}
