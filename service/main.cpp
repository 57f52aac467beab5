// kivd: process entry. Reads the options "D:SBIUH:R:" and installs or removes the service,
// hands the process to the service dispatcher (-S), holds a hand-over (-H, started by kivd
// itself from its copy) or removes an unclaimed holder's copy (-R), or runs in the foreground.
#include "service/handover.h"
#include "service/sserv.h"
#include "toolkit/runtime/getopt.h"
#include "toolkit/runtime/init.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"

int main(int argc, char **argv) {
  // From the first allocation on, not only once the toolkit is initialised: the pipe and
  // the event log outlet are set up before it.
  kiv_setallocreporter(kiv_allocreport);
  const char *debugspec = nullptr;
  int action = 0;
  const char *holder = nullptr, *remover = nullptr;
  bool service = false;
  kiv_optind = 0;
  for (int c; (c = kiv_getopt(argc, argv, "D:SBIUH:R:")) != -1;) {
    if (c == 'D')
      debugspec = kiv_optarg;
    else if (c == 'H')
      holder = kiv_optarg;
    else if (c == 'R')
      remover = kiv_optarg;
    else if (c == 'S')
      service = true;
    else if (c == 'I' || c == 'U')
      action = c;
  }
  if (debugspec) kiv_logconfig(debugspec);
  if (action) return install_service(action, debugspec);
  if (holder) return holder_main(holder);
  if (remover) return holder_remover(remover);
  if (service) {
    KIV_LOG(3, "sserv.main", "Before StartServiceCtrlDispatcher() for %s", argv[0]);
    char name[] = "";
    SERVICE_TABLE_ENTRYA table[] = {{name, kivw32_service_start}, {nullptr, nullptr}};
    StartServiceCtrlDispatcherA(table);
    KIV_LOG(3, "sserv.main", "After StartServiceCtrlDispatcher()");
    return 0;
  }
  if (initialize() != 0) return 0;
  KIV_LOG(3, "sserv.main", "main loop");
  run_service();
  return 0;
}
