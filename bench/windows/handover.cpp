// bench_handover: `kivctl restart` with 10 and 1,000 ports (a tenth of them with a running
// agent): the time from the command to the successor serving, the gap kivd reports
// between its processes, and a client's connect -> first byte during the restart against
// the same in steady state, measured in one run on a port whose every connection needs kivd
// (its agents serve what waits, then end).
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/windows/bench.h"
#include "tests/support/load.h"

namespace {

// "... ; 412 ms between processes": the gap, or -1.
long gap_of(const std::string &out) {
  size_t at = out.find(" ms between processes");
  if (at == std::string::npos) return -1;
  size_t start = out.rfind(' ', at - 1);
  return strtol(out.c_str() + start + 1, nullptr, 10);
}

kt::load_counts measure(int port, int ms) {
  kt::load_options o;
  o.port = port;
  o.live_port = -1;
  kt::client_load load(o);
  load.start();
  Sleep(static_cast<DWORD>(ms));
  return load.stop();
}

void bench_restart(int nports) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(nports + 1);
  std::string echo = "\"" + kt::echo_agent_exe() + "\"";
  reg.service("fresh", echo);
  reg.set("services\\fresh", "lifespan", "0");
  reg.port(ports[0], "auto", "fresh");
  reg.service("held", echo);
  for (int i = 1; i <= nports; i++) reg.port(ports[i], "auto", "held");
  kt::kivd d("");
  // A running agent on every tenth port: one connection each, kept open.
  std::vector<SOCKET> kept;
  for (int i = 1; i <= nports; i += 10) {
    SOCKET s = kt::connect_to(ports[i]);
    if (s != INVALID_SOCKET && kt::echoes(s, "x")) kept.push_back(s);
  }
  kt::load_counts steady = measure(ports[0], 3000);
  kt::load_options o;
  o.port = ports[0];
  o.live_port = -1;
  kt::client_load load(o);
  load.start();
  Sleep(500);
  double t0 = kt::now_ms();
  kt::ran r = kt::run("\"" + kt::kivctl_exe() + "\" restart 60");
  double t1 = kt::now_ms();
  Sleep(500);
  kt::load_counts during = load.stop();
  printf("restart, %4d ports, %3zu agents: %6.0f ms to serving, gap %ld ms (kivctl %lu)\n", nports,
         kept.size(), t1 - t0, gap_of(r.out), static_cast<unsigned long>(r.code));
  printf("  first byte, steady:         median %7.1f ms, worst %7.1f ms (%s)\n", steady.median_ms,
         steady.worst_ms, kt::describe(steady).c_str());
  printf("  first byte, across restart: median %7.1f ms, worst %7.1f ms (%s)\n", during.median_ms,
         during.worst_ms, kt::describe(during).c_str());
  for (SOCKET s : kept) closesocket(s);
  {
    kt::client c;
    c.send("quit -Q");
  }
  kt::poll([] { return kt::processes_named("kivd.exe") == 0; }, 60000);
}

}  // namespace

int main() {
  for (int n : {10, 1000}) bench_restart(n);
  return 0;
}
