// bench_kivd: figures for the loop's wait, the control channel and an idle kivd, under
// the platform it runs on (make bench runs it under Wine). Prints one line per figure.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "bench/windows/bench.h"
#include "toolkit/runtime/mwait.h"

namespace {

double now_us() { return kt::now_ms() * 1e3; }

// Time from SetEvent on another thread to the wait's return, with n handles waited on
// and the last one signalled.
void bench_wait(int n) {
  std::vector<HANDLE> h;
  for (int i = 0; i < n; i++) h.push_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  constexpr int ROUNDS = 200;
  double total = 0;
  for (int r = 0; r < ROUNDS; r++) {
    volatile double start = 0;
    std::thread t([&] {
      Sleep(1);
      start = now_us();
      SetEvent(h[n - 1]);
    });
    DWORD got = mwait_any(n, h.data(), FALSE, 10000, FALSE);
    double end = now_us();
    t.join();
    if (got != static_cast<DWORD>(n - 1)) printf("wait %d: wrong index %lu\n", n, got);
    total += end - start;
    ResetEvent(h[n - 1]);
  }
  printf("wait, %4d handles: %8.1f us from SetEvent to the return (mean of %d)\n", n,
         total / ROUNDS, ROUNDS);
  for (HANDLE e : h) CloseHandle(e);
}

void configure(kt::registry &reg, int ports) {
  reg.service("svc", "C:\\no\\such\\agent.exe");
  for (int port : kt::free_ports(ports)) reg.port(port, "auto", "svc");
}

void bench_ls(int ports) {
  kt::registry reg;
  configure(reg, ports);
  kt::kivd d("");
  kt::client c;
  constexpr int ROUNDS = 100;
  double start = now_us();
  size_t lines = 0;
  for (int i = 0; i < ROUNDS; i++) lines = c.command("ls").size();
  if (lines != static_cast<size_t>(ports) + 2) printf("ls: %s\n", c.command("ls")[0].c_str());
  double per = (now_us() - start) / ROUNDS;
  printf("ls, %4d ports: %8.0f us per round trip (%zu messages each)\n", ports, per, lines);
}

void bench_two_clients() {
  kt::registry reg;
  configure(reg, 10);
  kt::kivd d("");
  constexpr int EACH = 1000;
  double start = now_us();
  auto run = [] {
    kt::client c;
    for (int i = 0; i < EACH; i++) c.command("remove 7");
  };
  std::thread a(run), b(run);
  a.join();
  b.join();
  double seconds = (now_us() - start) / 1e6;
  printf("two clients: %8.0f commands per second (%d each)\n", 2 * EACH / seconds, EACH);
}

double cpu_ms(HANDLE process) {
  FILETIME c, e, k, u;
  GetProcessTimes(process, &c, &e, &k, &u);
  auto ms = [](FILETIME f) {
    return (static_cast<double>(f.dwHighDateTime) * 4294967296.0 + f.dwLowDateTime) / 1e4;
  };
  return ms(k) + ms(u);
}

// An idle kivd with 100 listening ports: log lines (at level 3 every wake-up writes one)
// and CPU time over 10 seconds.
void bench_idle() {
  kt::registry reg;
  configure(reg, 100);
  kt::kivd d("-D3");
  d.log_has("main loop");
  Sleep(500);
  std::string before = d.err();
  double cpu = cpu_ms(d.h);
  Sleep(10000);
  size_t more = d.err().size() - before.size();
  printf("idle, 100 ports, 10 s: %zu log bytes written, %.0f ms CPU\n", more, cpu_ms(d.h) - cpu);
}

}  // namespace

int main() {
  for (int n : {10, 100, 1000}) bench_wait(n);
  for (int n : {10, 100, 1000}) bench_ls(n);
  bench_two_clients();
  bench_idle();
  return 0;
}
