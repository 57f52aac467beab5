// The package under the system's installer, as an administrator uses it: a silent
// install that leaves the service running and serving, an upgrade in place by a newer
// package, and removal; the configuration outlives all three.
#include "tests/support/support.h"

#include <gtest/gtest.h>
#include <msi.h>

#include <cstdlib>

#include "kiv_version.h"
#include "lib/wire.h"
#include "service/retired.h"
#include "service/sserv.h"
#include "tests/dist/pe_sections.h"
#include "tests/support/load.h"
#include "tools/kivctl/retire.h"

namespace {

std::string program_files() {
  char dir[MAX_PATH];
  DWORD n = GetEnvironmentVariableA("ProgramFiles", dir, sizeof dir);
  return std::string(dir, n) + "\\kivd";
}

const std::string MSI = kt::build_dir() + "\\packaging\\kivd-" KIV_VERSION "-x64.msi";
const std::string MSI_NEXT = kt::build_dir() + "\\tests\\dist\\kivd-next-x64.msi";

kt::ran msiexec(const char *action, const std::string &msi) {
  return kt::run(std::string("msiexec /") + action + " \"" + msi + "\" /qn");
}

// Stops the service and waits until its process is gone. Wine's installer asks a service
// to stop but does not wait for it as the package asks (Windows does), and would then
// delete the service and its files under a kivd still ending; the test stops it first.
void stop_service() {
  kt::service_manager m;
  m.control(SERVICE_CONTROL_STOP);
  EXPECT_TRUE(kt::poll(
      [&] {
        return m.status().dwCurrentState != SERVICE_RUNNING && kt::processes_named("kivd.exe") == 0;
      },
      30000));
}

std::string file_version(const std::string &exe, const char *name) {
  DWORD ignored = 0, size = GetFileVersionInfoSizeA(exe.c_str(), &ignored);
  std::vector<char> info(size);
  char *value = nullptr;
  UINT length = 0;
  std::string key = std::string("\\StringFileInfo\\040904B0\\") + name;
  if (!size || !GetFileVersionInfoA(exe.c_str(), 0, size, info.data()) ||
      !VerQueryValueA(info.data(), key.c_str(), reinterpret_cast<void **>(&value), &length))
    return "";
  return value;
}

// Installed, running as the service from the installed kivd.exe of `version`, its path
// quoted, answering kivctl and serving the configured port.
void expect_serving(const std::string &dir, const char *version, int port) {
  kt::service_manager m;
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING));
  std::vector<char> buf;
  QUERY_SERVICE_CONFIGA *config = m.config(buf);
  ASSERT_NE(config, nullptr);
  EXPECT_STREQ(config->lpBinaryPathName, ("\"" + dir + "\\kivd.exe\" -S").c_str());
  ASSERT_EQ(m.config2(SERVICE_CONFIG_DESCRIPTION, buf), 0u);
  EXPECT_STREQ(reinterpret_cast<SERVICE_DESCRIPTIONA *>(buf.data())->lpDescription,
               SSERV_DESCRIPTION);
  for (const char *exe : {"kivd.exe", "kivctl.exe", "echo-agent.exe", "kivexec.exe"}) {
    std::string want = std::string(exe) == "kivd.exe" ? version : KIV_VERSION;
    EXPECT_EQ(file_version(dir + "\\" + exe, "FileVersion"), want) << exe;
    EXPECT_EQ(file_version(dir + "\\" + exe, "ProductVersion"), want) << exe;
    EXPECT_EQ(file_version(dir + "\\" + exe, "CompanyName"), "Orvane") << exe;
    EXPECT_EQ(file_version(dir + "\\" + exe, "ProductName"), "kivd") << exe;
    // The package ships the executables without their debug information.
    std::vector<kt::pe_section> sections = kt::pe_sections(dir + "\\" + exe);
    EXPECT_FALSE(sections.empty()) << exe;
    EXPECT_EQ(kt::pe_named(sections, ".debug_"), std::vector<std::string>()) << exe;
  }
  // kivctl installed with it reads the service manager and the pipe alike.
  std::string status,
      want = "{\"installed\":true,\"state\":\"running\",\"running\":true,\"pid\":" +
             std::to_string(m.status().dwProcessId) +
             ",\"ports\":{\"total\":1,\"idle\":1,\"serving\":0,\"disabled\":0,\"hooked\":0}}\n";
  EXPECT_TRUE(kt::poll([&] {
    return (status = kt::run("\"" + dir + "\\kivctl.exe\" --json status").out) == want;
  })) << status;
  EXPECT_TRUE(kt::echoes(port)) << port;
}

