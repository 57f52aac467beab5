// Installation and removal of the service, and the running service's check of its own
// registration: what the service manager holds about kivd, apart from its status.
#include <cstdio>
#include <cstring>

#include "lib/printf.h"
#include "service/evlog.h"
#include "service/sserv.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

constexpr DWORD ALL_SERVICE = 0xF01FF;
constexpr DWORD ALL_MANAGER = 0xF003F;

int uninstall(SC_HANDLE service) {
  SERVICE_STATUS st;
  if (QueryServiceStatus(service, &st) && st.dwCurrentState == SERVICE_RUNNING) {
    ControlService(service, SERVICE_CONTROL_STOP, &st);
    printf("Stopping service ..");
    fflush(stdout);
    for (int i = 0; i < 40; i++) {
      if (st.dwCurrentState == SERVICE_STOPPED) break;
      printf(".");
      fflush(stdout);
      Sleep(250);
      QueryServiceStatus(service, &st);
    }
    printf(" OK\n");
  }
  if (DeleteService(service))
    printf("Service deleted\n");
  else
    printf("DeleteService() failed with error %d\n", static_cast<int>(GetLastError()));
  return 0;
}

// The description and the service manager's recovery: restart after 5 s, 10 s, then
// 60 s, the failure count reset after a day. false when the manager refused either.
bool set_recovery(SC_HANDLE service) {
  SERVICE_DESCRIPTIONA description;
  description.lpDescription = const_cast<char *>(SSERV_DESCRIPTION);
  SC_ACTION actions[3];
  for (int i = 0; i < 3; i++) actions[i] = {SC_ACTION_RESTART, SSERV_RESTART_MS[i]};
  SERVICE_FAILURE_ACTIONSA failure = {};
  failure.dwResetPeriod = SSERV_RESET_SECONDS;
  failure.cActions = 3;
  failure.lpsaActions = actions;
  return ChangeServiceConfig2A(service, SERVICE_CONFIG_DESCRIPTION, &description) &&
         ChangeServiceConfig2A(service, SERVICE_CONFIG_FAILURE_ACTIONS, &failure);
}

// What the service manager answers for one of its configuration queries, aligned for
// the structure it writes (8 KB is the largest answer the manager gives).
union service_config {
  QUERY_SERVICE_CONFIGA config;
  SERVICE_FAILURE_ACTIONSA failure;
  char bytes[8192];
};

int install(SC_HANDLE manager, const char *debugspec) {
  char path[SSERV_CMDLINE];
  DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
  if (n == 0) {
    printf("Failed to locate myself\n");
    return 1;
  }
  char cmdline[SSERV_CMDLINE];
  // A path cut by the buffer, or one that leaves no room for the options, would install
  // a command line that starts something else or loses -S: refuse instead.
  if (n >= sizeof path - 1 || install_cmdline(cmdline, sizeof cmdline, path, debugspec) != 0) {
    printf("Service command line too long (more than %d characters)\n", SSERV_CMDLINE - 1);
    return 1;
  }
  scoped_service service(CreateServiceA(manager, SSERV_NAME, SSERV_DISPLAY, ALL_SERVICE,
                                        SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START,
                                        SERVICE_ERROR_NORMAL, cmdline, nullptr, nullptr, nullptr,
                                        nullptr, nullptr));
  if (!service.get()) {
    printf("Failed to Create Service. Error %d\n", static_cast<int>(GetLastError()));
    return 1;
  }
  printf("Service \"%s\" installed\n", SSERV_DISPLAY);
  // The service is installed either way; a refusal is said, since a service nobody
  // restarts is worth knowing about, and so is one whose events show no sentences.
  if (!set_recovery(service.get()))
    printf("Failed to set the service's description and recovery. Error %d\n",
           static_cast<int>(GetLastError()));
  if (long rc = evlog_register(path))
    printf("Failed to register the event source. Error %ld\n", rc);
  return 0;
}

}  // namespace

