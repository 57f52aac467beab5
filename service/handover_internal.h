// What the hand-over's three processes share (service/handover.cpp: the giving kivd and
// the successor; service/holder.cpp: the holder): the channel's formats, the check of the
// process at its other end, and the start of a process with only the handles it needs.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <cstddef>
#include <cstdlib>
#include <cctype>
#include <string>

// The headers' first lines, the holder's file name, and the largest block either end takes:
// far above any block 65,535 ports make.
constexpr char HOLDER_MAGIC[] = "kivd-holder 1";
constexpr char CLAIM_MAGIC[] = "kivd-claim 1";
constexpr char HOLDER_EXE[] = "kivd.exe";
constexpr size_t BLOCK_MAX = 64u << 20;
// A header read from the front of `all`: its lines up to "block LENGTH", the block after.
struct header {
  std::string magic;
  std::string values[8][2];
  int count = 0;
  const char *block = nullptr;
  size_t length = 0;

  const std::string *get(const char *name) const {
    for (int i = 0; i < count; i++)
      if (values[i][0] == name) return &values[i][1];
    return nullptr;
  }
  bool number(const char *name, unsigned long long max, unsigned long long *out) const {
    const std::string *v = get(name);
    if (!v || v->empty() || v->size() > 20) return false;
    char *end = nullptr;
    *out = strtoull(v->c_str(), &end, 10);
    return *end == '\0' && *out <= max && isdigit(static_cast<unsigned char>((*v)[0]));
  }
};

// Parses `all` (size bytes): false for anything but the expected magic, known lines and a
// block of exactly the length named.
bool parse(const char *all, size_t size, const char *magic, header *h);

// <CommonAppData>\Orvane, the holders' root's parent; "" when the system names none.
std::string holders_parent();
// The system time as a FILETIME's 100-ns count.
ULONGLONG filetime_now();
// Any bytes as hexadecimal text, and back (false for text that is not).
std::string hex(const std::string &text);
bool unhex(const std::string &text, std::string *out);
// The service's process id as the service manager knows it; 0 when none runs.
DWORD service_pid();
// A token's user and integrity level; false when either cannot be read.
bool token_identity(HANDLE token, BYTE (&user)[SECURITY_MAX_SID_SIZE + sizeof(TOKEN_USER)],
                    DWORD *integrity);
// Whether process pid runs as kivd's own account, unrestricted and at no lower integrity.
bool trusted_peer(DWORD pid);
// Deletes a holder's folder once its copy can go: false while the copy still runs.
bool remove_holder_folder(const std::string &folder);
// The whole of bytes written to h; false at the first failure.
bool write_all(HANDLE h, const char *bytes, size_t length);
// Reads h to its end (a broken pipe) into *out, at most BLOCK_MAX and a header's worth.
bool read_all(HANDLE h, std::string *out);
// Starts exe with line, inheriting `extra` handles and the standard handles (so that a
// console successor writes where kivd wrote), nothing else kivd holds. *error on failure.
bool spawn(const std::string &exe, std::string line, const HANDLE *extra, int nextra,
           PROCESS_INFORMATION *info, DWORD *error);
