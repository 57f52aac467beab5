// A connection's road from the listening port to the agent, "on" ports, and what the end
// of an agent does to its ports.
#include "ports/ssock.h"
#include "tests/support/ports.h"
#include "toolkit/runtime/error.h"

namespace porttest {
namespace {

using Road = Ports;

// One connection starts one agent for every idle port of its service; what the agent's
// end does to them depends on its exit code (an exception's rest: OnPort... below).
TEST_F(Road, ConnectionStartsOneAgentWithEveryIdlePortOfItsServiceUntilItEnds) {
  std::string rec = record_path("road");
  std::string program = agent_program(rec);
  auto p = svc_ports(3, "auto", program);
  ASSERT_EQ(0, ssock_reconfig());

  EXPECT_EQ(waits(3), waits());
  EXPECT_EQ(now + 86400, wait_list().due);
  lines idle = {line_of(p[0], "svc", "Auto"), line_of(p[1], "svc", "Auto"),
                line_of(p[2], "svc", "Auto")};
  EXPECT_EQ(idle, listing());

  // The middle port has the connection: it comes first, then the others in port order.
  SOCKET client = connect_to(p[1]);
  ASSERT_TRUE(pump_until([&] { return ready(rec, 1); })) << testing::PrintToString(texts(rec));
  auto pids = agents(rec);
  ASSERT_EQ(1u, pids.size());
  DWORD pid = pids[0];
  EXPECT_EQ(
      lines({handover_of(p[1]), handover_of(p[0]), handover_of(p[2]), "--", "lifespan 86400"}),
      pipe_lines(rec, pid));
  for (unsigned port : {p[1], p[0], p[2]})
    EXPECT_TRUE(has_text(rec, "#socket " + std::to_string(port) + " ok", pid)) << port;

  // Program text, the manager's debug spec, then the inherited read end of the pipe.
  EXPECT_EQ(program + " -D3", launch_line(rec, pid));

  // The agent accepts the waiting connection on its own copy of the socket.
  EXPECT_EQ("agent " + std::to_string(pid) + " port " + std::to_string(p[1]), read_line(client));

  EXPECT_EQ(waits(0, {pid}), waits());
  std::string agent = " Agent=" + std::to_string(pid);
  EXPECT_EQ(lines({line_of(p[0], "svc", "Auto") + agent, line_of(p[1], "svc", "Auto") + agent,
                   line_of(p[2], "svc", "Auto") + agent}),
            listing());
  EXPECT_EQ(1, logged("Child " + std::to_string(pid) + " started for port " + std::to_string(p[1]) +
                      " [svc, Auto]"));

  struct {
    const char *request;     // sent to the agent by the client
    const char *died;        // the manager's log of the exit
    const char *listen_log;  // how each port listens again ("%u" is the port)
    int listen_count;        // how often that line appears per port by then
    unsigned next;           // the port the next connection comes to
  } ends[] = {
      {"exit 0", "died with code 0", "Listening on port %u again", 1, p[2]},
      {"exit 3", "died with code 0x3", "Listening on port %u for svc", 2, p[0]},
  };
  for (auto &e : ends) {
    SCOPED_TRACE(e.request);
    send_text(client, e.request);
    closesocket(client);
    ASSERT_TRUE(pump_until([&] { return logged("Child " + std::to_string(pid) + " died") == 1; }));
    EXPECT_EQ(1, logged(e.died));
    EXPECT_EQ(0, logged("Link count"));
    EXPECT_EQ(waits(3), waits());
    EXPECT_EQ(idle, listing());
    for (unsigned port : p) {
      char text[64];
      snprintf(text, sizeof text, e.listen_log, port);
      EXPECT_EQ(e.listen_count, logged(text)) << text;
    }
    // Listening for real: the next connection, on another port, starts a new agent.
    DWORD next = start_agent_on(e.next, rec, &client);
    EXPECT_NE(pid, next);
    pid = next;
  }
  closesocket(client);
}

TEST_F(Road, OnPortKeepsOneAgentThatListensByItself) {
  unsigned port = free_ports(1)[0];
  std::string rec = record_path("on");
  // A dotted, mixed-case service name: its keys are found under "On_Svc", in any case.
  set_service("On_Svc", agent_program(rec), "77");
  set_port(port, "on", "On.Svc");
  ASSERT_EQ(0, ssock_reconfig());
  ASSERT_TRUE(pump_until([&] { return ready(rec, 1); }));
  DWORD first = agents(rec)[0];
  std::string number = std::to_string(port);
  EXPECT_EQ(lines({"-Ptcp::" + number, "--", "lifespan 77"}), pipe_lines(rec, first));
  EXPECT_TRUE(has_text(rec, "#listen " + number + " ok", first));
  EXPECT_EQ(waits(0, {first}), waits());
  EXPECT_EQ(lines({line_of(port, "On.Svc", "On") + " Agent=" + std::to_string(first)}), listing());

  // A non-zero exit: the pass starts the next agent at once.
  SOCKET client = connect_to(port);
  EXPECT_EQ("agent " + std::to_string(first) + " port " + number, read_line(client));
  send_text(client, "exit 3");
  closesocket(client);
  ASSERT_TRUE(pump_until([&] { return ready(rec, 2); }));
  DWORD second = agents(rec).back();
  EXPECT_NE(first, second);

  // An exception: no agent for 3 seconds.
  client = connect_to(port);
  EXPECT_EQ("agent " + std::to_string(second) + " port " + number, read_line(client));
  send_text(client, "crash");
  closesocket(client);
  ASSERT_TRUE(pump_until(
      [&] { return logged("Child " + std::to_string(second) + " caused exeption") == 1; }));
  expect_rest({port}, "On.Svc", "On", now + 3);
  advance(2);
  EXPECT_EQ(2u, agents(rec).size());
  advance(1);
  ASSERT_TRUE(pump_until([&] { return ready(rec, 3); }));
  EXPECT_EQ(1u, wait_list().pids.size());
}

// The echo agent (the real agent library) behind the manager: it reads the manager's own
// lines, serves both ports of its service, and ends with 0 when shutdown says "exit". An
// agent that ignores "exit" is terminated after 5 s, the one real wait of the suite.
TEST_F(Road, TheEchoAgentServesEveryPortOfItsServiceAndExitsOnShutdown) {
  auto p = free_ports(3);
  std::string rec = record_path("stubborn");
  set_service("echo", "\"" + kt::echo_agent_exe() + "\"");
  set_service("stubborn", agent_program(rec, "-I"));
  set_port(p[0], "auto", "echo");
  set_port(p[1], "auto", "echo");
  set_port(p[2], "auto", "stubborn");
  ASSERT_EQ(0, ssock_reconfig());
  SOCKET first = connect_to(p[1]);
  ASSERT_TRUE(pump_until([] { return wait_list().pids.size() == 1; }));
  HANDLE agent = open_process(wait_list().pids[0]);
  EXPECT_TRUE(kt::echoes(first, "first\n"));
  SOCKET second = connect_to(p[0]);
  EXPECT_TRUE(kt::echoes(second, "second\n"));
  EXPECT_TRUE(kt::echoes(first, "first again\n"));
  closesocket(first);
  closesocket(second);
  DWORD stubborn = start_agent_on(p[2], rec);
  HANDLE process = open_process(stubborn);
  cleaned_up = true;
  ASSERT_EQ(0, ssock_cleanup());
  EXPECT_EQ(0u, exit_code(agent));
  EXPECT_EQ(1, logged("timeout"));
  EXPECT_EQ(1, logged("Process " + std::to_string(stubborn) + " terminated"));
  EXPECT_TRUE(has_text(rec, "#ignored", stubborn));
  EXPECT_EQ(1u, exit_code(process));  // terminated
}

}  // namespace
}  // namespace porttest
