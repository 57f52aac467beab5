// kivd.exe with agents: a connection reaches the agent through the handed-over socket,
// and one kivd serves far more ports and agents than one platform wait takes.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/support.h"

namespace {

std::string record_file() {
  char dir[MAX_PATH];
  GetTempPathA(sizeof dir, dir);
  return std::string(dir) + "kivd_agents_" + std::to_string(GetCurrentProcessId()) + ".txt";
}

// How often text occurs in the file at path (0 when it cannot be read).
int occurrences(const std::string &path, const std::string &text) {
  std::string all;
  if (FILE *f = fopen(path.c_str(), "rb")) {
    char buf[4096];
    for (size_t got; (got = fread(buf, 1, sizeof buf, f)) > 0;) all.append(buf, got);
    fclose(f);
  }
  int n = 0;
  for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) n++;
  return n;
}

std::string agent_program(const std::string &record) {
  return "\"" + kt::testagent_exe() + "\" -F" + record;
}

// Checked from inside an agent: started while kivd holds its log file, listening
// sockets and another agent's pipe, it inherits its own pipe's read end and nothing else.
TEST(Agents, AnAgentInheritsOnlyItsOwnPipe) {
  ASSERT_NE(kt::testagent_exe(), "");
  kt::registry reg;
  std::string record = record_file();
  std::string log = record + ".log";
  std::vector<int> ports = kt::free_ports(3);
  reg.service("first", agent_program(record));
  reg.service("second", agent_program(record));
  reg.port(ports[0], "auto", "first");
  reg.port(ports[1], "auto", "second");
  reg.port(ports[2], "on", "second");  // an agent of its own, and a pipe, before the others
  kt::kivd d("\"-D3;>" + log + "\"");
  std::vector<SOCKET> held;
  for (int i : {0, 1}) {
    SOCKET s = INVALID_SOCKET;
    ASSERT_TRUE(kt::poll([&] { return (s = kt::connect_to(ports[i])) != INVALID_SOCKET; }));
    EXPECT_NE(kt::read_line(s).find(" port " + std::to_string(ports[i])), std::string::npos);
    held.push_back(s);
  }
  ASSERT_TRUE(kt::poll([&] { return occurrences(record, "#handles") >= 3; }));
  EXPECT_EQ(occurrences(record, "#handles listening=0 sockets=0 pipes=0 other=0 own=1"), 3);
  for (SOCKET s : held) closesocket(s);
  d.quit();
  DeleteFileA(record.c_str());
  EXPECT_TRUE(DeleteFileA(log.c_str())) << "the log is still held open";
}

// An agent that reads its pipe late holds the start-up lines of all its ports in the pipe
// meanwhile: kivd writes them and goes on serving, it does not wait for the agent.
TEST(Agents, AnAgentSlowToReadDoesNotStallKivd) {
  ASSERT_NE(kt::testagent_exe(), "");
  kt::registry reg;
  std::string record = record_file();
  std::string gate = record + ".gate";
  DeleteFileA(gate.c_str());
  std::vector<int> ports = kt::free_ports(100);
  reg.service("slow", agent_program(record) + " -W" + gate);
  for (int port : ports) reg.port(port, "auto", "slow");
  kt::kivd d("-D3");
  ASSERT_TRUE(kt::poll([&] { return d.log_count("Listening on port ") >= 100; }, 60000));
  SOCKET s = kt::connect_to(ports[0]);
  ASSERT_NE(s, INVALID_SOCKET);
  ASSERT_TRUE(d.log_has("Child "));
  {
    kt::client c;
    double begin = kt::now_ms();
    std::vector<std::string> ls = c.command("ls");
    printf("[ measured ] ls while the agent of 100 ports has not read its pipe: %.1f ms\n",
           kt::now_ms() - begin);
    ASSERT_EQ(ls.size(), 102u);
    int held = 0;
    for (auto &line : ls) held += line.find(" Agent=") != std::string::npos;
    EXPECT_EQ(held, 100);
  }
  CloseHandle(CreateFileA(gate.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  EXPECT_NE(kt::read_line(s, 30000).find(" port " + std::to_string(ports[0])), std::string::npos);
  closesocket(s);
  d.quit();
  DeleteFileA(gate.c_str());
  DeleteFileA(record.c_str());
}

// The listing lines of port, between "!" and ".".
std::vector<std::string> lines_of(kt::client &c, int port) {
  std::vector<std::string> out;
  std::string key = kt::port_line(port, "", "").substr(0, 7);
  for (auto &line : c.command("ls"))
    if (line.compare(0, 7, key) == 0) out.push_back(line);
  return out;
}

// A port is served by an agent (the test agent greets with its port) within ms.
bool served(int port, int ms = 10000) {
  SOCKET s = INVALID_SOCKET;
  bool ok = kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; }, ms) &&
            kt::read_line(s, ms).find(" port " + std::to_string(port)) != std::string::npos;
  if (s != INVALID_SOCKET) closesocket(s);
  return ok;
}

