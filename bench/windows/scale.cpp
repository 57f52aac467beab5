// bench_scale: how kivd.exe grows with its configuration - start-up to the first answered
// connection, one "ls" and one no-change "reconfig" over the control pipe, its private
// bytes and handles - at 10, 100 and 1,000 ports (10, 100 and 300 of them "on", each with
// a running echo agent), with the growth from one size to the next beside the growth in
// ports; then 1,000 clients connecting at once to one auto port, against the same echo
// agent listening on an "on" port by itself.
#define FD_SETSIZE 1024
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/windows/bench.h"

namespace {

constexpr int REPEAT = 5;  // control round trips per figure; the median is reported
constexpr int BURST = 1000;

std::string echo_agent() { return "\"" + kt::build_dir() + "\\agent\\echo-agent.exe\""; }

// Median milliseconds of one command's round trip.
double round_trip(kt::client *c, const std::string &line, size_t *elements) {
  std::vector<double> t;
  for (int i = 0; i < REPEAT; i++) {
    double t0 = kt::now_ms();
    *elements = c->command(line).size();
    t.push_back(kt::now_ms() - t0);
  }
  std::sort(t.begin(), t.end());
  return t[REPEAT / 2];
}

struct figures {
  int ports, agents;
  double startup_ms, ls_ms, reconfig_ms;
  kt::usage use;
};

bool measure(int nports, int nagents, figures *f) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(nports + 1);
  int probe = ports.back();
  ports.pop_back();
  for (int i = 0; i < nports; i++) {
    bool on = i < nagents;
    std::string svc = on ? "on" + std::to_string(i) : "idle";
    reg.service(svc.c_str(), echo_agent());
    reg.port(ports[i], on ? "on" : "auto", svc.c_str());
  }
  reg.service("probe", echo_agent());
  reg.port(probe, "auto", "probe");
  *f = {nports, nagents, 0, 0, 0, {}};
  double t0 = kt::now_ms();
  kt::kivd d("-D0");
  if (!kt::poll([&] { return kt::echoes(probe); }, 120000)) return false;
  f->startup_ms = kt::now_ms() - t0;
  kt::client c;
  // Steady state: every "on" agent and the probe's are running.
  auto running = [&] {
    int n = 0;
    for (auto &line : c.command("ls")) n += line.find(" Agent=") != std::string::npos;
    return n;
  };
  if (!kt::poll([&] { return running() == nagents + 1; }, 120000)) {
    fprintf(stderr, "bench_scale: %d of %d agents running\n", running(), nagents + 1);
    return false;
  }
  size_t elements = 0;
  f->ls_ms = round_trip(&c, "ls", &elements);
  if (elements != size_t(nports + 3))
    fprintf(stderr, "bench_scale: ls gave %zu elements\n", elements);
  f->reconfig_ms = round_trip(&c, "reconfig", &elements);
  bool ok = kt::usage_of(d.pid, &f->use);
  c.close();
  d.quit();
  return ok;
}

struct burst_result {
  int served = 0, failed = 0;
  double last_ms = 0;  // when the last client served had its byte back
};

// `count` clients connect at once to port, each sends one byte and waits for its echo;
// the clients still waiting after a minute are given up.
burst_result burst(int port, int count) {
  burst_result r;
  std::vector<SOCKET> s(count, INVALID_SOCKET);
  std::vector<int> state(count, 0);  // 0 connecting, 1 sent, 2 served, 3 failed
  double t0 = kt::now_ms();
  for (int i = 0; i < count; i++) {
    s[i] = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    u_long nonblocking = 1;
    ioctlsocket(s[i], FIONBIO, &nonblocking);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(u_short(port));
    connect(s[i], reinterpret_cast<sockaddr *>(&a), sizeof a);
  }
  int done = 0, failed = 0;
  while (done < count && kt::now_ms() - t0 < 60000) {
    std::vector<WSAPOLLFD> fds;
    std::vector<int> index;
    for (int i = 0; i < count; i++)
      if (state[i] < 2) {
        fds.push_back({s[i], SHORT(state[i] == 0 ? POLLWRNORM : POLLRDNORM), 0});
        index.push_back(i);
      }
    if (WSAPoll(fds.data(), ULONG(fds.size()), 1000) <= 0) continue;
    for (size_t k = 0; k < fds.size(); k++) {
      int i = index[k];
      if (fds[k].revents & (POLLERR | POLLHUP | POLLNVAL)) {
        state[i] = 3;
        done++, failed++;
      } else if (state[i] == 0 && (fds[k].revents & POLLWRNORM)) {
        send(s[i], "x", 1, 0);
        state[i] = 1;
      } else if (state[i] == 1 && (fds[k].revents & POLLRDNORM)) {
        char c;
        state[i] = recv(s[i], &c, 1, 0) == 1 && c == 'x' ? 2 : 3;
        failed += state[i] == 3;
        done++;
        if (state[i] == 2) r.last_ms = kt::now_ms() - t0;
      }
    }
  }
  for (SOCKET x : s) closesocket(x);
  r.served = done - failed;
  r.failed = failed;
  return r;
}

}  // namespace

