// The holder: kivd.exe run from a copy of its own, holding what kivd handed over until its
// successor claims it (service/handover.cpp), or stopping it as a stop does once nobody
// has claimed within the bound. It touches nothing meanwhile: no selection, no accept.
#include <aclapi.h>
#include <shlobj.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "lib/dstr.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/ssock.h"
#include "service/evlog.h"
#include "service/handover.h"
#include "service/handover_internal.h"
#include "toolkit/config/info.h"
#include "toolkit/runtime/cinit.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

const char TAG[] = "sserv.holder";

bool always_stopping() { return true; }

// The claim's pipe: one instance, kivd's own account alone, never a remote client.
HANDLE claim_pipe(DWORD *error) {
  alignas(8) BYTE user[SECURITY_MAX_SID_SIZE + sizeof(TOKEN_USER)];
  DWORD level = 0;
  scoped_handle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) ||
      !token_identity(token.get(), user, &level)) {
    *error = GetLastError();
    return INVALID_HANDLE_VALUE;
  }
  EXPLICIT_ACCESSA entry;
  BuildExplicitAccessWithNameA(&entry, const_cast<char *>(""), GENERIC_READ | GENERIC_WRITE,
                               SET_ACCESS, NO_INHERITANCE);
  BuildTrusteeWithSidA(&entry.Trustee, reinterpret_cast<TOKEN_USER *>(user)->User.Sid);
  PACL acl = nullptr;
  DWORD rc = SetEntriesInAclA(1, &entry, nullptr, &acl);
  scoped_local acl_memory(acl);
  SECURITY_DESCRIPTOR sd;
  if (rc != ERROR_SUCCESS || !InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) ||
      !SetSecurityDescriptorDacl(&sd, TRUE, acl, FALSE)) {
    *error = rc != ERROR_SUCCESS ? rc : GetLastError();
    return INVALID_HANDLE_VALUE;
  }
  SECURITY_ATTRIBUTES sa = {sizeof sa, &sd, FALSE};
  HANDLE pipe = CreateNamedPipeA(
      WIRE_HANDOVER_PIPE, PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE | FILE_FLAG_OVERLAPPED,
      PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 65536, 65536,
      0, &sa);
  if (pipe == INVALID_HANDLE_VALUE) *error = GetLastError();
  return pipe;
}

// One overlapped transfer on the claim's pipe, waited for at most ms.
bool transfer(HANDLE pipe, bool write, char *bytes, DWORD length, DWORD ms, DWORD *done) {
  scoped_handle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  OVERLAPPED o = {};
  o.hEvent = event.get();
  *done = 0;
  BOOL ok = write ? WriteFile(pipe, bytes, length, nullptr, &o)
                  : ReadFile(pipe, bytes, length, nullptr, &o);
  if (!ok && GetLastError() != ERROR_IO_PENDING) return false;
  if (WaitForSingleObject(event.get(), ms) != WAIT_OBJECT_0) {
    CancelIo(pipe);
    GetOverlappedResult(pipe, &o, done, TRUE);
    return false;
  }
  return GetOverlappedResult(pipe, &o, done, FALSE) && *done > 0;
}

struct holding {
  bool restart = false;
  bool service = false;
  int bound = 0;
  DWORD kivd = 0;
  std::string exe, cmdline;
  ssock_handed counts{};
  ULONGLONG ended = 0;
  DWORD successor = 0;  // the console successor it started; 0: the service's process
};

