// The faults of a running kivd.exe that the port manager's own tests (tests/ports) and
// the service tests (tests/service) do not already drive: kivd itself killed while agents
// hold its ports, and its configuration vanishing under it.
#include <gtest/gtest.h>

#include "tests/support/support.h"

namespace {

// The first line of a connection to port, "" when refused or silent.
std::string hello_on(int port) {
  SOCKET s = kt::connect_to(port);
  if (s == INVALID_SOCKET) return "";
  std::string line = kt::read_line(s);
  closesocket(s);
  return line;
}

// The agents kivd lists, opened for their end.
std::vector<HANDLE> listed_agents() {
  std::vector<HANDLE> agents;
  kt::client c;
  for (auto &line : kt::listed_ports(c.command("ls"))) {
    size_t at = line.find(" Agent=");
    if (at != std::string::npos)
      agents.push_back(OpenProcess(SYNCHRONIZE, FALSE, atoi(line.c_str() + at + 7)));
  }
  return agents;
}

// Every agent of the list ends within 20 s.
void expect_ended(const std::vector<HANDLE> &agents, const char *what) {
  for (HANDLE a : agents) {
    EXPECT_EQ(WaitForSingleObject(a, 20000), WAIT_OBJECT_0) << what;
    CloseHandle(a);
  }
}

// Three echo agents (two "auto" ports and an "on" one), and after the first step one that
// ignores a broken pipe (the test agent with -I).
TEST(Faults, RegistryRootDeletedThenKivdKilledWhileAgentsHoldPorts) {
  std::string echo = kt::build_dir() + "\\agent\\echo-agent.exe";
  ASSERT_NE(GetFileAttributesA(echo.c_str()), INVALID_FILE_ATTRIBUTES) << echo;
  kt::registry reg;
  std::vector<int> ports = kt::free_ports(4);
  auto configure = [&](bool stray) {
    const char *modes[] = {"auto", "auto", "on"};
    for (int i = 0; i < 3; i++) {
      std::string svc = "echo" + std::to_string(i);
      reg.service(svc.c_str(), "\"" + echo + "\"");
      reg.port(ports[i], modes[i], svc.c_str());
    }
    if (!stray) return;
    reg.service("stray", "\"" + kt::testagent_exe() + "\" -I");
    reg.port(ports[3], "auto", "stray");
  };
  auto expect_serving = [&] {
    for (int i = 0; i < 3; i++)
      EXPECT_TRUE(kt::poll([&] { return kt::echoes(ports[i]); })) << ports[i];
    EXPECT_NE(hello_on(ports[3]).find("agent "), std::string::npos);
  };
  configure(false);
  {
    kt::kivd d("-D3");
    kt::client c;
    {
      SCOPED_TRACE("the registry root deleted while kivd runs, then reconfig");
      for (int i : {0, 2})
        ASSERT_TRUE(kt::poll([&] { return kt::echoes(ports[i]); }));  // ports[1] idle
      std::vector<HANDLE> agents = listed_agents();
      ASSERT_EQ(RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Orvane\\Agents"), ERROR_SUCCESS);
      // Nothing read yet: the running configuration stands until it is asked to change.
      EXPECT_EQ(kt::listed_ports(c.command("ls")).size(), 3u);
      EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
      // No ".tcp" to walk: every port goes, a held one once its agent has been told and ended.
      expect_ended(agents, "the agent of a removed port ends");
      EXPECT_TRUE(kt::poll([&] { return kt::listed_ports(c.command("ls")).empty(); }));
      for (int port : ports) EXPECT_EQ(kt::connect_to(port), INVALID_SOCKET) << port;
    }
    // Written again, the configuration is served again.
    configure(true);
    EXPECT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
    expect_serving();
    c.close();
    // Every agent it started ends with it, the one that ignores a broken pipe included, so
    // a new kivd binds and serves every port at once.
    SCOPED_TRACE("kivd killed while agents hold its ports");
    std::vector<HANDLE> agents = listed_agents();
    ASSERT_EQ(agents.size(), 4u);
    ASSERT_TRUE(TerminateProcess(d.h, 9));
    ASSERT_TRUE(d.wait(10000));
    expect_ended(agents, "an agent outlived kivd");
  }
  kt::kivd d("-D3");
  expect_serving();
  EXPECT_EQ(d.log_count("Failed to listen"), 0) << d.err();
}

}  // namespace
