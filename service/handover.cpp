// The giving kivd's and the successor's halves of the hand-over, and what the holder
// (service/holder.cpp) shares with them (service/handover_internal.h).
#include "service/handover.h"

#include <aclapi.h>
#include <shlobj.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "control/npipe.h"
#include "lib/dstr.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/ssock.h"
#include "service/handover_internal.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/scoped_win.h"

// What travels between the processes, besides the port manager's block (ports/handover.cpp):
// a header of "name value" lines, texts that may hold anything in hexadecimal, then the
// block's bytes. From kivd to the holder:
//   kivd-holder 1 / mode restart|handover / bound S / kivd PID / service 0|1 /
//   exe HEX / cmdline HEX / block LENGTH
// and from the holder to the successor:
//   kivd-claim 1 / predecessor PID / ended FILETIME / holder HEX / block LENGTH
// The receiver answers "+" once it has adopted everything, "-" otherwise.

ULONGLONG filetime_now() {
  FILETIME ft;
  GetSystemTimeAsFileTime(&ft);
  return (static_cast<ULONGLONG>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

std::string hex(const std::string &text) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

bool unhex(const std::string &text, std::string *out) {
  if (text.size() % 2) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    char pair[3] = {text[i], text[i + 1], 0};
    char *end = nullptr;
    unsigned long v = strtoul(pair, &end, 16);
    if (*end || !isxdigit(static_cast<unsigned char>(pair[0]))) return false;
    *out += static_cast<char>(v);
  }
  return true;
}

// Parses `all` (size bytes): false for anything but the expected magic, known lines and a
// block of exactly the length named.
bool parse(const char *all, size_t size, const char *magic, header *h) {
  size_t at = 0;
  for (int line = 0;; line++) {
    const char *nl = static_cast<const char *>(memchr(all + at, '\n', size - at));
    if (!nl) return false;
    std::string text(all + at, nl);
    at = static_cast<size_t>(nl - all) + 1;
    if (line == 0) {
      if (text != magic) return false;
      continue;
    }
    size_t blank = text.find(' ');
    if (blank == std::string::npos) return false;
    std::string name = text.substr(0, blank), value = text.substr(blank + 1);
    if (name == "block") {
      char *end = nullptr;
      unsigned long long n = strtoull(value.c_str(), &end, 10);
      if (value.empty() || *end || n > BLOCK_MAX || n != size - at) return false;
      h->block = all + at;
      h->length = static_cast<size_t>(n);
      return true;
    }
    if (h->count == 8) return false;
    h->values[h->count][0] = name;
    h->values[h->count++][1] = value;
  }
}

// The service's process id as the service manager knows it; 0 when none runs.
DWORD service_pid() {
  kiv_scoped<kiv_service_traits> scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!scm.valid()) return 0;
  kiv_scoped<kiv_service_traits> s(OpenServiceA(scm.get(), WIRE_SERVICE, SERVICE_QUERY_STATUS));
  SERVICE_STATUS_PROCESS status;
  DWORD size = 0;
  if (!s.valid() || !QueryServiceStatusEx(s.get(), SC_STATUS_PROCESS_INFO,
                                          reinterpret_cast<BYTE *>(&status), sizeof status, &size))
    return 0;
  return status.dwCurrentState == SERVICE_STOPPED ? 0 : status.dwProcessId;
}

// A token's user and integrity level; false when either cannot be read.
bool token_identity(HANDLE token, BYTE (&user)[SECURITY_MAX_SID_SIZE + sizeof(TOKEN_USER)],
                    DWORD *integrity) {
  DWORD size = 0;
  if (!GetTokenInformation(token, TokenUser, user, sizeof user, &size)) return false;
  alignas(8) BYTE label[sizeof(TOKEN_MANDATORY_LABEL) + SECURITY_MAX_SID_SIZE];
  *integrity = SECURITY_MANDATORY_SYSTEM_RID;
  // A system without integrity levels reads none: every process counts the same.
  if (GetTokenInformation(token, TokenIntegrityLevel, label, sizeof label, &size)) {
    PSID sid = reinterpret_cast<TOKEN_MANDATORY_LABEL *>(label)->Label.Sid;
    *integrity = *GetSidSubAuthority(sid, *GetSidSubAuthorityCount(sid) - 1);
  }
  return true;
}