using kt::exists;
using kt::names;

// The hand-over's holder folder under the machine's program data, and its parent.
std::string program_data(const char *below) {
  char dir[MAX_PATH];
  DWORD n = GetEnvironmentVariableA("ProgramData", dir, sizeof dir);
  return std::string(dir, n) + below;
}

// Removes what an earlier run left: the service, every product of the package (an earlier
// build's product has a code of its own), the install folder.
void clean_install(const std::string &dir) {
  kt::service_manager m;
  if (m.installed()) stop_service();
  std::vector<std::string> products;
  char code[39];
  for (DWORD i = 0; MsiEnumProductsA(i, code) == ERROR_SUCCESS; i++) {
    char name[64] = "";
    DWORD size = sizeof name;
    if (MsiGetProductInfoA(code, INSTALLPROPERTY_INSTALLEDPRODUCTNAME, name, &size) ==
            ERROR_SUCCESS &&
        std::string(name) == "kivd")
      products.push_back(code);
  }
  for (const std::string &p : products) kt::run("msiexec /x " + p + " /qn");
  // An upgrade that failed under Wine leaves files it moved aside for a reboot.
  kt::remove_tree(dir);
}

TEST(Package, InstallUpgradeAndRemoveKeepTheConfiguration) {
  const std::string dir = program_files();
  clean_install(dir);
  kt::service_manager m;
  ASSERT_FALSE(m.installed()) << "a service not from the package is installed";

  kt::registry config;
  int port = kt::free_port();
  config.service("echo", dir + "\\echo-agent.exe");
  config.port(port, "auto", "echo");

  kt::ran r = msiexec("i", MSI);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  expect_serving(dir, KIV_VERSION, port);
  EXPECT_EQ(kt::event_source(), dir + "\\kivd.exe|7");
  DWORD first_pid = m.status().dwProcessId;

  stop_service();
  r = msiexec("i", MSI_NEXT);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  expect_serving(dir, KIV_NEXT_VERSION, port);
  EXPECT_EQ(kt::event_source(), dir + "\\kivd.exe|7");
  EXPECT_NE(m.status().dwProcessId, first_pid);

  stop_service();
  r = msiexec("x", MSI_NEXT);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  EXPECT_FALSE(m.installed());
  EXPECT_EQ(kt::event_source(), "");
  EXPECT_EQ(kt::processes_named("kivd.exe"), 0);
  EXPECT_EQ(GetFileAttributesA(dir.c_str()), INVALID_FILE_ATTRIBUTES) << dir;
  HKEY key;
  ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE,
                          ("SOFTWARE\\Orvane\\Agents\\tcp\\s" + std::to_string(port)).c_str(), 0,
                          KEY_READ, &key),
            ERROR_SUCCESS)
      << "the configuration was touched";
  RegCloseKey(key);
}

}  // namespace

