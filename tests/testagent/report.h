// What a helper process of the tests runs with, read from inside itself: its token (user,
// the administrators group, privileges, integrity) and the limits of the job it is in.
#pragma once

#include <windows.h>
#include <sddl.h>

#include <algorithm>
#include <string>
#include <vector>

namespace report_detail {

inline std::string sid_text(PSID sid) {
  char *text = nullptr;
  if (!ConvertSidToStringSidA(sid, &text)) return "?";
  std::string s = text;
  LocalFree(text);
  return s;
}

// The token information of the class, empty when it cannot be read.
inline std::vector<char> token_info(HANDLE token, TOKEN_INFORMATION_CLASS what) {
  DWORD size = 0;
  GetTokenInformation(token, what, nullptr, 0, &size);
  std::vector<char> buffer(size);
  if (!size || !GetTokenInformation(token, what, buffer.data(), size, &size)) buffer.clear();
  return buffer;
}

}  // namespace report_detail

// One line each, in this order:
//   "user <SID>"
//   "admins <attributes in hex>" or "admins absent"
//   "privileges <name>,<name>..." (sorted)
//   "integrity <SID>"
//   "job in=<0|1> kill=<0|1> memory=<bytes> processes=<n> cpu=<rate> hardcap=<0|1>" (in:
//   the process is in a job; the rest read back from it, 0: no limit), or
//   "job in=<0|1> unreadable <error>"
inline std::vector<std::string> self_report() {
  using namespace report_detail;
  std::vector<std::string> lines;
  HANDLE token = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  std::vector<char> user = token_info(token, TokenUser);
  lines.push_back("user " +
                  (user.empty() ? std::string("?")
                                : sid_text(reinterpret_cast<TOKEN_USER *>(user.data())->User.Sid)));
  BYTE admins[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof admins;
  CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &size);
  std::string admin_line = "admins absent";
  std::vector<char> groups = token_info(token, TokenGroups);
  if (!groups.empty()) {
    auto *g = reinterpret_cast<TOKEN_GROUPS *>(groups.data());
    for (DWORD i = 0; i < g->GroupCount; i++)
      if (EqualSid(g->Groups[i].Sid, admins)) {
        char hex[16];
        snprintf(hex, sizeof hex, "%#lx", static_cast<unsigned long>(g->Groups[i].Attributes));
        admin_line = std::string("admins ") + hex;
      }
  }
  lines.push_back(admin_line);
  std::vector<std::string> names;
  std::vector<char> privileges = token_info(token, TokenPrivileges);
  if (!privileges.empty()) {
    auto *p = reinterpret_cast<TOKEN_PRIVILEGES *>(privileges.data());
    for (DWORD i = 0; i < p->PrivilegeCount; i++) {
      char name[128];
      DWORD length = sizeof name;
      if (LookupPrivilegeNameA(nullptr, &p->Privileges[i].Luid, name, &length))
        names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  std::string list;
  for (const auto &n : names) list += (list.empty() ? "" : ",") + n;
  lines.push_back("privileges " + list);
  std::vector<char> label = token_info(token, TokenIntegrityLevel);
  lines.push_back(
      "integrity " +
      (label.empty()
           ? std::string("?")
           : sid_text(reinterpret_cast<TOKEN_MANDATORY_LABEL *>(label.data())->Label.Sid)));
  CloseHandle(token);
  // A null job handle names the job this process is in.
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  JOBOBJECT_CPU_RATE_CONTROL_INFORMATION rate = {};
  char job[160];
  BOOL in = FALSE;
  IsProcessInJob(GetCurrentProcess(), nullptr, &in);
  int n = snprintf(job, sizeof job, "job in=%d ", in != FALSE);
  if (!QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &limits, sizeof limits,
                                 nullptr)) {
    snprintf(job + n, sizeof job - n, "unreadable %lu", GetLastError());
  } else {
    if (!QueryInformationJobObject(nullptr, JobObjectCpuRateControlInformation, &rate, sizeof rate,
                                   nullptr) ||
        !(rate.ControlFlags & JOB_OBJECT_CPU_RATE_CONTROL_ENABLE))
      rate = {};
    DWORD flags = limits.BasicLimitInformation.LimitFlags;
    snprintf(
        job + n, sizeof job - n, "kill=%d memory=%llu processes=%lu cpu=%lu hardcap=%d",
        (flags & JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE) != 0,
        (flags & JOB_OBJECT_LIMIT_JOB_MEMORY) ? (unsigned long long)limits.JobMemoryLimit : 0ull,
        (flags & JOB_OBJECT_LIMIT_ACTIVE_PROCESS)
            ? static_cast<unsigned long>(limits.BasicLimitInformation.ActiveProcessLimit)
            : 0ul,
        static_cast<unsigned long>(rate.CpuRate),
        (rate.ControlFlags & JOB_OBJECT_CPU_RATE_CONTROL_HARD_CAP) != 0);
  }
  lines.push_back(job);
  return lines;
}

// The job line self_report gives in a job with these limits (megabytes, processes, percent;
// 0: none) as Windows reads them back. Wine reads back only that the process is in a job.
inline std::string expected_job_line(unsigned long long memory, unsigned processes, unsigned cpu) {
  if (GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version"))
    return "job in=1 kill=0 memory=0 processes=0 cpu=0 hardcap=0";
  return "job in=1 kill=1 memory=" + std::to_string(memory << 20) +
         " processes=" + std::to_string(processes) + " cpu=" + std::to_string(cpu * 100) +
         " hardcap=" + std::to_string(cpu != 0);
}