// A record replaced while it rests or while its agent still runs never comes back beside
// its successor: each port is listed once and served. (A removed record that rests is
// freed by the pass whatever its disable: ports_unit_test.cpp, PassRemovals.)
TEST(Agents, AReplacedRecordNeverComesBack) {
  ASSERT_NE(kt::testagent_exe(), "");
  kt::registry reg;
  std::string record = record_file();
  std::vector<int> ports = kt::free_ports(2);
  int resting = ports[0], held = ports[1];
  reg.service("one", agent_program(record));
  reg.service("two", agent_program(record));
  reg.service("stays", agent_program(record) + " -I");  // outlives its closed pipe
  reg.port(resting, "auto", "one");
  reg.port(held, "auto", "stays");
  kt::kivd d("-D3");
  kt::client c;
  ASSERT_TRUE(kt::poll([&] { return d.log_count("Listening on port ") >= 2; }));
  // A service changed while the port rests after its agent crashed: the new record is
  // listened on at once, the timed rest is not its own.
  SOCKET s = kt::connect_to(resting);
  ASSERT_NE(kt::read_line(s), "");
  send(s, "crash\n", 6, 0);
  closesocket(s);
  ASSERT_TRUE(d.log_has("Port " + std::to_string(resting) + " disabled for 3 seconds"));
  reg.port(resting, "auto", "two");
  ASSERT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  auto now = lines_of(c, resting);
  ASSERT_EQ(now.size(), 1u) << testing::PrintToString(now);
  EXPECT_EQ(now[0].find(" Disable="), std::string::npos) << now[0];
  EXPECT_TRUE(served(resting));

  // Disabled while its agent runs, then a reconfiguration before that agent ends: the
  // disable holds, and the port is one record once the agent has gone.
  s = kt::connect_to(held);
  unsigned pid = 0;
  ASSERT_EQ(sscanf(kt::read_line(s).c_str(), "agent %u", &pid), 1);
  ASSERT_EQ(c.command("disable " + std::to_string(held)), std::vector<std::string>{"+"});
  ASSERT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
  send(s, "exit 0\n", 7, 0);
  closesocket(s);
  ASSERT_TRUE(d.log_has("Child " + std::to_string(pid) + " died with code 0"));
  now = lines_of(c, held);
  ASSERT_EQ(now.size(), 1u) << testing::PrintToString(now);
  EXPECT_NE(now[0].find(" Disable=2038-"), std::string::npos) << now[0];
  EXPECT_EQ(now[0].find(" Agent="), std::string::npos) << now[0];
  ASSERT_EQ(c.command("enable " + std::to_string(held)), std::vector<std::string>{"+"});
  EXPECT_TRUE(served(held));
  d.quit();
  DeleteFileA(record.c_str());
}

// 150 ports of 150 services: 150 socket events, then 150 agent processes in the wait,
// plus die and the pipe's four events.
TEST(Agents, MoreThanSixtyFourHandles) {
  ASSERT_NE(kt::testagent_exe(), "");
  constexpr int N = 150;
  kt::registry reg;
  std::string record = record_file();
  std::vector<int> ports = kt::free_ports(N);
  for (int i = 0; i < N; i++) {
    int port = ports[i];
    std::string svc = "svc" + std::to_string(i);
    reg.service(svc.c_str(), agent_program(record));
    reg.port(port, "auto", svc.c_str());
  }
  kt::kivd d("-D3");
  ASSERT_TRUE(kt::poll([&] { return d.log_count("Listening on port ") >= N; }, 60000));

  std::vector<SOCKET> conns;
  for (int port : ports) {
    // A launch the system refuses under this load leaves the port off for 3 seconds and
    // drops the connection; the port must serve the next one.
    std::string hello;
    SOCKET s = INVALID_SOCKET;
    for (int attempt = 0; attempt < 3 && hello.empty(); attempt++) {
      if (s != INVALID_SOCKET) closesocket(s);
      kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; }, 10000);
      hello = kt::read_line(s, 30000);
    }
    EXPECT_NE(hello.find(" port " + std::to_string(port)), std::string::npos)
        << port << ": [" << hello << "]";
    conns.push_back(s);
  }
  {
    kt::client c;
    auto ls = c.command("ls");
    int with_agent = 0;
    for (auto &line : ls) with_agent += line.find(" Agent=") != std::string::npos;
    EXPECT_EQ(with_agent, N);
  }
  // Every agent ends with 0; kivd must see each end and listen on its port again.
  for (SOCKET s : conns) {
    send(s, "exit 0\n", 7, 0);
    closesocket(s);
  }
  for (int port : ports)
    EXPECT_TRUE(d.log_has("Listening on port " + std::to_string(port) + " again", 30000)) << port;
  // And the ports are served again, the last ones of the wait list included.
  for (int i : {0, 1, 63, 64, 127, N - 2, N - 1}) EXPECT_TRUE(served(ports[i], 30000)) << ports[i];
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
  DeleteFileA(record.c_str());
}

}  // namespace
