// kivd.exe starting each service's agents as the account the registry names, in a job with
// its limits: the test agent reports its token and job from inside itself to a client of
// its port. A refused account or limit is logged and its port rests; a killed kivd ends
// the agents of every account. Under Wine a service logon gives no token, so LocalService
// and NetworkService start nothing there (they are tested through the launcher in
// tests/ports_account); Wine keeps the restricted token's integrity, reads no job limit
// back and rejects a cpu rate.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/support.h"
#include "tests/testagent/report.h"

namespace {

const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;

TEST(Accounts, EachServiceRunsAsItsAccountInItsJob) {
  std::vector<std::string> own = self_report();
  struct row {
    const char *service;
    std::vector<std::pair<const char *, const char *>> values;  // account and limits
    std::string listed;              // what the listing line shows after the mode
    std::string refusal;             // kivd's error: nothing starts, the port is not listed
    std::string admins, privileges;  // the agent's report lines, "" for kivd's own
    unsigned memory, processes, cpu = 0;
  } rows[] = {
      {"plain", {}, "", "", "", "", 0, 0},
      {"filtered",
       {{"account", "Restricted"}, {"memory", "128"}, {"processes", "5"}},
       " Account=restricted Memory=128 Processes=5",
       "",
       "admins 0x19",
       "privileges SeChangeNotifyPrivilege",
       128,
       5},
      // A limit shows on its own, without the ones before it.
      {"capped", {{"cpu", "50"}}, " Cpu=50", "", "", "", 0, 0, 50},
      {"nobody", {{"account", "admin"}}, "", "Bad account admin of service nobody", "", "", 0, 0},
      {"greedy",
       {{"account", "restricted"}, {"cpu", "101"}},
       "",
       "Bad cpu 101 of service greedy",
       "",
       "",
       0,
       0},
  };
  kt::registry reg;
  const size_t n = sizeof rows / sizeof rows[0];
  std::vector<int> ports = kt::free_ports(static_cast<int>(n));
  // -I: the agent ignores the end of its pipe, so only its job can end it with kivd.
  std::string agent = "\"" + kt::testagent_exe() + "\" -R -I";
  for (size_t i = 0; i < n; i++) {
    reg.auto_ports(rows[i].service, agent, {ports[i]});
    for (const auto &v : rows[i].values)
      reg.set(std::string("services\\") + rows[i].service, v.first, v.second);
  }
  // A global program refused alike would record its start in the file.
  std::string started = kt::build_dir() + "\\accounts_prog.txt";
  DeleteFileA(started.c_str());
  reg.set("global\\start\\g", "start", "on");
  reg.set("global\\start\\g", "program", "\"" + kt::testagent_exe() + "\" -F" + started);
  reg.set("global\\start\\g", "memory", "0");
  // One with the largest memory limit starts, and reports its job to a port of the test's.
  unsigned report_port = 0;
  SOCKET listener = kt::listen_on(&report_port);
  ASSERT_NE(listener, INVALID_SOCKET);
  reg.set("global\\start\\big", "start", "on");
  reg.set("global\\start\\big", "program",
          "\"" + kt::testagent_exe() + "\" -R" + std::to_string(report_port));
  reg.set("global\\start\\big", "memory", "1048576");
  kt::kivd daemon("-D3");
  EXPECT_TRUE(daemon.log_has("Bad memory 0 of global program g")) << daemon.err();
  SOCKET big = INVALID_SOCKET;
  EXPECT_TRUE(kt::poll([&] {
    return (big = accept(listener, nullptr, nullptr)) != INVALID_SOCKET;
  })) << daemon.err();
  closesocket(listener);
  if (big != INVALID_SOCKET) {
    u_long blocking = 0;
    ioctlsocket(big, FIONBIO, &blocking);
    std::vector<std::string> report;
    for (std::string line = kt::read_line(big); !line.empty() && line != ".";
         line = kt::read_line(big))
      report.push_back(line);
    closesocket(big);
    EXPECT_NE(std::find(report.begin(), report.end(), expected_job_line(1048576, 0, 0)),
              report.end());
  }
  std::vector<HANDLE> agents;
  kt::client control;
  std::vector<std::string> listed = kt::listed_ports(control.command("ls"));
  for (size_t i = 0; i < n; i++) {
    const row &r = rows[i];
    SCOPED_TRACE(r.service);
    if (!r.refusal.empty()) {
      EXPECT_TRUE(daemon.log_has(r.refusal)) << daemon.err();
      // The refusal is kivd's own event, named by the value's path.
      std::vector<std::string> why = control.command("why");
      std::string path = std::string("services.") + r.service + "." + r.values.back().first;
      EXPECT_TRUE(std::any_of(why.begin(), why.end(), [&](const std::string &l) {
        return l.rfind("106\t", 0) == 0 && l.find(path) != std::string::npos;
      })) << why.size();
      EXPECT_EQ(kt::connect_to(ports[i]), INVALID_SOCKET);
      for (const std::string &line : listed) EXPECT_EQ(line.find(r.service), std::string::npos);
      continue;
    }
    EXPECT_NE(std::find(listed.begin(), listed.end(),
                        kt::port_line(ports[i], r.service, "Auto") + r.listed),
              listed.end());
    // Wine rejects a job's cpu rate, so such an agent starts on Windows only.
    if (wine && r.cpu) continue;
    SOCKET c = kt::connect_to(ports[i]);
    ASSERT_NE(c, INVALID_SOCKET);
    std::string hello = kt::read_line(c);
    ASSERT_EQ(hello.find("agent "), 0u) << hello;
    std::vector<std::string> report;
    for (std::string line = kt::read_line(c); !line.empty() && line != "."; line = kt::read_line(c))
      report.push_back(line);
    closesocket(c);
    ASSERT_GE(report.size(), 6u);
    EXPECT_EQ(report[0], own[0]);  // kivd's own user, filtered or not
    EXPECT_EQ(report[1], r.admins.empty() ? own[1] : r.admins);
    EXPECT_EQ(report[2], r.privileges.empty() ? own[2] : r.privileges);
    // Low integrity on Windows; Wine keeps kivd's.
    EXPECT_EQ(report[3], r.admins.empty() || wine ? own[3] : "integrity S-1-16-4096");
    EXPECT_EQ(report[4], expected_job_line(r.memory, r.processes, r.cpu));
    EXPECT_EQ(report[5], "#handles listening=0 sockets=0 pipes=0 other=0 own=1");
    HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, std::stoul(hello.substr(6)));
    ASSERT_NE(h, nullptr);
    agents.push_back(h);
  }
  EXPECT_EQ(GetFileAttributesA(started.c_str()), INVALID_FILE_ATTRIBUTES);
  // kivctl reads a cpu limit alone: ls lists its port in the table, --json has it beside
  // no memory.
  const std::string capped = std::to_string(ports[2]);
  ASSERT_STREQ(rows[2].service, "capped");
  kt::ran ls = kt::run("\"" + kt::kivctl_exe() + "\" ls"),
          json = kt::run("\"" + kt::kivctl_exe() + "\" --json ls");
  EXPECT_NE(ls.out.find(capped + "  capped    auto  "), std::string::npos) << ls.out;
  size_t record = json.out.find("{\"port\":" + capped + ",");
  ASSERT_NE(record, std::string::npos) << json.out;
  std::string fields = json.out.substr(record, json.out.find('}', record) - record);
  EXPECT_NE(fields.find("\"memory\":null,\"processes\":null,\"cpu\":50"), std::string::npos)
      << fields;
  control.close();
  // Each agent's job, kill-on-close, ends it with kivd whatever its account.
  ASSERT_TRUE(TerminateProcess(daemon.h, 9));
  ASSERT_TRUE(daemon.wait(10000));
  for (HANDLE h : agents) {
    EXPECT_EQ(WaitForSingleObject(h, 10000), WAIT_OBJECT_0);
    CloseHandle(h);
  }
}

}  // namespace
