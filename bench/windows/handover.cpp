// bench_handover: `kivctl restart` with 10 and 1,000 ports, a tenth of them with a running
// agent: the time from the command to the successor serving, the gap kivd reports between
// its processes, and a client's connect -> first byte in steady state against the same
// across the restart, side by side: on a port whose agent runs throughout (the load of the
// restart test), and on idle ports, each first connection needing kivd to start an agent
// (during the restart, the holder keeps it in the port's backlog until the successor serves).
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
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

struct figures {
  std::vector<double> ms;
  int failed = 0;
  std::string line() {
    std::sort(ms.begin(), ms.end());
    char text[160];
    snprintf(text, sizeof text, "median %7.1f ms, worst %7.1f ms (%zu, %d failed)",
             ms.empty() ? 0 : ms[ms.size() / 2], ms.empty() ? 0 : ms.back(), ms.size(), failed);
    return text;
  }
};

// One first connection to each port, one every 50 ms: connect -> first echoed byte.
figures first_connections(const std::vector<int> &ports) {
  figures f;
  for (int port : ports) {
    double t0 = kt::now_ms();
    SOCKET s = kt::connect_to(port);
    bool ok = s != INVALID_SOCKET && kt::echoes(s, "x");
    if (ok)
      f.ms.push_back(kt::now_ms() - t0);
    else
      f.failed++;
    if (s != INVALID_SOCKET) closesocket(s);
    Sleep(50);
  }
  return f;
}

kt::load_counts steady_load(int port, int ms) {
  kt::load_options o;
  o.port = port;
  o.live_port = -1;
  kt::client_load load(o);
  load.start();
  Sleep(static_cast<DWORD>(ms));
  return load.stop();
}

void bench_restart(int nports) {
  // Ports: [0] the load's, [1..nports) configured, every tenth with a running agent; and
  // 2 x 10 idle ports for first connections, each of a service of its own (the start
  // throttle counts per service).
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(nports + 20);
  std::string echo = "\"" + kt::echo_agent_exe() + "\"";
  for (int i = 0; i < nports + 20; i++) {
    std::string name = "s" + std::to_string(i);
    reg.service(name.c_str(), echo);
    reg.port(ports[i], "auto", name.c_str());
  }
  std::vector<int> idle_steady(ports.begin() + nports, ports.begin() + nports + 10);
  std::vector<int> idle_restart(ports.begin() + nports + 10, ports.end());
  kt::kivd d("");
  kt::poll([&] { return kt::echoes(ports[0]); });
  std::vector<SOCKET> kept;
  for (int i = 1; i < nports; i += 10) {
    SOCKET s = kt::connect_to(ports[i]);
    if (s != INVALID_SOCKET && kt::echoes(s, "x")) kept.push_back(s);
  }
  kt::load_counts steady = steady_load(ports[0], 3000);
  figures cold_steady = first_connections(idle_steady);

  kt::load_options o;
  o.port = ports[0];
  o.live_port = -1;
  kt::client_load load(o);
  load.start();
  figures cold_restart;
  std::atomic<bool> begun{false};
  std::thread cold([&] {
    while (!begun) Sleep(1);
    cold_restart = first_connections(idle_restart);
  });
  Sleep(300);
  double t0 = kt::now_ms();
  begun = true;
  kt::ran r = kt::run("\"" + kt::kivctl_exe() + "\" restart 60");
  double t1 = kt::now_ms();
  cold.join();
  kt::load_counts during = load.stop();
  printf("restart, %4d ports, %3zu agents: %6.0f ms to serving, gap %ld ms (kivctl %lu)\n", nports,
         kept.size() + 1, t1 - t0, gap_of(r.out), static_cast<unsigned long>(r.code));
  printf("  agent's port, steady:          median %7.1f ms, worst %7.1f ms (%s)\n",
         steady.median_ms, steady.worst_ms, kt::describe(steady).c_str());
  printf("  agent's port, across restart:  median %7.1f ms, worst %7.1f ms (%s)\n",
         during.median_ms, during.worst_ms, kt::describe(during).c_str());
  printf("  idle ports, steady:            %s\n", cold_steady.line().c_str());
  printf("  idle ports, across restart:    %s\n", cold_restart.line().c_str());
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
