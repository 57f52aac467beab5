// The faults of a running kivd.exe that the port manager's own tests (tests/ports) and
// the service tests (tests/service) do not already drive: its configuration vanishing
// under it, and kivd itself killed while agents hold its ports.
#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace {

const char ROOT[] = "SOFTWARE\\Orvane\\Agents";

// The first line of a connection to port, "" when refused or silent.
std::string hello_on(int port) {
  SOCKET s = kt::connect_to(port);
  if (s == INVALID_SOCKET) return "";
  std::string line = kt::read_line(s);
  closesocket(s);
  return line;
}

unsigned agent_of(const std::string &line) {
  size_t at = line.find(" Agent=");
  return at == std::string::npos ? 0 : unsigned(atoi(line.c_str() + at + 7));
}

TEST(Faults, RegistryRootDeletedWhileRunningThenReconfig) {
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(2);
  std::sort(ports.begin(), ports.end());
  reg.service("held", "\"" + kt::testagent_exe() + "\"");
  reg.service("idle", "\"" + kt::testagent_exe() + "\"");
  reg.port(ports[0], "auto", "held");
  reg.port(ports[1], "auto", "idle");
  kt::kivd d("-D3");
  ASSERT_TRUE(d.log_has("Listening on port " + std::to_string(ports[1])));
  unsigned pid = 0;
  ASSERT_EQ(sscanf(hello_on(ports[0]).c_str(), "agent %u", &pid), 1);
  HANDLE agent = OpenProcess(SYNCHRONIZE, FALSE, pid);
  ASSERT_NE(agent, nullptr);

  ASSERT_EQ(RegDeleteTreeA(HKEY_LOCAL_MACHINE, ROOT), ERROR_SUCCESS);
  kt::client c;
  // Nothing read yet: the running configuration stands until it is asked to change.
  EXPECT_EQ(kt::listed_ports(c.command("ls")).size(), 2u);
  EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  // No ".tcp" to walk: every port goes, the held one once its agent has been told and ended.
  EXPECT_EQ(WaitForSingleObject(agent, 20000), WAIT_OBJECT_0) << "the agent of a removed port ends";
  CloseHandle(agent);
  EXPECT_TRUE(kt::poll([&] { return kt::listed_ports(c.command("ls")).empty(); }));
  EXPECT_EQ(kt::connect_to(ports[0]), INVALID_SOCKET);
  EXPECT_EQ(kt::connect_to(ports[1]), INVALID_SOCKET);

  // Written again, the configuration is served again.
  reg.service("idle", "\"" + kt::testagent_exe() + "\"");
  reg.port(ports[1], "auto", "idle");
  EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  EXPECT_TRUE(kt::poll([&] {
    return hello_on(ports[1]).find(" port " + std::to_string(ports[1])) != std::string::npos;
  }));
  EXPECT_EQ(WaitForSingleObject(d.h, 0), WAIT_TIMEOUT);
}

// kivd killed: every agent it started ends with it, the one that ignores a broken pipe
// (the test agent with -I) included, so a new kivd binds and serves every port at once.
TEST(Faults, KivdKilledWhileAgentsHoldPorts) {
  std::string echo = kt::build_dir() + "\\agent\\echo-agent.exe";
  ASSERT_NE(GetFileAttributesA(echo.c_str()), INVALID_FILE_ATTRIBUTES) << echo;
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(4);
  std::sort(ports.begin(), ports.end());
  const char *modes[] = {"auto", "auto", "on"};
  for (int i = 0; i < 3; i++) {
    std::string svc = "echo" + std::to_string(i);
    reg.service(svc.c_str(), "\"" + echo + "\"");
    reg.port(ports[i], modes[i], svc.c_str());
  }
  reg.service("stray", "\"" + kt::testagent_exe() + "\" -I");
  reg.port(ports[3], "auto", "stray");

  std::vector<HANDLE> agents;
  {
    kt::kivd d("-D3");
    for (int i = 0; i < 3; i++)
      ASSERT_TRUE(kt::poll([&] { return kt::echoes(ports[i]); })) << ports[i];
    ASSERT_NE(hello_on(ports[3]).find("agent "), std::string::npos);
    kt::client c;
    for (auto &line : kt::listed_ports(c.command("ls")))
      if (unsigned pid = agent_of(line)) agents.push_back(OpenProcess(SYNCHRONIZE, FALSE, pid));
    ASSERT_EQ(agents.size(), 4u);
    c.close();
    ASSERT_TRUE(TerminateProcess(d.h, 9));
    ASSERT_TRUE(d.wait(10000));
  }
  for (HANDLE a : agents) {
    EXPECT_EQ(WaitForSingleObject(a, 20000), WAIT_OBJECT_0) << "an agent outlived kivd";
    CloseHandle(a);
  }

  kt::kivd d("-D3");
  for (int i = 0; i < 3; i++)
    EXPECT_TRUE(kt::poll([&] { return kt::echoes(ports[i]); })) << ports[i];
  EXPECT_NE(hello_on(ports[3]).find("agent "), std::string::npos);
  EXPECT_EQ(d.log_count("Failed to listen"), 0) << d.err();
}

}  // namespace
