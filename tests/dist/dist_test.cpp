// The package under the system's installer, as an administrator uses it: a silent
// install that leaves the service running and serving, an upgrade in place by a newer
// package, and removal; the configuration outlives all three.
#include "tests/support/support.h"

#include <gtest/gtest.h>

#include "kiv_version.h"
#include "service/sserv.h"
#include "tests/dist/pe_sections.h"

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

TEST(Package, InstallUpgradeAndRemoveKeepTheConfiguration) {
  const std::string dir = program_files();
  kt::service_manager m;
  if (m.installed()) stop_service();
  msiexec("x", MSI_NEXT);  // whatever an earlier run left
  msiexec("x", MSI);
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
