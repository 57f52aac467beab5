// The disable and enable commands with the listing, shutdown, and a thousand ports.
#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"

namespace porttest {
namespace {

using Control = Ports;

TEST_F(Control, DisableAndEnableWithTheListing) {
  auto p = free_ports(3);
  std::string held = record_path("held"), on = record_path("on");
  set_service("idle", agent_program(record_path("idle")));
  set_service("held", agent_program(held));
  set_service("on", agent_program(on));
  set_port(p[0], "auto", "idle");
  set_port(p[1], "auto", "held");
  set_port(p[2], "on", "on");
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([&] { return ready(on); }));
  DWORD agent = start_agent_on(p[1], held), on_agent = agents(on)[0];
  std::string forever = disable_of(0x7FFFFFFF);
  EXPECT_EQ(lines({line_of(p[0], "idle", "Auto"),
                   line_of(p[1], "held", "Auto") + " Agent=" + std::to_string(agent),
                   line_of(p[2], "on", "On") + " Agent=" + std::to_string(on_agent)}),
            listing());

  EXPECT_EQ(KIV_EINTERNAL, ssock_callback(wait_list().count));  // past the wait list

  // Idle port: off until enabled, then listening again at once.
  ASSERT_EQ(0, ssock_disable(int(p[0])));
  EXPECT_EQ(line_of(p[0], "idle", "Auto") + forever, listing()[0]);
  EXPECT_EQ(0u, wait_list().events);
  advance(86400 * 365);
  ASSERT_EQ(0, ssock_reconfig());  // a disable by command outlives time and reconfiguration
  EXPECT_EQ(line_of(p[0], "idle", "Auto") + forever, listing()[0]);
  EXPECT_EQ(0u, wait_list().events);
  ASSERT_EQ(0, ssock_enable(int(p[0])));
  EXPECT_EQ(line_of(p[0], "idle", "Auto"), listing()[0]);
  EXPECT_EQ(1u, wait_list().events);

  // Held port: its agent drops it (pipe closed, so it ends); the record stays disabled.
  ASSERT_EQ(0, ssock_disable(int(p[1])));
  ASSERT_TRUE(pump_until([&] { return has_text(held, "#eof", agent); }));
  ASSERT_TRUE(pump_until([&] { return wait_list().pids.size() == 1; }));
  EXPECT_EQ("remove tcp::" + std::to_string(p[1]), pipe_lines(held, agent).back());
  EXPECT_EQ(line_of(p[1], "held", "Auto") + forever, listing()[1]);
  ASSERT_EQ(0, ssock_enable(int(p[1])));
  EXPECT_EQ(2u, wait_list().events);

  // "on" port: no agent while disabled, a new one on enable.
  ASSERT_EQ(0, ssock_disable(int(p[2])));
  ASSERT_TRUE(pump_until([&] { return wait_list().pids.empty(); }));
  EXPECT_EQ(line_of(p[2], "on", "On") + forever, listing()[2]);
  ASSERT_EQ(0, ssock_enable(int(p[2])));
  ASSERT_TRUE(pump_until([&] { return ready(on, 2); }));
}

using Shutdown = Ports;

// Agents that exit in time are not terminated. Nothing is listened on or started during
// shutdown, even a port whose rest ended just before it, and a program it kills is waited
// for like an agent.
TEST_F(Shutdown, AgentsAreToldAndWaitedForAndNothingStarts) {
  auto p = free_ports(5);
  std::string a = record_path("a"), b = record_path("b"), job = record_path("job");
  set_service("a", agent_program(a));
  set_service("b", agent_program(b));
  set_service("svc", "C:\\never\\started.exe");
  set_port(p[0], "auto", "a");
  set_port(p[1], "auto", "a");
  set_port(p[2], "auto", "b");
  set_port(p[3], "auto", "svc");
  set_port(p[4], "auto", "svc");
  set_global("a_dead", "on", "C:\\no\\such\\program.exe");
  set_global("job", "on", agent_program(job));
  SOCKET blocker = kt::listen_on(&p[3]);
  ASSERT_EQ(0, ssock_reconfig());
  closesocket(blocker);
  ASSERT_EQ(1, logged("Failed to listen to port " + std::to_string(p[3])));
  DWORD agent_a = start_agent_on(p[0], a), agent_b = start_agent_on(p[2], b);
  ASSERT_TRUE(pump_until([&] { return !agents(job).empty(); }));
  now += 900;  // the rest is over, and no pass has run since
  logs.clear();
  cleaned_up = true;
  ASSERT_EQ(0, ssock_cleanup());
  EXPECT_EQ(1, logged("Closing the shop"));
  EXPECT_EQ(1, logged("Waiting for 3 children")) << testing::PrintToString(logs);
  EXPECT_EQ(0, logged("timeout"));
  EXPECT_EQ(0, logged("terminated"));
  EXPECT_EQ(0, logged("Listening on port")) << testing::PrintToString(logs);
  EXPECT_EQ(0, logged("started"));
  EXPECT_EQ(1, logged("Prog job/" + std::to_string(agents(job)[0]) + " killed"));
  lines got = pipe_lines(a, agent_a);
  ASSERT_LE(2u, got.size());
  EXPECT_EQ("remove tcp::" + std::to_string(p[0]), got[got.size() - 2]);  // every port but the last
  EXPECT_EQ("exit", got.back());
  EXPECT_EQ("exit", pipe_lines(b, agent_b).back());
}

using Scale = Ports;

// A thousand ports over ten services: the wait list holds exactly one entry per idle
// port and one per agent, and a port far past the 64th entry still reaches its agent.
TEST_F(Scale, ThousandPortsKeepAnExactWaitList) {
  auto p = free_ports(1000);
  ASSERT_EQ(1000u, p.size());
  std::string rec = record_path("many");
  for (int s = 0; s < 10; s++) set_service("k" + std::to_string(s), agent_program(rec));
  for (unsigned i = 0; i < p.size(); i++)
    set_port(p[i], "auto", ("k" + std::to_string(i % 10)).c_str());
  ASSERT_EQ(0, ssock_reconfig());
  EXPECT_EQ(waits(1000), waits());
  EXPECT_EQ(1000u, listing().size());
  DWORD agent = start_agent_on(p[999], rec);
  EXPECT_EQ(102u, pipe_lines(rec, agent).size());  // 100 port lines, "--", "lifespan"
  EXPECT_EQ(waits(900, {agent}), waits());
}

}  // namespace
}  // namespace porttest
