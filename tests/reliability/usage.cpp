#include "usage.h"

#include <psapi.h>

namespace rel {

namespace {

// The system's table of every open handle (SystemExtendedHandleInformation), counted for
// one process: the count where GetProcessHandleCount reports none (Wine leaves it 0).
struct handle_entry {
  PVOID object;
  ULONG_PTR pid;
  ULONG_PTR value;
  ULONG access;
  USHORT backtrace, type;
  ULONG attributes, reserved;
};
struct handle_table {
  ULONG_PTR count, reserved;
  handle_entry entries[1];
};
constexpr ULONG SYSTEM_EXTENDED_HANDLE_INFORMATION = 64;
constexpr LONG STATUS_INFO_LENGTH_MISMATCH = LONG(0xC0000004);

DWORD handles_in_table(DWORD pid) {
  using query = LONG(WINAPI *)(ULONG, PVOID, ULONG, PULONG);
  auto q = reinterpret_cast<query>(
      reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
  if (!q) return 0;
  std::vector<char> buffer(1 << 18);
  LONG status;
  ULONG need = 0;
  while ((status = q(SYSTEM_EXTENDED_HANDLE_INFORMATION, buffer.data(), ULONG(buffer.size()), &need)) ==
             STATUS_INFO_LENGTH_MISMATCH && buffer.size() < (64u << 20))
    buffer.resize(buffer.size() * 2);
  if (status != 0) return 0;
  auto *table = reinterpret_cast<handle_table *>(buffer.data());
  DWORD n = 0;
  for (ULONG_PTR i = 0; i < table->count; i++) n += table->entries[i].pid == pid;
  return n;
}

}  // namespace

bool usage_of(DWORD pid, usage *out) {
  HANDLE h = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid);
  if (!h) return false;
  PROCESS_MEMORY_COUNTERS_EX counters = {};
  counters.cb = sizeof counters;
  bool ok = GetProcessHandleCount(h, &out->handles) &&
            GetProcessMemoryInfo(h, reinterpret_cast<PROCESS_MEMORY_COUNTERS *>(&counters), sizeof counters);
  CloseHandle(h);
  if (!ok) return false;
  if (out->handles == 0) out->handles = handles_in_table(pid);
  // The commit charge is the process's private memory; both fields carry it (Wine fills
  // only the older one).
  out->private_bytes = counters.PrivateUsage ? counters.PrivateUsage : counters.PagefileUsage;
  return out->handles > 0 && out->private_bytes > 0;
}

std::string describe(const usage &before, const usage &after) {
  return "handles " + std::to_string(before.handles) + " -> " + std::to_string(after.handles) +
         ", private KB " + std::to_string(before.private_bytes / 1024) + " -> " +
         std::to_string(after.private_bytes / 1024);
}

std::vector<std::string> listed_ports(const std::vector<std::string> &reply) {
  if (reply.size() < 2 || reply.front() != "!" || reply.back() != ".") return {};
  return std::vector<std::string>(reply.begin() + 1, reply.end() - 1);
}

}  // namespace rel
