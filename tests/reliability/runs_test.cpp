// Reliability runs of one kivd.exe. A soak: many connections to ports whose agents (the
// test agent) end with 0, with another code or by an access violation, in turn; every
// connection is served by the agent that holds its port, or refused while the port rests
// after a crash, never accepted and dropped. A storm: three clients at once (two pipe
// instances: one of them always waits its turn) send random and adversarial lines;
// whatever a line holds, kivd answers it with nothing (a blank line), a hang-up ("quit")
// or one reply framed as the protocol frames it (what each reply says is the console
// table's business). Afterwards kivd lists every port idle, holds no more than it held
// after warm-up (a little slack for what the system itself keeps) and ends cleanly. Each
// run's size comes from the environment (make soak); the defaults fit make test.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>

#include "lib/cmdsplit.h"
#include "tools/kivctl/answer.h"
#include "tests/support/support.h"

namespace {

constexpr int PORTS = 10;       // one service each: the start throttle counts per service
constexpr int MAX_AGENTS = 10;  // per port and run, below the 13 launches a minute allows
constexpr int END_KINDS = 3;    // exit 0, exit 3, access violation
constexpr int CLIENTS = 3;
constexpr int SESSION = 100;  // lines per connection; then the client makes room for the third

int run_size(const char *variable, int fallback) {
  const char *text = getenv(variable);
  int n = text ? atoi(text) : 0;
  return n > 0 ? n : fallback;
}

// What the runs' threads count, and the faults they see (the first 20 kept for the report).
struct tally {
  std::atomic<int> served{0}, refused{0}, dropped{0}, agents{0}, lines{0}, hang_ups{0};
  std::mutex lock;
  std::vector<std::string> seen;
  void fault(const std::string &what) {
    std::lock_guard<std::mutex> g(lock);
    if (seen.size() < 20) seen.push_back(what);
  }
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

// One random line of the storm: oversized, binary, quotes and escapes, or command words.
std::string bad_line(std::mt19937 &rng) {
  static const char *const commands[] = {"quit",   "info",    "reconfig", "update", "add",
                                         "remove", "disable", "enable",   "ls"};
  static const char *const pieces[] = {"\"",     "\\", "\\\\", "\\\"", "ls",  "info",
                                       "update", " ",  "\t",   "x",    "\"\""};
  std::string s;
  switch (rng() % 5) {
    case 0:
      return std::string(CMD_LINE + 1 + rng() % 2000, char('a' + rng() % 26));
    case 1:
    case 2:
      s.resize(1 + rng() % 300);
      for (auto &ch : s) ch = char(rng());
      return s;
    case 3:
      for (int i = 0, n = 1 + rng() % 30; i < n; i++) s += pieces[rng() % 11];
      return s;
  }
  s = commands[rng() % 9];
  for (int i = 0, n = rng() % 6; i < n; i++) {
    std::string words[] = {" " + std::to_string(int(rng() % 70000) - 1000),
                           " -" + std::string(1, char('a' + rng() % 26)), " --",
                           "\t\"q " + std::to_string(rng() % 100) + "\""};
    s += words[rng() % 4];
  }
  return s;
}

// One client: `count` lines in sessions of SESSION lines, each on a new connection; each
// session still answers "update" at its end. What a line is owed is kivctl's own rule; a
// reply must be framed as the protocol frames it.
void storm_client(unsigned seed, int count, tally *t) {
  std::mt19937 rng(seed);
  for (int sent = 0; sent < count;) {
    kt::client c;
    if (c.h == INVALID_HANDLE_VALUE)
      return t->fault("no connection: error " + std::to_string(c.error));
    bool open = true;
    for (int i = 0; i < SESSION && sent < count && open; i++, sent++, t->lines++) {
      std::string line = bad_line(rng);
      std::string shown = testing::PrintToString(line.substr(0, 80));
      answer want = server_answer(line.data(), int(line.size()));
      if (want != answer::reply) {
        if (!c.send(line)) return t->fault("send failed: " + shown);
        if (want == answer::hangup && !c.hung_up(10000)) t->fault("no hang-up after " + shown);
        open = want == answer::none;
        t->hang_ups += !open;
        continue;
      }
      std::vector<std::string> got = c.command(line);
      bool ok = got[0] == "+" || (got[0].size() > 1 && got[0][0] == '-') ||
                (got[0] == "!" && got.back() == ".");
      for (auto &m : got)
        ok = ok && m.find('\0') == std::string::npos && m.find('\n') == std::string::npos;
      if (!ok) t->fault("line " + shown + ": reply " + testing::PrintToString(got));
      open = got.back()[0] != '<';
    }
    if (open && c.command("update") != std::vector<std::string>{"+"})
      t->fault("no answer to update");
  }
}

TEST(Reliability, ASoakOfAgentEndsThenAStormOfBadControlLines) {
  ASSERT_NE(kt::testagent_exe(), "");
  const int n = run_size("KIVD_SOAK_N", 300), lines = run_size("KIVD_STORM_N", 300);
  const int per_port = (n + PORTS - 1) / PORTS;
  const int agents = std::clamp(per_port / 100, END_KINDS, MAX_AGENTS);
  const int per_agent = (per_port + agents - 1) / agents;

  kt::registry reg;
  std::vector<int> ports = kt::free_ports(PORTS);
  // What kivd returns to: every port listed, auto, without agent and without rest.
  // Polling it is safe while a rest is pending: kivd's timer fires on time however often
  // a client wakes the loop.
  std::vector<std::string> idle{"!"}, listing;
  for (int i = 0; i < PORTS; i++) {
    std::string svc = "soak" + std::to_string(i);
    reg.service(svc.c_str(), "\"" + kt::testagent_exe() + "\"");
    reg.port(ports[i], "auto", svc.c_str());
    idle.push_back(kt::port_line(ports[i], svc.c_str(), "Auto"));  // ports ascend
  }
  idle.push_back(".");
  auto all_idle = [&] { return (listing = kt::client().command("ls")) == idle; };
  kt::kivd d("-D1");
  ASSERT_TRUE(kt::poll(all_idle)) << testing::PrintToString(listing);

  tally t;
  auto soak = [&](int from, int to) {
    std::vector<std::thread> threads;
    for (int i = 0; i < PORTS; i++)
      threads.emplace_back(cycles, i, ports[i], from, to, per_agent, &t);
    for (auto &th : threads) th.join();
  };
  auto storm = [&](int per_client, unsigned seed) {
    std::vector<std::thread> threads;
    for (int i = 0; i < CLIENTS; i++) threads.emplace_back(storm_client, seed + i, per_client, &t);
    for (auto &th : threads) th.join();
  };
  // Warm-up: one agent of each end kind per port, one session of each client, so that
  // every path has run once. A random "disable" of a port is undone.
  unsigned seed = GetTickCount();
  DWORD t0 = GetTickCount();
  soak(0, END_KINDS);
  storm(SESSION, seed);
  for (int port : ports) kt::client().command("enable " + std::to_string(port));
  ASSERT_TRUE(kt::poll(all_idle)) << testing::PrintToString(listing);
  kt::usage warm, end;
  ASSERT_TRUE(kt::usage_of(d.pid, &warm));
  soak(END_KINDS, agents);
  ASSERT_TRUE(kt::poll(all_idle)) << testing::PrintToString(listing);
  double soaked = (GetTickCount() - t0) / 1000.0;
  storm((lines + CLIENTS - 1) / CLIENTS, seed + 1000);
  double stormed = (GetTickCount() - t0) / 1000.0 - soaked;

  for (auto &f : t.seen) ADD_FAILURE() << f << " (seed " << seed << ")";
  EXPECT_EQ(t.agents.load(), PORTS * (agents + 2));  // each run ends with an agent more
  EXPECT_GE(t.served.load(), n);
  EXPECT_EQ(kt::listed_ports(kt::client().command("ls")).size(), size_t(PORTS));
  ASSERT_EQ(WaitForSingleObject(d.h, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << "kivd ended";
  ASSERT_TRUE(kt::usage_of(d.pid, &end));
  EXPECT_LE(end.handles, warm.handles + 10) << kt::describe(warm, end);
  EXPECT_LE(end.private_bytes, warm.private_bytes + 512 * 1024) << kt::describe(warm, end);
  // The rows of the summary table make soak prints.
  printf(
      "| soak           | %d connections served, %d refused and %d dropped by the rules, "
      "%d agents, %.1f s\n",
      t.served.load(), t.refused.load(), t.dropped.load(), t.agents.load(), soaked);
  printf("| control storm  | %d lines from %d clients, %d hang-ups, %.1f s; %s\n", t.lines.load(),
         CLIENTS, t.hang_ups.load(), stormed, kt::describe(warm, end).c_str());
  fflush(stdout);
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
}

}  // namespace
