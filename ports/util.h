// Listening sockets that the port manager can hand to agent processes, and what its
// processes start with: the account whose token they get and the job that holds them.
#pragma once
#include <winsock2.h>
// winsock2.h first: windows.h would otherwise bring the old winsock.h.
#include <windows.h>

#include <cstdint>

#include "toolkit/config/schema.h"

// Opens a non-inheritable TCP socket on a base provider, bound to port on address (a
// numeric IPv4 or IPv6 address, "::" taking IPv4 clients too; null: every local IPv4
// address) and listening with a backlog of 10. 0 and the socket in *out; KIV_ECONFIG
// for an address that does not parse, KIV_ESYS with the failing call's error in *error
// (when given); both reported, no socket stored.
int listen_on(uint16_t port, SOCKET *out, const char *address = nullptr, int *error = nullptr);
// A socket of the first base (non-layered) provider of the catalogue that serves family,
// type and protocol; INVALID_SOCKET with the Winsock last error set to the reason
// (WSAENOBUFS, WSAEPROTONOSUPPORT or WSASocketW's own).
SOCKET non_lsp_socket(int family, int type, int protocol);

// Accounts an agent or a global program runs as (the `account` value).
constexpr int ACCOUNT_SYSTEM = 0;          // kivd's own token
constexpr int ACCOUNT_LOCALSERVICE = 1;    // service logon of NT AUTHORITY\LocalService
constexpr int ACCOUNT_NETWORKSERVICE = 2;  // service logon of NT AUTHORITY\NetworkService
constexpr int ACCOUNT_RESTRICTED = 3;      // kivd's own token filtered and contained
constexpr int ACCOUNT_KINDS = SCHEMA_ACCOUNT_KINDS;
// "system", "LocalService", ...: the configuration's words, so that kivd takes what apply does.
inline const char *const *const ACCOUNT_NAMES = SCHEMA_ACCOUNTS;

// The account named by text in any letter case: 0 and the kind in *kind, or KIV_EINVAL
// for anything else (a null text too), with *kind left at ACCOUNT_SYSTEM. The caller
// refuses the value: it never stands for the system account.
int account_parse(const char *text, int *kind);
// A primary token for the kind, to be closed by the caller: null for ACCOUNT_SYSTEM
// (the process starts with kivd's own). 0, KIV_EINVAL for an unknown kind, or KIV_ESYS
// (reported under tag) with the system's error in *error.
int account_token(int kind, HANDLE *token, const char *tag, DWORD *error);

// What a restricted token has beyond kivd's own token. Every write must also pass for one
// of `restricting`: RESTRICTED, which an operator can grant, and a logon SID new to this
// token, which only what the token creates grants. `dacl`, the default access list of
// what it creates, grants user (kivd's own) and that logon SID in full, the system
// account in full and the administrators reading. Points into itself: never copied.
struct containment {
  alignas(8) BYTE sids[4][SECURITY_MAX_SID_SIZE];  // RESTRICTED, logon, system, administrators
  SID_AND_ATTRIBUTES restricting[2];
  alignas(8) BYTE dacl[512];  // four entries of at most 76 bytes each
};
// Fills *c for user: 0, or KIV_ESYS with the system's error left in GetLastError.
int containment_build(PSID user, containment *c);

// What a job lets its processes use together; 0 is no limit.
struct job_limits {
  unsigned memory;     // megabytes they may commit together
  unsigned processes;  // processes alive in the job at once, the agent included
  unsigned cpu;        // percent of the machine, hard cap (1 to 100)
};
// A new job that ends its processes when its last handle closes, with the limits. 0 and
// the job in *job (the caller closes it), or KIV_ESYS (reported under tag) with the
// system's error in *error.
int job_create(const job_limits &limits, HANDLE *job, const char *tag, DWORD *error);