int main() {
  const int sizes[][2] = {{10, 10}, {100, 100}, {1000, 300}};
  std::vector<figures> all;
  printf("%6s %7s %11s %8s %12s %11s %8s\n", "ports", "agents", "startup ms", "ls ms",
         "reconfig ms", "private KB", "handles");
  for (auto &size : sizes) {
    figures f;
    if (!measure(size[0], size[1], &f)) {
      fprintf(stderr, "bench_scale: the run with %d ports failed\n", size[0]);
      return 1;
    }
    printf("%6d %7d %11.0f %8.2f %12.2f %11zu %8lu\n", f.ports, f.agents, f.startup_ms, f.ls_ms,
           f.reconfig_ms, f.use.private_bytes / 1024, static_cast<unsigned long>(f.use.handles));
    fflush(stdout);
    all.push_back(f);
  }
  printf("growth from one size to the next (linear would be the ports' and agents' growth):\n");
  for (size_t i = 1; i < all.size(); i++) {
    const figures &a = all[i - 1], &b = all[i];
    printf(
        "  %d -> %d ports (x%.0f), %d -> %d agents (x%.0f): startup x%.1f, ls x%.1f, reconfig "
        "x%.1f, "
        "private bytes x%.1f, handles x%.1f\n",
        a.ports, b.ports, double(b.ports) / a.ports, a.agents, b.agents,
        double(b.agents) / a.agents, b.startup_ms / a.startup_ms, b.ls_ms / a.ls_ms,
        b.reconfig_ms / a.reconfig_ms, double(b.use.private_bytes) / double(a.use.private_bytes),
        double(b.use.handles) / a.use.handles);
  }
  const figures &hundred = all[1], &thousand = all[2];
  printf("goal: ls of 1,000 ports %.2f ms against 1.5 x ten at 100 ports %.2f ms: %s\n",
         thousand.ls_ms, 15 * hundred.ls_ms,
         thousand.ls_ms < 15 * hundred.ls_ms ? "met" : "missed");
  printf(
      "goal: no-change reconfig at 1,000 ports %.2f ms against 1.5 x ten at 100 ports %.2f ms: "
      "%s\n",
      thousand.reconfig_ms, 15 * hundred.reconfig_ms,
      thousand.reconfig_ms < 15 * hundred.reconfig_ms ? "met" : "missed");

  // The burst: the held (auto) port first, so its figure includes the agent's cold launch.
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(2);
  reg.service("held", echo_agent());
  reg.port(ports[0], "auto", "held");
  reg.service("own", echo_agent());
  reg.port(ports[1], "on", "own");
  kt::kivd d("-D0");
  if (!kt::poll([&] { return kt::echoes(ports[1]); }, 60000)) return 1;
  burst_result held = burst(ports[0], BURST), own = burst(ports[1], BURST);
  printf("burst of %d clients, served within a minute (failed), time to the last served:\n", BURST);
  printf("  auto port through kivd:          %4d (%d) %6.0f ms\n", held.served, held.failed,
         held.last_ms);
  printf("  the agent listening by itself:   %4d (%d) %6.0f ms\n", own.served, own.failed,
         own.last_ms);
  d.quit();
  return 0;
}
