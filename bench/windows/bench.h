// What the Windows benchmarks share beyond the test support library: seconds on the
// performance counter, and the cold launch with nothing but the hand-over.
#pragma once
#include <chrono>
#include <string>

#include "tests/support/support.h"

using namespace kt;

namespace kt {
// A monotonic clock in milliseconds for measured figures.
inline double now_ms() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
}  // namespace kt

inline double seconds_now() { return now_ms() / 1e3; }

// A new listening socket, a client connecting, the agent cmdline started with the socket,
// up to the client's first echoed byte. Seconds, or -1 on failure; the agent keeps
// running in *l, the socket is *orig.
inline double cold_launch(const std::string &cmdline, launched *l, SOCKET *orig, unsigned *port) {
  *l = launched{};
  *port = 0;
  *orig = listen_on(port);
  double t0 = seconds_now();
  SOCKET c = connect_to(int(*port));
  if (c == INVALID_SOCKET) return -1;
  if (!launch(cmdline, l)) {
    closesocket(c);
    return -1;
  }
  std::string line = handover_line(*orig, *port, l->pid);
  bool ok = !line.empty() && send_line(l->pipe, line) && send_line(l->pipe, "--") &&
            send_line(l->pipe, "lifespan 600") && echoes(c, "x");
  double t1 = seconds_now();
  closesocket(c);
  return ok ? t1 - t0 : -1;
}
