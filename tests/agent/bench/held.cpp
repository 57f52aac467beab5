// Held port: connections per second (connect, one byte echoed, close) to an echo agent
// serving a socket the launcher handed over, against the same agent listening on an
// "on" port by itself. Rounds alternate so that drift in the machine hits both alike.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/agent/launcher.h"

namespace {

constexpr int CONNECTIONS = 500;
constexpr int ROUNDS = 3;

bool one_connection(unsigned port) {
  SOCKET c = connect_loopback(port);
  if (c == INVALID_SOCKET) return false;
  bool ok = echoes(c, "x");
  closesocket(c);
  return ok;
}

// Connections per second, or -1 when a connection failed.
double rate(unsigned port) {
  for (int i = 0; i < 20; i++)
    if (!one_connection(port)) return -1;
  double t0 = seconds_now();
  for (int i = 0; i < CONNECTIONS; i++)
    if (!one_connection(port)) return -1;
  return CONNECTIONS / (seconds_now() - t0);
}

// An echo agent on one port, handed over (held) or opened by the agent itself.
bool start(bool held, launched *l, unsigned *port, SOCKET *orig) {
  *orig = INVALID_SOCKET;
  if (held) *orig = listen_loopback(port);
  else *port = free_port();
  if (!launch(beside_me(ECHO_AGENT), l)) return false;
  std::string line = held ? port_line(*orig, *port, l->pid) : "-Ptcp::" + std::to_string(*port);
  if (line.empty() || !send_line(l->pipe, line) || !send_line(l->pipe, "--") || !send_line(l->pipe, "lifespan 600"))
    return false;
  // An "on" port listens once the agent has started: wait for it, up to 20 s.
  for (int i = 0; i < 400; i++) {
    SOCKET c = connect_loopback(*port);
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
  std::vector<double> held_rates, self_rates;
  for (int r = 0; r < ROUNDS; r++) {
    for (bool held : {true, false}) {
      launched l;
      unsigned port;
      SOCKET orig;
      if (!start(held, &l, &port, &orig)) {
        fprintf(stderr, "bench_agent_held: could not start the echo agent\n");
        return 1;
      }
      double cps = rate(port);
      stop(&l, orig);
      if (cps < 0) {
        fprintf(stderr, "bench_agent_held: a connection failed\n");
        return 1;
      }
      (held ? held_rates : self_rates).push_back(cps);
    }
  }
  std::sort(held_rates.begin(), held_rates.end());
  std::sort(self_rates.begin(), self_rates.end());
  double held = held_rates[ROUNDS / 2], self = self_rates[ROUNDS / 2];
  printf("held port, %d connections x %d rounds (connect, 1 byte echoed, close), median:\n", CONNECTIONS, ROUNDS);
  printf("  handed-over socket : %8.1f connections/s\n", held);
  printf("  agent's own socket : %8.1f connections/s\n", self);
  printf("  ratio held/own     : %8.3f (goal >= 0.98)\n", held / self);
  return 0;
}
