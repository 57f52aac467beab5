// The package under the system's installer, as an administrator uses it: a silent
// install that leaves the service running and serving, an upgrade in place by a newer
// package, and removal; the configuration outlives all three.
#include "tests/support/support.h"

#include <gtest/gtest.h>
#include <tlhelp32.h>

#include "kiv_version.h"
#include "service/sserv.h"
#include "tests/apply/json.h"

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

// The service as the manager reports it: state 0 when it is not installed.
struct service_view {
  DWORD state = 0, pid = 0;
  std::string cmdline, description;
};
service_view query() {
  service_view v;
  SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
  SC_HANDLE s =
      scm ? OpenServiceA(scm, SSERV_NAME, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG) : nullptr;
  if (s) {
    SERVICE_STATUS_PROCESS st = {};
    DWORD need = 0;
    if (QueryServiceStatusEx(s, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE *>(&st), sizeof st,
                             &need)) {
      v.state = st.dwCurrentState;
      v.pid = st.dwProcessId;
    }
    std::vector<char> buf(8192);
    if (QueryServiceConfigA(s, reinterpret_cast<QUERY_SERVICE_CONFIGA *>(buf.data()), 8192, &need))
      v.cmdline = reinterpret_cast<QUERY_SERVICE_CONFIGA *>(buf.data())->lpBinaryPathName;
    auto *d = reinterpret_cast<SERVICE_DESCRIPTIONA *>(buf.data());
    if (QueryServiceConfig2A(s, SERVICE_CONFIG_DESCRIPTION, reinterpret_cast<BYTE *>(buf.data()),
                             8192, &need) &&
        d->lpDescription)
      v.description = d->lpDescription;
    CloseServiceHandle(s);
  }
  if (scm) CloseServiceHandle(scm);
  return v;
}

bool kivd_process_left() {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 e = {};
  e.dwSize = sizeof e;
  bool found = false;
  for (BOOL more = Process32First(snap, &e); more && !found; more = Process32Next(snap, &e))
    found = _stricmp(e.szExeFile, "kivd.exe") == 0;
  CloseHandle(snap);
  return found;
}

// Stops the service and waits until its process is gone. Wine's installer asks a service
// to stop but does not wait for it as the package asks (Windows does), and would then
// delete the service and its files under a kivd still ending; the test stops it first.
void stop_service() {
  SC_HANDLE scm = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
  SC_HANDLE s = scm ? OpenServiceA(scm, SSERV_NAME, SERVICE_STOP) : nullptr;
  SERVICE_STATUS st;
  if (s) ControlService(s, SERVICE_CONTROL_STOP, &st);
  if (s) CloseServiceHandle(s);
  if (scm) CloseServiceHandle(scm);
  EXPECT_TRUE(
      kt::poll([] { return query().state != SERVICE_RUNNING && !kivd_process_left(); }, 30000));
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
  ASSERT_TRUE(kt::poll([] { return query().state == SERVICE_RUNNING; }, 30000));
  service_view v = query();
  EXPECT_EQ(v.cmdline, "\"" + dir + "\\kivd.exe\" -S");
  EXPECT_EQ(v.description, SSERV_DESCRIPTION);
  for (const char *exe : {"kivd.exe", "kivctl.exe", "echo-agent.exe", "kivexec.exe"}) {
    std::string want = std::string(exe) == "kivd.exe" ? version : KIV_VERSION;
    EXPECT_EQ(file_version(dir + "\\" + exe, "FileVersion"), want) << exe;
    EXPECT_EQ(file_version(dir + "\\" + exe, "ProductVersion"), want) << exe;
    EXPECT_EQ(file_version(dir + "\\" + exe, "CompanyName"), "Orvane") << exe;
    EXPECT_EQ(file_version(dir + "\\" + exe, "ProductName"), "kivd") << exe;
  }
  std::string kivctl = "\"" + dir + "\\kivctl.exe\"";
  ASSERT_TRUE(kt::poll([&] {
    return kt::run(kivctl + " --json status").out.find("\"running\":true") != std::string::npos;
  }));
  kj::reader r(kt::run(kivctl + " --json status").out);
  kj::value st = r.parse();
  ASSERT_TRUE(r.ok());
  EXPECT_TRUE(st["installed"].boolean);
  EXPECT_EQ(st["state"].text, "running");
  EXPECT_EQ(st["pid"].number, v.pid);
  EXPECT_EQ(st["ports"]["total"].number, 1);
  EXPECT_TRUE(kt::echoes(port)) << port;
}

TEST(Package, InstallUpgradeAndRemoveKeepTheConfiguration) {
  const std::string dir = program_files();
  if (query().state) stop_service();
  msiexec("x", MSI_NEXT);  // whatever an earlier run left
  msiexec("x", MSI);
  ASSERT_EQ(query().state, 0u) << "a service not from the package is installed";

  kt::registry config;
  int port = kt::free_port();
  config.service("echo", dir + "\\echo-agent.exe");
  config.port(port, "auto", "echo");

  kt::ran r = msiexec("i", MSI);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  expect_serving(dir, KIV_VERSION, port);
  DWORD first_pid = query().pid;

  stop_service();
  r = msiexec("i", MSI_NEXT);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  expect_serving(dir, KIV_NEXT_VERSION, port);
  EXPECT_NE(query().pid, first_pid);

  stop_service();
  r = msiexec("x", MSI_NEXT);
  ASSERT_EQ(r.code, 0u) << r.out << r.err;
  EXPECT_EQ(query().state, 0u);
  EXPECT_FALSE(kivd_process_left());
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
