// kivd.exe with agents: a connection reaches the agent through the handed-over socket,
// and one kivd serves far more ports and agents than one platform wait takes.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/support.h"

namespace {

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

// How many lines of the listing hold `text` and have an agent.
int with_agent(kt::client &c, const std::string &text) {
  int n = 0;
  for (auto &line : c.command("ls"))
    n += line.find(text) != std::string::npos && line.find(" Agent=") != std::string::npos;
  return n;
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

// One kivd, its log in a file, with 150 ports of 150 services (150 socket events, then
// 150 agent processes in the wait, plus die and the pipe's four events), 100 ports of one
// agent slow to read its pipe, and a few services whose records are replaced. Every agent
// (the test agent, recording to one file) inherits its own pipe's read end and nothing
// else of kivd's: its log file, listening sockets, other agents' pipes.
TEST(Agents, OneKivdOfTwoHundredAgentPorts) {
  ASSERT_NE(kt::testagent_exe(), "");
  constexpr int N = 150, SLOW = 100;
  kt::registry reg;
  char dir[MAX_PATH];
  GetTempPathA(sizeof dir, dir);
  std::string record =
      std::string(dir) + "kivd_agents_" + std::to_string(GetCurrentProcessId()) + ".txt";
  std::string log = record + ".log", gate = record + ".gate";
  std::string agent = "\"" + kt::testagent_exe() + "\" -F" + record;
  DeleteFileA(gate.c_str());
  std::vector<int> ports = kt::free_ports(N + SLOW + 5);
  std::vector<int> many(ports.begin(), ports.begin() + N);
  std::vector<int> slow(ports.begin() + N, ports.begin() + N + SLOW);
  int first = ports[N + SLOW], second = ports[N + SLOW + 1], resting = ports[N + SLOW + 3],
      held = ports[N + SLOW + 4];
  for (int i = 0; i < N; i++) {
    std::string svc = "svc" + std::to_string(i);
    reg.service(svc.c_str(), agent);
    reg.port(many[i], "auto", svc.c_str());
  }
  reg.service("slow", agent + " -W" + gate);
  for (int port : slow) reg.port(port, "auto", "slow");
  reg.service("first", agent);
  reg.service("second", agent);
  reg.port(first, "auto", "first");
  reg.port(second, "auto", "second");
  reg.port(ports[N + SLOW + 2], "on", "second");  // an agent of its own, and a pipe, first
  reg.service("one", agent);
  reg.service("two", agent);
  reg.service("stays", agent + " -I");  // outlives its closed pipe
  reg.port(resting, "auto", "one");
  reg.port(held, "auto", "stays");
  kt::kivd d("\"-D3;>" + log + "\"");
  auto logged = [&](const std::string &text, int ms = 20000) {
    return kt::poll([&] { return occurrences(log, text) > 0; }, ms);
  };
  ASSERT_TRUE(
      kt::poll([&] { return occurrences(log, "Listening on port ") >= N + SLOW + 4; }, 60000));
  const std::string clean = "#handles listening=0 sockets=0 pipes=0 other=0 own=1";
  {
    SCOPED_TRACE("agents started while kivd holds its log, sockets and another agent's pipe");
    for (int port : {first, second}) {
      SOCKET s = INVALID_SOCKET;
      ASSERT_TRUE(kt::poll([&] { return (s = kt::connect_to(port)) != INVALID_SOCKET; }));
      EXPECT_NE(kt::read_line(s).find(" port " + std::to_string(port)), std::string::npos);
      closesocket(s);
    }
    ASSERT_TRUE(kt::poll([&] { return occurrences(record, "#handles") >= 3; }));
    EXPECT_EQ(occurrences(record, clean), 3);
  }
  kt::client c;
  {
    // It holds the start-up lines of all its ports in the pipe meanwhile: kivd writes them
    // and goes on serving, it does not wait for the agent.
    SCOPED_TRACE("an agent slow to read its pipe does not stall kivd");
    SOCKET s = kt::connect_to(slow[0]);
    ASSERT_NE(s, INVALID_SOCKET);
    ASSERT_TRUE(logged(" started for port " + std::to_string(slow[0])));
    EXPECT_EQ(with_agent(c, " slow "), SLOW);
    CloseHandle(CreateFileA(gate.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    EXPECT_NE(kt::read_line(s, 30000).find(" port " + std::to_string(slow[0])), std::string::npos);
    closesocket(s);
  }
  {
    // Each port is listed once and served. (A removed record that rests is freed by the
    // pass whatever its disable: ports_unit_test.cpp, PassRemovals.)
    SCOPED_TRACE("a record replaced while it rests never comes back beside its successor");
    // The service changed while the port rests after its agent crashed: the new record is
    // listened on at once, the timed rest is not its own.
    SOCKET s = kt::connect_to(resting);
    ASSERT_NE(kt::read_line(s), "");
    send(s, "crash\n", 6, 0);
    closesocket(s);
    ASSERT_TRUE(logged("Port " + std::to_string(resting) + " disabled for 3 seconds"));
    reg.port(resting, "auto", "two");
    ASSERT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
    auto now = lines_of(c, resting);
    ASSERT_EQ(now.size(), 1u) << testing::PrintToString(now);
    EXPECT_EQ(now[0].find(" Disable="), std::string::npos) << now[0];
    EXPECT_TRUE(served(resting));
  }
  {
    // The disable holds, and the port is one record once the agent has gone.
    SCOPED_TRACE("disabled while its agent runs, then a reconfiguration before it ends");
    SOCKET s = kt::connect_to(held);
    unsigned pid = 0;
    ASSERT_EQ(sscanf(kt::read_line(s).c_str(), "agent %u", &pid), 1);
    ASSERT_EQ(c.command("disable " + std::to_string(held)), std::vector<std::string>{"+"});
    ASSERT_EQ(c.command("reconfig"), std::vector<std::string>{"+"});
    send(s, "exit 0\n", 7, 0);
    closesocket(s);
    ASSERT_TRUE(logged("Child " + std::to_string(pid) + " died with code 0"));
    auto now = lines_of(c, held);
    ASSERT_EQ(now.size(), 1u) << testing::PrintToString(now);
    EXPECT_NE(now[0].find(" Disable=2038-"), std::string::npos) << now[0];
    EXPECT_EQ(now[0].find(" Agent="), std::string::npos) << now[0];
    ASSERT_EQ(c.command("enable " + std::to_string(held)), std::vector<std::string>{"+"});
    EXPECT_TRUE(served(held));
  }
  {
    SCOPED_TRACE("more than sixty-four handles");
    std::vector<SOCKET> conns;
    for (int port : many) {
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
    EXPECT_EQ(with_agent(c, " svc"), N);
    // Every agent ends with 0; kivd must see each end and listen on its port again.
    for (SOCKET s : conns) {
      send(s, "exit 0\n", 7, 0);
      closesocket(s);
    }
    for (int port : many)
      EXPECT_TRUE(logged("Listening on port " + std::to_string(port) + " again", 30000)) << port;
    // And the ports are served again, the last ones of the wait list included.
    for (int i : {0, 1, 63, 64, 127, N - 2, N - 1}) EXPECT_TRUE(served(many[i], 30000)) << many[i];
  }
  c.close();
  d.quit();
  EXPECT_EQ(d.exit_code(), 0u);
  EXPECT_EQ(occurrences(record, clean), occurrences(record, "#handles"));
  EXPECT_TRUE(DeleteFileA(log.c_str())) << "the log is still held open";
  DeleteFileA(gate.c_str());
  DeleteFileA(record.c_str());
}

}  // namespace
