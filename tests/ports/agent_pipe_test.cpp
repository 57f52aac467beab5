// An agent's pipe through kivd.exe: an agent that stops reading it can neither stall
// kivd's loop nor keep a port it can no longer be told to drop.
#include <windows.h>

#include "ports/internal.h"
#include "tests/support/ports.h"

namespace porttest {
namespace {

using AgentPipe = Ports;

bool listed_with(kt::client &c, const std::string &text) {
  for (const std::string &line : kt::listed_ports(c.command("ls")))
    if (line.find(text) != std::string::npos) return true;
  return false;
}

// The agent reads its start-up and nothing more. Reconfigurations that tell it nothing
// it must know overfill its pipe: their notices are dropped and kivd answers on, the
// agent keeping its port. The removal of the port, which it must hear, does not fit
// either: kivd ends the agent rather than leave it serving a port it no longer has.
TEST_F(AgentPipe, AnAgentThatNeverReadsCannotStallKivd) {
  // A one-port agent's pipe holds about 5.6 KB beyond its start-up: 10 bytes a notice.
  constexpr int RECONFIGS = 700;
  kt::registry reg;
  int port = kt::free_port();
  std::string record = record_path("deaf");
  reg.service("deaf", agent_program(record, "-N"));
  reg.port(port, "on", "deaf");
  kt::kivd d("-D3");
  ASSERT_TRUE(kt::poll([&] { return ready(record); }));
  DWORD agent = agents(record).at(0);
  HANDLE process = open_process(agent);
  kt::client c;
  std::string held = kt::port_line(port, "deaf", "On");
  ASSERT_TRUE(listed_with(c, " Agent=" + std::to_string(agent)));
  for (int i = 0; i < RECONFIGS; i++)
    ASSERT_EQ(std::vector<std::string>{"+"}, c.command("reconfig")) << "reconfiguration " << i;
  EXPECT_GT(d.log_count("reconfig notice dropped"), 0) << "the pipe was never full";
  EXPECT_TRUE(listed_with(c, held)) << "kivd answers; the agent keeps its port";
  EXPECT_TRUE(listed_with(c, " Agent=" + std::to_string(agent)));

  remove_key("tcp\\s" + std::to_string(port));
  EXPECT_EQ(std::vector<std::string>{"+"}, c.command("reconfig"));
  EXPECT_TRUE(kt::poll([&] { return kt::listed_ports(c.command("ls")).empty(); }));
  EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(process, 0)) << "its end let the port go";
  CloseHandle(process);
  EXPECT_EQ(1, d.log_count("Agent " + std::to_string(agent) + " does not read its pipe"));
}

// At the pipe itself: notices fill it with whole lines and are dropped once it is full,
// and written again once the agent has read; a command the agent must get that the full
// pipe cannot take ends the agent at once.
TEST_F(AgentPipe, FullPipeDropsNoticesAndEndsAnAgentThatMustHear) {
  HANDLE read = nullptr, write = nullptr;
  ASSERT_TRUE(agent_pipe(&read, &write, 100));
  kt::process agent("\"" + kt::testagent_exe() + "\"");  // without a pipe: lives until ended
  child_record c = {};
  c.pid = agent.pid;
  c.process = agent.h;
  c.pipe = write;
  for (int i = 0; i < 100000 && logged("reconfig notice dropped") == 0; i++) send_reconfig(&c);
  ASSERT_EQ(1, logged("reconfig notice dropped"));
  DWORD queued = 0;
  ASSERT_TRUE(PeekNamedPipe(read, nullptr, 0, nullptr, &queued, nullptr));
  std::string got(queued, '\0'), whole;
  DWORD n = 0;
  ASSERT_TRUE(ReadFile(read, &got[0], queued, &n, nullptr));
  while (whole.size() < n) whole += "reconfig\r\n";
  EXPECT_EQ(whole, got) << "whole lines only";
  send_reconfig(&c);
  EXPECT_EQ(1, logged("reconfig notice dropped")) << "read: room again";
  for (int i = 0; i < 100000 && logged("reconfig notice dropped") == 1; i++) send_reconfig(&c);
  EXPECT_FALSE(agent.wait(0));
  sendcmd(&c, "exit");
  EXPECT_TRUE(agent.wait(20000));
  EXPECT_EQ(1u, agent.exit_code());
  EXPECT_EQ(1, logged("Agent " + std::to_string(agent.pid) + " does not read its pipe: ended"));
  CloseHandle(write);
  CloseHandle(read);
}

}  // namespace
}  // namespace porttest
