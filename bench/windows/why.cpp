// bench_why: ls latency while a flapping port emits events (a second client disables and
// enables it without pause: two events and two passes a round), against a baseline run in
// the same kivd where that client sends "update" twice a round (two passes, no event).
// Segments alternate so that drift in the machine's load falls on both alike; the figure
// is the ratio of the medians (target: 1.05 or less).
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "bench/windows/bench.h"

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main() {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(101);
  reg.service("svc", "C:\\no\\such\\agent.exe");
  for (int port : ports) reg.port(port, "auto", "svc");
  kt::kivd d("");
  std::string flap = std::to_string(ports[0]);
  constexpr int SEGMENTS = 10, ROUNDS = 50;
  std::vector<double> base, events;
  for (int segment = 0; segment < 2 * SEGMENTS; segment++) {
    bool emitting = segment % 2 == 1;
    std::atomic<bool> stop{false};
    std::atomic<long> flaps{0};
    std::thread flapper([&] {
      kt::client f;
      while (!stop) {
        f.command(emitting ? "disable " + flap : "update");
        f.command(emitting ? "enable " + flap : "update");
        flaps++;
      }
    });
    kt::client c;
    std::vector<double> each;
    for (int i = 0; i < ROUNDS; i++) {
      double t0 = kt::now_ms();
      c.command("ls");
      each.push_back(kt::now_ms() - t0);
    }
    stop = true;
    flapper.join();
    (emitting ? events : base).push_back(median(each));
  }
  double b = median(base), e = median(events);
  printf("ls, 101 ports: %.2f ms without events, %.2f ms while a port flaps: ratio %.3f\n", b, e,
         b > 0 ? e / b : 0);
  std::string why = kt::client().command("why " + flap).size() > 2 ? "kept" : "MISSING";
  printf("why %s: the flapping port's events %s in its ring\n", flap.c_str(), why.c_str());
  return 0;
}
