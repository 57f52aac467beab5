// Cold launch baseline: a client connects to a listening socket, the minimal launcher
// starts a new echo agent and hands the socket over (CreateProcess, WSADuplicateSocketA,
// the start-up lines), and the time runs until the client has its first byte back.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/windows/bench.h"

namespace {

constexpr int LAUNCHES = 15;

}  // namespace

int main() {
  std::vector<double> colds, warms;
  for (int i = 0; i < LAUNCHES; i++) {
    launched l;
    SOCKET orig;
    unsigned port;
    double t = cold_launch(echo_agent_exe(), &l, &orig, &port);
    if (t < 0) {
      fprintf(stderr, "bench_agent_cold: launch %d failed\n", i);
      return 1;
    }
    colds.push_back(t);
    // The same road to the running agent, for scale.
    double t0 = seconds_now();
    SOCKET c = connect_to(port);
    bool ok = c != INVALID_SOCKET && echoes(c, "x");
    warms.push_back(seconds_now() - t0);
    if (c != INVALID_SOCKET) closesocket(c);
    send_line(l.pipe, "exit");
    wait_exit(l, 20000);
    end_launch(&l);
    closesocket(orig);
    if (!ok) return 1;
  }
  std::sort(colds.begin(), colds.end());
  std::sort(warms.begin(), warms.end());
  double cold_med = colds[LAUNCHES / 2], warm_med = warms[LAUNCHES / 2];
  printf("cold launch baseline (minimal launcher), %d launches:\n", LAUNCHES);
  printf("  connect -> first echoed byte, new agent : median %7.2f ms, min %7.2f, max %7.2f\n",
         cold_med * 1e3, colds.front() * 1e3, colds.back() * 1e3);
  printf("  same to the running agent               : median %7.3f ms\n", warm_med * 1e3);
  printf("  ratio cold/running                      : %7.1f\n", cold_med / warm_med);
  return 0;
}
