// Soak: many connections to ports whose agents (the test agent) end with 0, with another
// code or by an access violation, in turn. Every connection is served by the agent that
// holds its port, or refused while the port rests after a crash, never accepted and
// dropped; afterwards kivd holds what it held after warm-up and lists every port idle.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "tests/reliability/reliability.h"
#include "tests/support/support.h"

namespace {

constexpr int PORTS = 10;       // one service each: the start throttle counts per service
constexpr int MAX_AGENTS = 10;  // per port and run, below the 13 launches a minute allows
constexpr int END_KINDS = 3;    // exit 0, exit 3, access violation

struct tally : rel::faults {
  std::atomic<int> served{0}, refused{0}, dropped{0}, agents{0};
};

// One connection to port: the hello of the agent that serves it. `retry`: the previous
// agent ended otherwise than with 0, so kivd closes the port's socket (a connection that
// reached it first is dropped with it) and, after a crash, rests the port 3 s (refused):
// both are the rules, and the connection is tried again for as long as a rest takes.
std::string served_by(int port, tally *t, bool retry) {
  std::string hello;
  kt::poll(
      [&] {
        SOCKET s = kt::connect_to(port);
        if (s == INVALID_SOCKET) {
          t->refused++;
        } else {
          hello = kt::read_line(s);
          closesocket(s);
          if (hello.empty()) t->dropped++;
        }
        return !hello.empty() || !retry;
      },
      20000);
  if (hello.empty())
    t->fault("port " + std::to_string(port) +
             (retry ? ": not served for 20 s" : ": not served at once"));
  return hello;
}

// Connects once more and ends the agent that serves port as `last` asks; waits for its end.
void end_agent(int port, unsigned pid, const char *last, tally *t) {
  HANDLE agent = OpenProcess(SYNCHRONIZE, FALSE, pid);
  SOCKET s = kt::connect_to(port);
  kt::read_line(s);
  send(s, last, int(strlen(last)), 0);
  closesocket(s);  // the client closes first: no TIME_WAIT on the port kivd binds again
  t->served++;
  if (!agent || WaitForSingleObject(agent, 20000) != WAIT_OBJECT_0)
    t->fault("port " + std::to_string(port) + ": agent " + std::to_string(pid) +
             " did not end on \"" + last + "\"");
  if (agent) CloseHandle(agent);
}

// Agent cycles [from, to) on one port: `per_agent` connections to one agent, then one that
// ends it in the way the cycle's number picks (exit 0, exit 3, access violation). Without
// `from`, a last agent ends with 0, so the port is left listening without an agent.
void cycles(int index, int port, int from, int to, int per_agent, tally *t) {
  std::string tag = "port " + std::to_string(port);
  bool retry = from > 0;  // the previous run's last agent may have ended otherwise than with 0
  for (int cycle = from; cycle <= to; cycle++) {
    unsigned pid = 0;
    for (int i = 0; i < (cycle < to ? per_agent : 1); i++) {
      std::string hello = served_by(port, t, retry && i == 0);
      unsigned now = 0, on = 0;
      if (sscanf(hello.c_str(), "agent %u port %u", &now, &on) != 2 || on != unsigned(port)) {
        t->fault(tag + ": hello \"" + hello + "\"");
        return;
      }
      if (i > 0 && now != pid)
        t->fault(tag + ": agent " + std::to_string(now) + " beside " + std::to_string(pid));
      pid = now;
      t->served++;
    }
    t->agents++;
    int kind = cycle < to ? (cycle + index) % END_KINDS : 0;
    end_agent(port, pid, kind == 0 ? "exit 0" : kind == 1 ? "exit 3" : "crash", t);
    retry = kind != 0;
  }
}

// Every port listed, auto, without agent and without rest: what kivd returns to. Polling
// it is safe while a rest is pending: kivd's timer fires on time however often a client
// wakes the loop.
bool all_idle(const std::vector<int> &ports, std::string *listing) {
  kt::client c;
  auto lines = kt::listed_ports(c.command("ls"));
  listing->clear();
  for (auto &l : lines) *listing += l + "\n";
  if (lines.size() != ports.size()) return false;
  for (size_t i = 0; i < ports.size(); i++) {
    const std::string &l = lines[i];
    if (atoi(l.c_str()) != ports[i] || l.find(" Auto") == std::string::npos ||
        l.find(" Agent=") != std::string::npos || l.find(" Disable=") != std::string::npos)
      return false;
  }
  return true;
}

TEST(Soak, ConnectionsAgentEndsAndNothingLeaks) {
  ASSERT_NE(kt::testagent_exe(), "");
  const int n = rel::run_size("KIVD_SOAK_N", 300);
  const int per_port = (n + PORTS - 1) / PORTS;
  int agents = per_port / 100;
  agents = agents < END_KINDS ? END_KINDS : agents > MAX_AGENTS ? MAX_AGENTS : agents;
  const int per_agent = (per_port + agents - 1) / agents;

  kt::registry reg;
  std::vector<int> ports = kt::free_ports(PORTS);
  std::sort(ports.begin(), ports.end());  // the listing's order
  for (int i = 0; i < PORTS; i++) {
    std::string svc = "soak" + std::to_string(i);
    reg.service(svc.c_str(), "\"" + kt::testagent_exe() + "\"");
    reg.port(ports[i], "auto", svc.c_str());
  }
  kt::kivd d("-D1");
  std::string listing;
  ASSERT_TRUE(kt::poll([&] { return all_idle(ports, &listing); })) << listing;

  tally t;
  DWORD t0 = GetTickCount();
  auto run = [&](int from, int to) {
    std::vector<std::thread> threads;
    for (int i = 0; i < PORTS; i++)
      threads.emplace_back(cycles, i, ports[i], from, to, per_agent, &t);
    for (auto &th : threads) th.join();
  };
  // Warm-up: one agent of each end kind per port, so every path has run once.
  run(0, END_KINDS);
  ASSERT_TRUE(kt::poll([&] { return all_idle(ports, &listing); })) << listing;
  kt::usage warm;
  ASSERT_TRUE(kt::usage_of(d.pid, &warm));
  run(END_KINDS, agents);
  ASSERT_TRUE(kt::poll([&] { return all_idle(ports, &listing); })) << listing;
  double seconds = (GetTickCount() - t0) / 1000.0;

  for (auto &f : t.seen) ADD_FAILURE() << f;
  EXPECT_EQ(t.agents.load(), PORTS * (agents + 2));  // each run ends with an agent more
  EXPECT_GE(t.served.load(), n);
  char figures[256];
  snprintf(figures, sizeof figures,
           "%d connections served, %d refused and %d dropped by the rules, %d agents, %.1f s",
           t.served.load(), t.refused.load(), t.dropped.load(), t.agents.load(), seconds);
  rel::finish(d, warm, "soak", figures);
}

}  // namespace