// Whether process pid runs as kivd's own account, unrestricted and at no lower integrity:
// the other end of the hand-over's channel must be kivd itself, never one of its agents
// (a `restricted` agent runs as kivd's user with a restricted token at low integrity).
bool trusted_peer(DWORD pid) {
  alignas(8) BYTE own[SECURITY_MAX_SID_SIZE + sizeof(TOKEN_USER)];
  alignas(8) BYTE peer[SECURITY_MAX_SID_SIZE + sizeof(TOKEN_USER)];
  DWORD own_level = 0, peer_level = 0;
  scoped_handle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) ||
      !token_identity(token.get(), own, &own_level))
    return false;
  scoped_handle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!process.valid() || !OpenProcessToken(process.get(), TOKEN_QUERY, token.put()) ||
      !token_identity(token.get(), peer, &peer_level))
    return false;
  return EqualSid(reinterpret_cast<TOKEN_USER *>(own)->User.Sid,
                  reinterpret_cast<TOKEN_USER *>(peer)->User.Sid) &&
         !IsTokenRestricted(token.get()) && peer_level >= own_level;
}

// Deletes a holder's folder once its copy can go: false while the copy still runs.
bool remove_holder_folder(const std::string &folder) {
  std::string exe = folder + "\\" + HOLDER_EXE;
  if (!DeleteFileA(exe.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND) return false;
  return RemoveDirectoryA(folder.c_str()) != 0;
}

bool write_all(HANDLE h, const char *bytes, size_t length) {
  while (length > 0) {
    DWORD n = 0;
    DWORD chunk = length > 65536 ? 65536 : static_cast<DWORD>(length);
    if (!WriteFile(h, bytes, chunk, &n, nullptr) || n == 0) return false;
    bytes += n;
    length -= n;
  }
  return true;
}

// Reads up to EOF (a broken pipe), at most BLOCK_MAX and a header's worth.
bool read_all(HANDLE h, std::string *out) {
  char buffer[65536];
  for (;;) {
    DWORD n = 0;
    if (!ReadFile(h, buffer, sizeof buffer, &n, nullptr) || n == 0) {
      DWORD e = GetLastError();
      return n == 0 && (e == ERROR_BROKEN_PIPE || e == ERROR_SUCCESS || e == ERROR_HANDLE_EOF ||
                        e == ERROR_PIPE_NOT_CONNECTED);
    }
    out->append(buffer, n);
    if (out->size() > BLOCK_MAX + 4096) return false;
  }
}

// Starts exe with line, inheriting `extra` handles and the standard handles (so that a
// console successor writes where kivd wrote), nothing else kivd holds.
bool spawn(const std::string &exe, std::string line, const HANDLE *extra, int nextra,
           PROCESS_INFORMATION *info, DWORD *error) {
  HANDLE inherit[5];
  int n = 0;
  for (int i = 0; i < nextra; i++) inherit[n++] = extra[i];
  STARTUPINFOEXA startup = {};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  HANDLE *std_handles[3] = {&startup.StartupInfo.hStdInput, &startup.StartupInfo.hStdOutput,
                            &startup.StartupInfo.hStdError};
  const DWORD which[3] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
  for (int k = 0; k < 3; k++) {
    HANDLE h = GetStdHandle(which[k]);
    *std_handles[k] = h;
    DWORD flags = 0;
    bool seen = false;
    for (int i = 0; i < n; i++) seen |= inherit[i] == h;
    if (!seen && GetHandleInformation(h, &flags) && (flags & HANDLE_FLAG_INHERIT)) inherit[n++] = h;
  }
  alignas(8) char list[64];
  SIZE_T size = sizeof list;
  auto *attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list);
  DWORD flags = 0;
  if (n > 0 && InitializeProcThreadAttributeList(attributes, 1, 0, &size)) {
    if (UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherit,
                                  n * sizeof(HANDLE), nullptr, nullptr)) {
      startup.lpAttributeList = attributes;
      flags = EXTENDED_STARTUPINFO_PRESENT;
    } else {
      DeleteProcThreadAttributeList(attributes);
    }
  }
  // Without the list, nothing is inherited rather than everything.
  BOOL ok = CreateProcessA(exe.c_str(), &line[0], nullptr, nullptr, flags != 0, flags, nullptr,
                           nullptr, &startup.StartupInfo, info);
  if (!ok) *error = GetLastError();
  if (startup.lpAttributeList) DeleteProcThreadAttributeList(attributes);
  return ok != 0;
}