// Gives everything to the client of `pipe` when it is the process expected. True when the
// client took it.
bool give(HANDLE pipe, const holding &held) {
  ULONG client = 0;
  if (!GetNamedPipeClientProcessId(pipe, &client)) return false;
  DWORD expected = held.service ? service_pid() : held.successor;
  if (client != expected || !trusted_peer(client)) {
    kiv_logerror(nullptr, TAG, KIV_SEV_WARNING, KIV_EINVAL,
                 "Process %lu claimed the hand-over, not kivd's successor (%lu): refused",
                 static_cast<unsigned long>(client), static_cast<unsigned long>(expected));
    return false;
  }
  scoped_handle process(OpenProcess(PROCESS_DUP_HANDLE, FALSE, client));
  if (!process.valid()) return false;
  dstr block;
  dstr_init(&block);
  ssock_handed counts{};
  DWORD error = 0, done = 0;
  bool ok = ssock_handover_write(process.get(), client, &block, &counts, &error) == 0;
  char own[MAX_PATH];
  DWORD length = GetModuleFileNameA(nullptr, own, sizeof own);
  if (ok && length > 0 && length < sizeof own) {
    char head[1024];
    // The toolkit's printf has no 64-bit conversion: the C library's writes the time.
    snprintf(head, sizeof head, "%s\npredecessor %lu\nended %llu\nholder %s\nblock %d\n",
             CLAIM_MAGIC, static_cast<unsigned long>(held.kivd), held.ended, hex(own).c_str(),
             block.length);
    std::string all = std::string(head) + std::string(block.buffer, block.length);
    for (size_t at = 0; ok && at < all.size(); at += done) {
      DWORD chunk = all.size() - at > 65536 ? 65536 : static_cast<DWORD>(all.size() - at);
      ok = transfer(pipe, true, &all[at], chunk, HANDOVER_REPLY_MS, &done);
    }
    char answer[2] = {};
    ok = ok && transfer(pipe, false, answer, 2, HANDOVER_REPLY_MS, &done) && answer[0] == '+';
  }
  dstr_free(&block, 0);
  return ok;
}

// Starts the successor: the service, once the service manager has it stopped, or in a
// console the same command line in the same console.
bool start_successor(holding *held, ULONGLONG deadline) {
  if (!held->service) {
    PROCESS_INFORMATION info = {};
    DWORD error = 0;
    if (!spawn(held->exe, held->cmdline, nullptr, 0, &info, &error)) {
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "The successor cannot start [%d]",
                   static_cast<int>(error));
      return false;
    }
    held->successor = info.dwProcessId;
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return true;
  }
  kiv_scoped<kiv_service_traits> scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  kiv_scoped<kiv_service_traits> s(
      scm.valid() ? OpenServiceA(scm.get(), WIRE_SERVICE, SERVICE_START | SERVICE_QUERY_STATUS)
                  : nullptr);
  if (!s.valid()) return false;
  // The service manager may see the predecessor's end a little after the process's.
  while (GetTickCount64() < deadline) {
    if (StartServiceA(s.get(), 0, nullptr)) return true;
    DWORD e = GetLastError();
    if (e != ERROR_SERVICE_ALREADY_RUNNING && e != ERROR_SERVICE_CANNOT_ACCEPT_CTRL) {
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "The service cannot start [%d]",
                   static_cast<int>(e));
      return false;
    }
    Sleep(20);
  }
  return false;
}

// The holder's header: what kivd asked of it. False for anything out of place.
bool read_holding(const header &h, holding *held) {
  unsigned long long bound = 0, kivd = 0, service = 0;
  const std::string *mode = h.get("mode"), *exe = h.get("exe"), *cmdline = h.get("cmdline");
  if (!mode || (*mode != "restart" && *mode != "handover") || !exe || !cmdline ||
      !h.number("bound", 86400, &bound) || bound == 0 || !h.number("kivd", 0xFFFFFFFFu, &kivd) ||
      !h.number("service", 1, &service) || !unhex(*exe, &held->exe) ||
      !unhex(*cmdline, &held->cmdline))
    return false;
  held->restart = *mode == "restart";
  held->bound = static_cast<int>(bound);
  held->kivd = static_cast<DWORD>(kivd);
  held->service = service == 1;
  return true;
}

}  // namespace