namespace {

// The pid of the agent that serves port, from the listing; 0 when none.
DWORD agent_of(int port) {
  kt::client c;
  for (const std::string &line : kt::listed_ports(c.command("ls"))) {
    size_t at = line.find(" " WIRE_ITEM_AGENT "=");
    if (atoi(line.c_str()) == port && at != std::string::npos)
      return static_cast<DWORD>(
          strtoul(line.c_str() + at + sizeof WIRE_ITEM_AGENT + 1, nullptr, 10));
  }
  return 0;
}

bool running(DWORD pid) {
  HANDLE h = OpenProcess(SYNCHRONIZE, FALSE, pid);
  bool alive = h && WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  if (h) CloseHandle(h);
  return alive;
}

// Sends a line through kivexec's program (upcase) and reads it back in capitals.
bool upcases(int port) {
  SOCKET s = kt::connect_to(port);
  if (s == INVALID_SOCKET) return false;
  kt::send_text(s, "abc\n");
  bool ok = kt::read_line(s) == "ABC";
  closesocket(s);
  return ok;
}

const std::string UPCASE = kt::build_dir() + "\\tests\\kivexec\\upcase.exe";

TEST(Package, AnUpgradeReplacesTheRetiredAgentFilesWithoutAReboot) {
  const std::string dir = program_files();
  clean_install(dir);
  kt::service_manager m;
  ASSERT_FALSE(m.installed()) << "a service not from the package is installed";
  kt::registry config;
  kt::ran r = msiexec("i", MSI);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  // Nothing of the hand-over's or of an upgrade's folders exists before one.
  EXPECT_FALSE(exists(dir + "\\" WIRE_RETIRED));
  EXPECT_FALSE(exists(program_data("\\Orvane")));
  stop_service();

  // The package's agents run from the install folder, started here as kivd would.
  kt::launched echo, exec;
  ASSERT_TRUE(kt::launch("\"" + dir + "\\echo-agent.exe\"", &echo));
  ASSERT_TRUE(kt::launch("\"" + dir + "\\kivexec.exe\" -- \"" + UPCASE + "\"", &exec));
  char report[512];
  ASSERT_EQ(retire_package_agents(dir.c_str(), report, sizeof report), 0) << report;

  r = msiexec("i", MSI_NEXT);
  EXPECT_EQ(r.code, 0u) << "3010 is a reboot asked for\n" << r.out << r.err;
  for (const char *exe : {"echo-agent.exe", "kivexec.exe"})
    EXPECT_EQ(file_version(dir + "\\" + exe, "FileVersion"), KIV_VERSION) << exe;
  std::vector<std::string> upgrades = names(dir + "\\" WIRE_RETIRED);
  ASSERT_EQ(upgrades.size(), 1u);
  EXPECT_EQ(names(dir + "\\" WIRE_RETIRED "\\" + upgrades[0]),
            (std::vector<std::string>{"echo-agent.exe", "kivexec.exe"}));
  EXPECT_TRUE(running(echo.pid) && running(exec.pid));

  // The retired files go once their agents ended, and the folder with them.
  sweep_retired(dir.c_str());
  EXPECT_EQ(names(dir + "\\" WIRE_RETIRED).size(), 1u);
  for (kt::launched *l : {&echo, &exec}) {
    TerminateProcess(l->process, 1);
    WaitForSingleObject(l->process, 30000);
    kt::end_launch(l);
  }
  EXPECT_TRUE(kt::poll([&] {
    sweep_retired(dir.c_str());
    return !exists(dir + "\\" WIRE_RETIRED);
  }));

  // What a sweep and a holder leave at most, emptied folders, goes with the package.
  for (const std::string &d :
       {dir + "\\" WIRE_RETIRED, program_data("\\Orvane"), program_data("\\Orvane\\kivd")})
    ASSERT_TRUE(CreateDirectoryA(d.c_str(), nullptr)) << d;
  stop_service();
  r = msiexec("x", MSI_NEXT);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  EXPECT_FALSE(exists(dir)) << dir;
  EXPECT_FALSE(exists(program_data("\\Orvane")));
}

// The upgrade an operator's software distribution pushes, under a client load: the
// package hands the running service over before the installer replaces anything, so no
// client is refused or cut, the agents (the package's own among them) keep running, and
// no reboot is asked for.
TEST(Package, AnUpgradeUnderLoadRefusesNothingAndCutsNothing) {
  const std::string dir = program_files();
  clean_install(dir);
  kt::ran handover = kt::run("\"" + kt::kivctl_exe() + "\" handover");
  ASSERT_EQ(handover.code, 0u) << "with no service installed: " << handover.out << handover.err;

  kt::registry config;
  int echo_port = kt::free_port(), exec_port = kt::free_port();
  config.service("echo", "\"" + dir + "\\echo-agent.exe\"");
  config.port(echo_port, "auto", "echo");
  config.service("exec", "\"" + dir + "\\kivexec.exe\" -- \"" + UPCASE + "\"");
  config.port(exec_port, "auto", "exec");
  kt::ran r = msiexec("i", MSI);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  kt::service_manager m;
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING));
  DWORD old_kivd = m.status().dwProcessId;

  kt::load_options o;
  o.port = echo_port;
  kt::client_load load(o);
  load.start();
  ASSERT_TRUE(kt::poll([&] {
    kt::load_counts c = load.counts();
    return c.made >= 5 && c.live_echoed >= 3;
  })) << kt::describe(load.counts());
  ASSERT_TRUE(upcases(exec_port));
  DWORD echo_agent = agent_of(echo_port), exec_agent = agent_of(exec_port);
  ASSERT_NE(echo_agent, 0u);
  ASSERT_NE(exec_agent, 0u);

  r = msiexec("i", MSI_NEXT);
  EXPECT_EQ(r.code, 0u) << "3010 is a reboot asked for\n" << r.out << r.err;
  ASSERT_TRUE(m.state_is(SERVICE_RUNNING));
  EXPECT_NE(m.status().dwProcessId, old_kivd);
  // The load goes on against the new kivd before it is counted.
  kt::load_counts during = load.counts();
  EXPECT_TRUE(kt::poll([&] {
    kt::load_counts c = load.counts();
    return c.made >= during.made + 10 && c.live_echoed >= during.live_echoed + 3;
  })) << kt::describe(load.counts());
  kt::load_counts c = load.stop();
  EXPECT_TRUE(c.clean()) << kt::describe(c);
  EXPECT_EQ(c.live_echoed, c.live_sent) << kt::describe(c);
  EXPECT_EQ(agent_of(echo_port), echo_agent);
  EXPECT_EQ(agent_of(exec_port), exec_agent);
  EXPECT_TRUE(running(echo_agent) && running(exec_agent));
  EXPECT_TRUE(upcases(exec_port));
  // The agents run from their retired files; the new ones are in place for the next.
  std::vector<std::string> upgrades = names(dir + "\\" WIRE_RETIRED);
  ASSERT_EQ(upgrades.size(), 1u);
  EXPECT_EQ(names(dir + "\\" WIRE_RETIRED "\\" + upgrades[0]),
            (std::vector<std::string>{"echo-agent.exe", "kivexec.exe"}));
  EXPECT_TRUE(exists(dir + "\\echo-agent.exe") && exists(dir + "\\kivexec.exe"));
  EXPECT_TRUE(kt::poll([] { return kt::processes_named("kivd.exe") == 1; }))
      << "a holder outlived the hand-over";

  // A stop ends the agents, and with them goes what they ran from.
  stop_service();
  EXPECT_TRUE(kt::poll([&] { return !running(echo_agent) && !running(exec_agent); }));
  EXPECT_TRUE(kt::poll([&] { return !exists(dir + "\\" WIRE_RETIRED); }))
      << names(dir + "\\" WIRE_RETIRED).size();

  r = msiexec("x", MSI_NEXT);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  EXPECT_EQ(kt::processes_named("kivd.exe"), 0);
  EXPECT_FALSE(exists(dir)) << dir;
  EXPECT_FALSE(exists(program_data("\\Orvane\\kivd")));
  HKEY key;
  ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE,
                          ("SOFTWARE\\Orvane\\Agents\\tcp\\s" + std::to_string(echo_port)).c_str(),
                          0, KEY_READ, &key),
            ERROR_SUCCESS)
      << "the configuration was touched";
  RegCloseKey(key);
}

}  // namespace