namespace {

const char TAG[] = "sserv.handover";

bool handed;

// What a claim brought, for the completed event.
struct claimed {
  bool adopted;
  DWORD predecessor;
  ULONGLONG ended;  // the predecessor's end, as a FILETIME
  ssock_handed counts;
  DWORD holder;
  std::string holder_exe;
} claim;

// <CommonAppData>\Orvane\kivd: the holders' root, its access list the system account and
// administrators only, inherited by each holder's folder and copy. False when it cannot
// be made so (nothing is then handed over: a copy others could replace would run as kivd).
bool holder_root(char (&root)[MAX_PATH], DWORD *error) {
  std::string parent = holders_parent();
  if (parent.empty()) {
    *error = ERROR_PATH_NOT_FOUND;
    return false;
  }
  CreateDirectoryA(parent.c_str(), nullptr);
  xsnprintf(root, sizeof root, "%s\\kivd", parent.c_str());
  if (!CreateDirectoryA(root, nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
    *error = GetLastError();
    return false;
  }
  char system[] = "SYSTEM", admins[] = "ADMINISTRATORS";
  EXPLICIT_ACCESSA entries[2];
  BuildExplicitAccessWithNameA(&entries[0], system, GENERIC_ALL, SET_ACCESS,
                               SUB_CONTAINERS_AND_OBJECTS_INHERIT);
  BuildExplicitAccessWithNameA(&entries[1], admins, GENERIC_ALL, SET_ACCESS,
                               SUB_CONTAINERS_AND_OBJECTS_INHERIT);
  PACL acl = nullptr;
  DWORD rc = SetEntriesInAclA(2, entries, nullptr, &acl);
  scoped_local acl_memory(acl);
  if (rc == ERROR_SUCCESS)
    rc = SetNamedSecurityInfoA(root, SE_FILE_OBJECT,
                               DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                               nullptr, nullptr, acl, nullptr);
  *error = rc;
  return rc == ERROR_SUCCESS;
}

// Reads a header and its whole block from a pipe that stays open (the claim's channel).
bool read_message(HANDLE h, const char *magic, std::string *all, header *out) {
  char buffer[65536];
  for (;;) {
    *out = header();
    if (parse(all->data(), all->size(), magic, out)) return true;
    if (all->size() > BLOCK_MAX + 4096) return false;
    DWORD n = 0;
    if (!ReadFile(h, buffer, sizeof buffer, &n, nullptr) || n == 0) return false;
    all->append(buffer, n);
  }
}

void emit_failed(const char *step, DWORD error) {
  kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "Hand-over failed at %s [%d]", step,
               static_cast<int>(error));
  kivev_event ev{};
  ev.id = KIVEV_HANDOVER_FAILED;
  ev.text = step;
  ev.syserror = static_cast<long>(error);
  kivev_emit(&ev);
}

// The holder's process, started from its copy with the two pipe ends it inherits.
bool start_holder(const std::string &exe, HANDLE in, HANDLE out, PROCESS_INFORMATION *info,
                  DWORD *error) {
  char handles[40];
  xsnprintf(handles, sizeof handles, "%#x,%#x",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(in)),
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(out)));
  std::string line = "\"" + exe + "\" -H" + handles;
  if (const char *spec = kiv_logspec()) line += std::string(" \"-D") + spec + "\"";
  HANDLE ends[2] = {in, out};
  return spawn(exe, line, ends, 2, info, error);
}

// The holder's answer on `out`: its first line, waited for while the holder lives, at most
// HANDOVER_REPLY_MS.
bool holder_answer(HANDLE out, HANDLE holder) {
  ULONGLONG end = GetTickCount64() + HANDOVER_REPLY_MS;
  std::string text;
  while (GetTickCount64() < end) {
    DWORD available = 0;
    if (!PeekNamedPipe(out, nullptr, 0, nullptr, &available, nullptr)) return false;
    if (available) {
      char buffer[64];
      DWORD n = 0;
      if (!ReadFile(out, buffer, sizeof buffer, &n, nullptr)) return false;
      text.append(buffer, n);
      if (text.find('\n') != std::string::npos) return text[0] == '+';
      continue;
    }
    if (WaitForSingleObject(holder, 10) == WAIT_OBJECT_0) return false;
  }
  return false;
}

void refuse(int pipe, const char *text) { npipe_write(pipe, text, static_cast<int>(strlen(text))); }

}  // namespace

bool handed_over() { return handed; }