// A service registered by an installer (the package's service table has no say in how
// the path is written) may hold its path unquoted, or lack the description and recovery
// that `kivd -I` gives. The running service puts that right in its own registration: an
// unquoted path with a blank is quoted (unquoted, "C:\Program Files\kivd\kivd.exe -S"
// lets the system start C:\Program.exe), and recovery is set when none is configured, so
// an operator's own choice of recovery is never overwritten.
void secure_registration() {
  static const char tag[] = "sserv.secure_registration";
  scoped_service manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  scoped_service service(manager.get() ? OpenServiceA(manager.get(), SSERV_NAME,
                                                      SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG)
                                       : nullptr);
  if (!service.get()) return;
  service_config answer;
  DWORD need = 0;
  char exe[SSERV_CMDLINE];
  DWORD n = GetModuleFileNameA(nullptr, exe, sizeof exe);
  if (n > 0 && n < sizeof exe - 1 && strpbrk(exe, " \t") &&
      QueryServiceConfigA(service.get(), &answer.config, sizeof answer, &need)) {
    const char *registered = answer.config.lpBinaryPathName;
    size_t length = strlen(exe);
    char cmdline[SSERV_CMDLINE];
    if (registered && _strnicmp(registered, exe, length) == 0 &&
        (registered[length] == '\0' || registered[length] == ' ')) {
      int fit = xsnprintf(cmdline, sizeof cmdline, "\"%s\"%s", exe, registered + length);
      if (fit < 0 || fit >= static_cast<int>(sizeof cmdline))
        kiv_logerror(nullptr, tag, KIV_SEV_WARNING, KIV_EOVERFLOW,
                     "Service path left unquoted: too long");
      else if (ChangeServiceConfigA(service.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                    SERVICE_NO_CHANGE, cmdline, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr))
        KIV_LOG(1, tag, "Service path quoted: %s", cmdline);
      else
        kiv_logerror(nullptr, tag, KIV_SEV_WARNING, KIV_ESYS, "ChangeServiceConfig() error %d",
                     static_cast<int>(GetLastError()));
    }
  }
  if (QueryServiceConfig2A(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS,
                           reinterpret_cast<BYTE *>(&answer), sizeof answer, &need) &&
      answer.failure.cActions == 0 && !set_recovery(service.get()))
    kiv_logerror(nullptr, tag, KIV_SEV_WARNING, KIV_ESYS,
                 "Failed to set the service's description and recovery. Error %d",
                 static_cast<int>(GetLastError()));
}

int install_cmdline(char *buffer, int size, const char *exe, const char *debugspec) {
  // Unquoted, "C:\Program Files\kivd\kivd.exe" would let the system start C:\Program.exe
  // as the system account: a path with a blank is quoted.
  const char *quote = strpbrk(exe, " \t") ? "\"" : "";
  int n = debugspec
              ? xsnprintf(buffer, size, "%s%s%s -S -D%s;>c:/kivd.txt", quote, exe, quote, debugspec)
              : xsnprintf(buffer, size, "%s%s%s -S", quote, exe, quote);
  if (n < 0 || n >= size) {
    if (size > 0) buffer[0] = '\0';
    return KIV_EOVERFLOW;
  }
  return 0;
}

int install_service(int action, const char *debugspec) {
  scoped_service manager(OpenSCManagerA(nullptr, nullptr, ALL_MANAGER));
  if (!manager.get()) {
    printf("Failed to access SCManager\n");
    return 1;
  }
  scoped_service service(OpenServiceA(manager.get(), SSERV_NAME, ALL_SERVICE));
  if (action == 'U') {
    // The event source goes whether or not the service is still there.
    if (long rc = evlog_unregister()) printf("Failed to remove the event source. Error %ld\n", rc);
    if (!service.get()) {
      printf("Service not installed\n");
      return 0;
    }
    return uninstall(service.get());
  }
  if (service.get()) return 0;
  return install(manager.get(), debugspec);
}