int holder_main(const char *handles) {
  char *end = nullptr;
  HANDLE in = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(strtoul(handles, &end, 0)));
  HANDLE out = nullptr;
  if (*end == ',')
    out = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(strtoul(end + 1, &end, 0)));
  if (!in || !out || *end) return 2;
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 2;
  evlog_start(nullptr);
  ssock_setstopping(always_stopping);  // a holder never listens, accepts or starts anything
  kiv_cinit(nullptr);
  kivinfo_init(0);
  std::string all;
  header h;
  holding held;
  bool ok = read_all(in, &all) && parse(all.data(), all.size(), HOLDER_MAGIC, &h) &&
            read_holding(h, &held);
  CloseHandle(in);
  ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(held.bound) * 1000;
  scoped_handle kivd(
      ok ? OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, held.kivd)
         : nullptr);
  DWORD error = 0;
  scoped_handle pipe(ok && kivd.valid() ? claim_pipe(&error) : INVALID_HANDLE_VALUE);
  ok = ok && pipe.valid() && ssock_handover_read(h.block, h.length, false, &held.counts) == 0;
  write_all(out, ok ? "+\n" : "-\n", 2);
  CloseHandle(out);
  all.clear();
  if (!ok) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_EINVAL, "Holder: nothing taken [%d]",
                 static_cast<int>(error));
    evlog_stop(0);
    return 1;
  }
  KIV_LOG(3, TAG, "Holding %d ports, %d agents, %d programs for %d seconds", held.counts.ports,
          held.counts.agents, held.counts.programs, held.bound);
  // The gap is measured from the predecessor's end.
  ULONGLONG left = deadline > GetTickCount64() ? deadline - GetTickCount64() : 0;
  if (WaitForSingleObject(kivd.get(), static_cast<DWORD>(left)) == WAIT_OBJECT_0) {
    held.ended = filetime_now();  // when the end was seen: within the wait's wake-up
    if (held.restart) start_successor(&held, deadline);
  }
  bool given = false;
  scoped_handle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  while (!given && GetTickCount64() < deadline) {
    OVERLAPPED o = {};
    o.hEvent = event.get();
    ResetEvent(event.get());
    BOOL connected = ConnectNamedPipe(pipe.get(), &o);
    DWORD e = GetLastError();
    if (!connected && e == ERROR_IO_PENDING) {
      left = deadline > GetTickCount64() ? deadline - GetTickCount64() : 0;
      DWORD n = 0;
      if (WaitForSingleObject(event.get(), static_cast<DWORD>(left)) != WAIT_OBJECT_0) {
        CancelIo(pipe.get());
        GetOverlappedResult(pipe.get(), &o, &n, TRUE);
        break;
      }
      connected = GetOverlappedResult(pipe.get(), &o, &n, FALSE);
    } else if (!connected && e == ERROR_PIPE_CONNECTED) {
      connected = TRUE;
    }
    if (connected) given = give(pipe.get(), held);
    if (!given) {
      DisconnectNamedPipe(pipe.get());
      if (!connected) Sleep(20);  // a failing connect is not retried at once
    }
  }
  if (given) {
    KIV_LOG(3, TAG, "Claimed: the holder ends");
    ssock_reset();  // the successor's duplicates keep everything alive
  } else {
    kiv_logerror(nullptr, TAG, KIV_SEV_WARNING, KIV_ETIMEDOUT,
                 "No successor claimed in %d seconds: stopping what was held", held.bound);
    kivev_event ev{};
    ev.id = KIVEV_HANDOVER_EXPIRED;
    ev.pid = GetCurrentProcessId();
    ev.period = held.bound;
    ev.count = held.counts.ports;
    ev.agents = held.counts.agents;
    ev.programs = held.counts.programs;
    kivev_emit(&ev);
    ssock_cleanup();
    ssock_reset();
    // A running program's file cannot be deleted: kivd.exe of the install folder, run for
    // the moment it takes, removes the copy once this process has ended. Without it, the
    // next kivd's start does.
    PROCESS_INFORMATION info = {};
    char line[40];
    xsnprintf(line, sizeof line, " -R%lu", static_cast<unsigned long>(GetCurrentProcessId()));
    if (spawn(held.exe, "\"" + held.exe + "\"" + line, nullptr, 0, &info, &error)) {
      CloseHandle(info.hThread);
      CloseHandle(info.hProcess);
    }
  }
  pipe.reset();
  evlog_stop(0);
  return given ? 0 : 3;
}

int holder_remover(const char *pid) {
  char *end = nullptr;
  unsigned long holder = strtoul(pid, &end, 10);
  if (*end || holder == 0) return 2;
  scoped_handle process(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(holder)));
  if (process.valid()) WaitForSingleObject(process.get(), HANDOVER_REPLY_MS);
  // The image may be released a little after the process's end.
  for (int i = 0; i < 50; i++) {
    if (handover_sweep()) return 0;
    Sleep(100);
  }
  return 1;
}