void handover_begin(int pipe, bool restart, int bound) {
  char text[200];
  bool service = service_pid() == GetCurrentProcessId();
  char root[MAX_PATH];
  DWORD error = 0;
  if (!holder_root(root, &error)) {
    emit_failed("the holders' folder", error);
    xsnprintf(text, sizeof text, "-Hand-over failed: the holders' folder cannot be made [%d]",
              static_cast<int>(error));
    refuse(pipe, text);
    return;
  }
  char own[MAX_PATH];
  DWORD length = GetModuleFileNameA(nullptr, own, sizeof own);
  char folder[MAX_PATH + 32];
  xsnprintf(folder, sizeof folder, "%s\\holder-%lu", root,
            static_cast<unsigned long>(GetCurrentProcessId()));
  std::string copy = std::string(folder) + "\\" + HOLDER_EXE;
  if (length == 0 || length >= sizeof own ||
      (!CreateDirectoryA(folder, nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) ||
      !CopyFileA(own, copy.c_str(), FALSE)) {
    error = GetLastError();
    emit_failed("the holder's copy", error);
    xsnprintf(text, sizeof text, "-Hand-over failed: kivd.exe cannot be copied to %s [%d]", folder,
              static_cast<int>(error));
    refuse(pipe, text);
    return;
  }
  SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
  scoped_handle in_read, in_write, out_read, out_write;
  PROCESS_INFORMATION info = {};
  const char *step = "the holder's pipes";
  bool started = CreatePipe(in_read.put(), in_write.put(), &inheritable, 0) &&
                 CreatePipe(out_read.put(), out_write.put(), &inheritable, 0) &&
                 SetHandleInformation(in_write.get(), HANDLE_FLAG_INHERIT, 0) &&
                 SetHandleInformation(out_read.get(), HANDLE_FLAG_INHERIT, 0);
  if (!started) error = GetLastError();
  if (started) {
    step = "the holder's start";
    started = start_holder(copy, in_read.get(), out_write.get(), &info, &error);
  }
  in_read.reset();
  out_write.reset();
  if (!started) {
    emit_failed(step, error);
    xsnprintf(text, sizeof text, "-Hand-over failed: %s [%d]", step, static_cast<int>(error));
    refuse(pipe, text);
    remove_holder_folder(folder);
    return;
  }
  scoped_handle holder(info.hProcess);
  CloseHandle(info.hThread);
  dstr block;
  dstr_init(&block);
  ssock_handed counts{};
  step = "the port manager's records";
  bool given = ssock_handover_write(holder.get(), info.dwProcessId, &block, &counts, &error) == 0;
  if (given) {
    char head[2048];
    xsnprintf(head, sizeof head,
              "%s\nmode %s\nbound %d\nkivd %lu\nservice %d\nexe %s\ncmdline %s\nblock %d\n",
              HOLDER_MAGIC, restart ? "restart" : "handover", bound,
              static_cast<unsigned long>(GetCurrentProcessId()), service ? 1 : 0, hex(own).c_str(),
              hex(GetCommandLineA()).c_str(), block.length);
    step = "the holder's pipe";
    given = write_all(in_write.get(), head, strlen(head)) &&
            write_all(in_write.get(), block.buffer, static_cast<size_t>(block.length));
    if (!given) error = GetLastError();
    in_write.reset();  // the holder reads to its end
    if (given) {
      step = "the holder's answer";
      given = holder_answer(out_read.get(), holder.get());
      error = given ? 0 : ERROR_INVALID_DATA;
    }
  }
  dstr_free(&block, 0);
  if (!given) {
    TerminateProcess(holder.get(), 1);
    WaitForSingleObject(holder.get(), 5000);
    ssock_handover_resume();
    remove_holder_folder(folder);
    emit_failed(step, error);
    xsnprintf(text, sizeof text, "-Hand-over failed: %s [%d]", step, static_cast<int>(error));
    refuse(pipe, text);
    return;
  }
  handed = true;
  KIV_LOG(3, TAG, "Handed over to holder %lu", static_cast<unsigned long>(info.dwProcessId));
  kivev_event ev{};
  ev.id = KIVEV_HANDOVER_BEGUN;
  ev.pid = info.dwProcessId;
  ev.count = counts.ports;
  ev.agents = counts.agents;
  ev.programs = counts.programs;
  kivev_emit(&ev);
  xsnprintf(text, sizeof text,
            "+Handed over to holder %lu: ports=%d agents=%d programs=%d kivd=%lu",
            static_cast<unsigned long>(info.dwProcessId), counts.ports, counts.agents,
            counts.programs, static_cast<unsigned long>(GetCurrentProcessId()));
  refuse(pipe, text);
}

void handover_release() { ssock_reset(); }

bool handover_claim() {
  claim = claimed();
  scoped_handle pipe;
  for (int attempt = 0; attempt < 3; attempt++) {
    pipe.reset(CreateFileA(WIRE_HANDOVER_PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                           OPEN_EXISTING, SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION,
                           nullptr));
    if (pipe.valid() || GetLastError() != ERROR_PIPE_BUSY) break;
    WaitNamedPipeA(WIRE_HANDOVER_PIPE, 5000);
  }
  if (!pipe.valid()) return false;  // no holder waits: a start like any other
  ULONG server = 0;
  if (!GetNamedPipeServerProcessId(pipe.get(), &server) || !trusted_peer(server)) {
    kiv_logerror(nullptr, TAG, KIV_SEV_WARNING, KIV_EINVAL,
                 "The hand-over's pipe is served by process %lu, not a holder: ignored",
                 static_cast<unsigned long>(server));
    return false;
  }
  std::string all;
  header h;
  unsigned long long predecessor = 0, ended = 0;
  std::string holder_exe;
  const std::string *holder_hex = nullptr;
  bool ok = read_message(pipe.get(), CLAIM_MAGIC, &all, &h) &&
            h.number("predecessor", 0xFFFFFFFFu, &predecessor) &&
            h.number("ended", ~0ull, &ended) && (holder_hex = h.get("holder")) &&
            unhex(*holder_hex, &holder_exe);
  int rc = ok ? ssock_handover_read(h.block, h.length, true, &claim.counts) : KIV_EINVAL;
  write_all(pipe.get(), rc == 0 ? "+\n" : "-\n", 2);
  if (rc != 0) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, rc, "The holder's hand-over was refused (%d)", rc);
    return false;
  }
  kiv_count(WIRE_STAT_KIVD_HANDOVERS);  // the counts came through one more
  claim.adopted = true;
  claim.predecessor = static_cast<DWORD>(predecessor);
  claim.ended = ended;
  claim.holder = server;
  claim.holder_exe = holder_exe;
  return true;
}

