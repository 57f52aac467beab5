// Held port: connections per second (connect, one byte echoed, close) to an echo agent
// serving a socket the launcher handed over, against the same agent listening on an
// "on" port by itself. Both agents run side by side and short batches alternate between
// them, so that the load of a shared machine hits both alike; the ratio is the median
// of the batches' ratios.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/windows/bench.h"

namespace {

constexpr int BATCH = 100;
constexpr int ROUNDS = 41;

bool one_connection(unsigned port) {
  SOCKET c = connect_to(port);
  if (c == INVALID_SOCKET) {
    fprintf(stderr, "bench_agent_held: connect to port %u: error %d\n", port, WSAGetLastError());
    return false;
  }
  bool ok = echoes(c, "x");
  if (!ok)
    fprintf(stderr, "bench_agent_held: no echo on port %u: error %d\n", port, WSAGetLastError());
  closesocket(c);
  return ok;
}

// Seconds for one batch of connections, or -1 when a connection failed.
double batch(unsigned port) {
  double t0 = seconds_now();
  for (int i = 0; i < BATCH; i++)
    if (!one_connection(port)) return -1;
  return seconds_now() - t0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// An echo agent on one port, handed over (held) or opened by the agent itself.
bool start(bool held, launched *l, unsigned *port, SOCKET *orig) {
  *orig = INVALID_SOCKET;
  if (held) {
    *port = 0;
    *orig = listen_on(port);
  } else {
    *port = free_port();
  }
  if (!launch(echo_agent_exe(), l)) return false;
  std::string line = held ? handover_line(*orig, *port, l->pid) : "-Ptcp::" + std::to_string(*port);
  if (line.empty() || !send_line(l->pipe, line) || !send_line(l->pipe, "--") ||
      !send_line(l->pipe, "lifespan 600"))
    return false;
  // An "on" port listens once the agent has started: wait for it, up to 20 s.
  for (int i = 0; i < 400; i++) {
    SOCKET c = connect_to(*port);
    if (c != INVALID_SOCKET) {
      closesocket(c);
      return true;
    }
    Sleep(50);
  }
  return false;
}

void stop(launched *l, SOCKET orig) {
  send_line(l->pipe, "exit");
  wait_exit(*l, 20000);
  end_launch(l);
  if (orig != INVALID_SOCKET) closesocket(orig);
}

}  // namespace

int main() {
  launched agents[2];
  unsigned ports[2];
  SOCKET origs[2];
  for (int k = 0; k < 2; k++) {
    if (!start(k == 0, &agents[k], &ports[k], &origs[k]) || batch(ports[k]) < 0) {
      fprintf(stderr, "bench_agent_held: could not start the echo agent\n");
      return 1;
    }
  }
  std::vector<double> ratios;
  double total[2] = {0, 0};
  for (int r = 0; r < ROUNDS; r++) {
    double t[2];
    for (int j = 0; j < 2; j++) {
      int k = (r + j) % 2;  // the first of each round alternates too
      t[k] = batch(ports[k]);
      if (t[k] < 0) {
        fprintf(stderr, "bench_agent_held: a connection failed\n");
        return 1;
      }
      total[k] += t[k];
    }
    ratios.push_back(t[1] / t[0]);  // held rate / own rate = own time / held time
  }
  for (int k = 0; k < 2; k++) stop(&agents[k], origs[k]);
  std::sort(ratios.begin(), ratios.end());
  printf(
      "held port: %d batches of %d connections each (connect, 1 byte echoed, close), "
      "alternating:\n",
      ROUNDS, BATCH);
  printf("  handed-over socket : %8.1f connections/s\n", ROUNDS * BATCH / total[0]);
  printf("  agent's own socket : %8.1f connections/s\n", ROUNDS * BATCH / total[1]);
  printf("  ratio held/own     : %8.3f median of the batches (min %.3f, max %.3f; goal >= 0.98)\n",
         median(ratios), ratios.front(), ratios.back());
  return 0;
}
