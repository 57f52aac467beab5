#include "tools/kivctl/restart.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/kivctl/client.h"
#include "tools/kivctl/retire.h"
#include "tools/kivctl/why.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/scoped_win.h"

bool parse_handover_reply(const std::string &text, handover_reply *out) {
  char tail = 0;
  return sscanf(text.c_str(),
                "+Handed over to holder %lu: ports=%d agents=%d programs=%d kivd=%lu%c",
                &out->holder, &out->ports, &out->agents, &out->programs, &out->kivd, &tail) == 5;
}

namespace {

// Waits for process pid to end, at most ms; true when it has (or was gone already).
bool wait_end(unsigned long pid, DWORD ms) {
  scoped_handle process(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid)));
  return !process.valid() || WaitForSingleObject(process.get(), ms) == WAIT_OBJECT_0;
}

// The successor's completed hand-over from predecessor, read from its own events once its
// pipe answers; false until then.
bool successor_event(unsigned long predecessor, why_event *out) {
  scoped_handle pipe;
  if (client_open(pipe.put(), if_absent::quiet) != 0) return false;
  std::vector<std::string> elements;
  if (client_exchange(pipe.get(), "why", 3, &elements) != 0) return false;
  for (const std::string &line : elements) {
    why_event e;
    if (!parse_why_line(line, &e) || e.number != KIVEV_HANDOVER_COMPLETED) continue;
    for (const auto &f : e.fields)
      if (f.first == kivev_fieldname(KIVEV_F_PID) &&
          strtoul(f.second.c_str(), nullptr, 10) == predecessor) {
        *out = e;
        return true;
      }
  }
  return false;
}

std::string field(const why_event &e, const char *name) {
  for (const auto &f : e.fields)
    if (f.first == name) return f.second;
  return "?";
}

}  // namespace

int kivctl_restart(int argc, char **argv, bool json) {
  bool restart = strcmp(argv[0], "restart") == 0;
  int bound = 60;
  if (argc > 2 || (argc == 2 && (bound = atoi(argv[1])) <= 0)) {
    fprintf(stderr, "kivctl: usage: kivctl %s [SECONDS]\n", argv[0]);
    return 1;
  }
  scoped_handle pipe;
  // An installer hands over whatever runs: no kivd, nothing to hand over.
  int opened = client_open(pipe.put(), restart ? if_absent::report : if_absent::pass);
  if (opened == -1) {
    printf("kivd is not running: nothing to hand over\n");
    return 0;
  }
  if (opened) return opened;
  std::string line = std::string(argv[0]) + (argc == 2 ? std::string(" ") + argv[1] : "");
  std::vector<std::string> elements;
  int code = client_exchange(pipe.get(), line.c_str(), static_cast<int>(line.size()), &elements);
  pipe.reset();
  if (code == 2) return 2;
  handover_reply r;
  if (elements.empty() || !parse_handover_reply(elements.front(), &r)) {
    fprintf(
        stderr, "kivctl: %s\n",
        elements.empty() ? "no reply" : elements.front().c_str() + (elements.front()[0] == '-'));
    return 1;
  }
  // The holder waits `bound` seconds; kivctl a little longer, so it sees how it ended.
  DWORD patience = static_cast<DWORD>(bound) * 1000 + 30000;
  ULONGLONG start = GetTickCount64();
  if (!wait_end(r.kivd, patience)) {
    fprintf(stderr, "kivctl: kivd %lu handed over but has not ended\n", r.kivd);
    return 1;
  }
  if (!restart) {
    // The installer replaces the package's files next: those its agents still run from
    // move out of its way.
    char report[1024];
    if (retire_package_agents_here(report, sizeof report)) {
      fprintf(stderr, "kivctl: %s\n", report);
      return 1;
    }
    if (json)
      printf("{\"holder\":%lu,\"kivd\":%lu,\"ports\":%d,\"agents\":%d,\"programs\":%d}\n", r.holder,
             r.kivd, r.ports, r.agents, r.programs);
    else
      printf("Handed over to holder %lu: %d ports, %d agents, %d programs; kivd %lu has ended\n",
             r.holder, r.ports, r.agents, r.programs, r.kivd);
    return 0;
  }
  why_event e;
  while (!successor_event(r.kivd, &e)) {
    if (GetTickCount64() - start > patience) {
      fprintf(stderr, "kivctl: no successor took over from kivd %lu\n", r.kivd);
      return 1;
    }
    Sleep(20);
  }
  if (json)
    printf("{\"predecessor\":%lu,\"ports\":%s,\"agents\":%s,\"programs\":%s,\"gap_ms\":%s}\n",
           r.kivd, field(e, kivev_fieldname(KIVEV_F_COUNT)).c_str(),
           field(e, kivev_fieldname(KIVEV_F_AGENTS)).c_str(),
           field(e, kivev_fieldname(KIVEV_F_PROGRAMS)).c_str(),
           field(e, kivev_fieldname(KIVEV_F_GAP)).c_str());
  else
    printf("Restarted: %s ports, %s agents, %s programs taken over; %s ms between processes\n",
           field(e, kivev_fieldname(KIVEV_F_COUNT)).c_str(),
           field(e, kivev_fieldname(KIVEV_F_AGENTS)).c_str(),
           field(e, kivev_fieldname(KIVEV_F_PROGRAMS)).c_str(),
           field(e, kivev_fieldname(KIVEV_F_GAP)).c_str());
  return 0;
}