namespace {

// The holder ends once it has its answer; its folder goes when its copy can.
DWORD WINAPI remove_after_holder(void *arg) {
  auto *c = static_cast<claimed *>(arg);
  scoped_handle holder(OpenProcess(SYNCHRONIZE, FALSE, c->holder));
  if (holder.valid()) WaitForSingleObject(holder.get(), HANDOVER_REPLY_MS);
  std::string folder = c->holder_exe.substr(0, c->holder_exe.rfind('\\'));
  // The image may be released a little after the process's end.
  for (int i = 0; i < 50 && !remove_holder_folder(folder); i++) Sleep(100);
  delete c;
  return 0;
}

}  // namespace

void handover_completed() {
  if (!claim.adopted) return;
  ULONGLONG now = filetime_now();
  long gap = now > claim.ended ? static_cast<long>((now - claim.ended) / 10000) : 0;
  KIV_LOG(3, TAG, "Took over from %lu: %d ports, %d agents, %d programs, %ld ms between",
          static_cast<unsigned long>(claim.predecessor), claim.counts.ports, claim.counts.agents,
          claim.counts.programs, gap);
  kivev_event ev{};
  ev.id = KIVEV_HANDOVER_COMPLETED;
  ev.pid = claim.predecessor;
  ev.count = claim.counts.ports;
  ev.agents = claim.counts.agents;
  ev.programs = claim.counts.programs;
  ev.gap = gap;
  kivev_emit(&ev);
  if (claim.holder_exe.find('\\') != std::string::npos) {
    HANDLE t = CreateThread(nullptr, 0, remove_after_holder, new claimed(claim), 0, nullptr);
    if (t) CloseHandle(t);
  }
  claim.adopted = false;
}

std::string holders_parent() {
  char base[MAX_PATH];
  if (FAILED(SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, base))) return "";
  return std::string(base) + "\\Orvane";
}

bool handover_sweep() {
  std::string parent = holders_parent();
  if (parent.empty()) return false;
  std::string root = parent + "\\kivd";
  WIN32_FIND_DATAA found;
  std::string pattern = root + "\\holder-*";
  HANDLE find = FindFirstFileA(pattern.c_str(), &found);
  if (find != INVALID_HANDLE_VALUE) {
    do {
      if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
        remove_holder_folder(root + "\\" + found.cFileName);
    } while (FindNextFileA(find, &found));
    FindClose(find);
  }
  // Each only when empty.
  bool gone = RemoveDirectoryA(root.c_str()) || GetLastError() == ERROR_FILE_NOT_FOUND;
  RemoveDirectoryA(parent.c_str());
  return gone;
}
