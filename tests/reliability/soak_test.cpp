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

#include "tests/reliability/run_size.h"
#include "tests/reliability/usage.h"
#include "tests/service/kivd_fixture.h"

namespace {

constexpr int PORTS = 10;         // one service each: the start throttle counts per service
constexpr int MAX_AGENTS = 10;    // per port and run, below the 13 launches a minute allows
constexpr int END_KINDS = 3;      // exit 0, exit 3, access violation
constexpr DWORD SLACK_HANDLES = 10;
constexpr SIZE_T SLACK_BYTES = 512 * 1024;

struct tally {
  std::atomic<int> served{0}, refused{0}, agents{0};
  std::mutex lock;
  std::vector<std::string> faults;
  void fault(const std::string &what) {
    std::lock_guard<std::mutex> g(lock);
    if (faults.size() < 20) faults.push_back(what);
  }
};

// The listing line of port, "" when it is not listed.
std::string listed(int port) {
  kt::client c;
  for (auto &line : rel::listed_ports(c.command("ls")))
    if (atoi(line.c_str()) == port) return line;
  return "";
}

// One connection to port: the hello of the agent that serves it. Refused only while the
// port rests after a crash (`resting`), and never for longer than that rest.
std::string served_by(int port, tally *t, bool resting) {
  SOCKET s = INVALID_SOCKET;
  kt::poll([&] {
    s = kt::connect_to(port);
    if (s == INVALID_SOCKET) t->refused++;
    return s != INVALID_SOCKET || !resting;
  }, 20000);
  std::string tag = "port " + std::to_string(port);
  if (s == INVALID_SOCKET) {
    t->fault(tag + ": refused" + (resting ? " for 20 s" : " while it should listen"));
    return "";
  }
  std::string hello = kt::read_line(s);
  closesocket(s);
  if (hello.empty()) t->fault(tag + ": accepted and dropped");
  return hello;
}

// Agent cycles [from, to) on one port: `per_agent` connections to one agent, the last of
// which ends it in the way the cycle's number picks. Each cycle starts once kivd has
// seen the previous agent's end, so that every connection has one right outcome.
void cycles(int index, int port, int from, int to, int per_agent, tally *t) {
  std::string tag = "port " + std::to_string(port);
  bool resting = listed(port).find(" Disable=") != std::string::npos;
  for (int cycle = from; cycle < to; cycle++) {
    unsigned pid = 0;
    for (int i = 0; i < per_agent; i++) {
      std::string hello = served_by(port, t, resting && i == 0);
      unsigned now = 0, on = 0;
      if (sscanf(hello.c_str(), "agent %u port %u", &now, &on) != 2 || on != unsigned(port)) {
        t->fault(tag + ": hello \"" + hello + "\"");
        return;
      }
      if (i > 0 && now != pid) t->fault(tag + ": agent " + std::to_string(now) + " beside " + std::to_string(pid));
      pid = now;
      t->served++;
    }
    t->agents++;
    HANDLE agent = OpenProcess(SYNCHRONIZE, FALSE, pid);
    int kind = (cycle + index) % END_KINDS;
    SOCKET s = kt::connect_to(port);
    kt::read_line(s);
    const char *last = kind == 0 ? "exit 0" : kind == 1 ? "exit 3" : "crash";
    send(s, last, int(strlen(last)), 0);
    closesocket(s);  // the client closes first: no TIME_WAIT on the port kivd binds again
    t->served++;
    if (!agent || WaitForSingleObject(agent, 20000) != WAIT_OBJECT_0)
      t->fault(tag + ": agent " + std::to_string(pid) + " did not end on \"" + last + "\"");
    if (agent) CloseHandle(agent);
    std::string line;
    if (!kt::poll([&] { return (line = listed(port)).find(" Agent=") == std::string::npos; }))
      t->fault(tag + ": still listed with its ended agent: " + line);
    resting = line.find(" Disable=") != std::string::npos;
    if (resting != (kind == 2)) t->fault(tag + ": after \"" + last + "\" listed as " + line);
  }
}

// Every port listed, auto, without agent and without rest: what kivd returns to.
bool all_idle(const std::vector<int> &ports, std::string *listing) {
  kt::client c;
  auto lines = rel::listed_ports(c.command("ls"));
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
  rel::usage warm, end;
  ASSERT_TRUE(rel::usage_of(d.pid, &warm));
  run(END_KINDS, agents);
  ASSERT_TRUE(kt::poll([&] { return all_idle(ports, &listing); })) << listing;
  ASSERT_TRUE(rel::usage_of(d.pid, &end));
  double seconds = (GetTickCount() - t0) / 1000.0;

  for (auto &f : t.faults) ADD_FAILURE() << f;
  EXPECT_EQ(t.agents.load(), PORTS * agents);
  EXPECT_GE(t.served.load(), n);
  EXPECT_LE(end.handles, warm.handles + SLACK_HANDLES) << rel::describe(warm, end);
  EXPECT_LE(end.private_bytes, warm.private_bytes + SLACK_BYTES) << rel::describe(warm, end);
  EXPECT_EQ(WaitForSingleObject(d.h, 0), WAIT_TIMEOUT) << "kivd ended";
  char figures[256];
  snprintf(figures, sizeof figures, "%d connections served, %d refused attempts, %d agents, %.1f s; %s",
           t.served.load(), t.refused.load(), t.agents.load(), seconds, rel::describe(warm, end).c_str());
  rel::summary("soak", figures);
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
}

}  // namespace
