#include "ports/util.h"

#include <ws2spi.h>
#include <ws2tcpip.h>

#include <cstring>

#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"

SOCKET non_lsp_socket(int family, int type, int protocol) {
  DWORD size = 0;
  int error = 0;
  WSCEnumProtocols(nullptr, nullptr, &size, &error);
  if (size == 0) {
    WSASetLastError(WSAENOBUFS);
    return INVALID_SOCKET;
  }
  auto *catalogue = static_cast<WSAPROTOCOL_INFOW *>(kiv_alloc(size, "ssock.non_lsp_socket"));
  if (!catalogue) {
    WSASetLastError(WSAENOBUFS);
    return INVALID_SOCKET;
  }
  int n = WSCEnumProtocols(nullptr, catalogue, &size, &error);
  SOCKET s = INVALID_SOCKET;
  bool found = false;
  int failure = 0;
  for (int i = 0; i < n; i++) {  // SOCKET_ERROR (-1) walks nothing
    const WSAPROTOCOL_INFOW &e = catalogue[i];
    // Layered entries have chain length 0 and protocol chains more than 1.
    if (e.ProtocolChain.ChainLen != 1 || e.iAddressFamily != family || e.iSocketType != type)
      continue;
    bool inrange = e.iProtocol <= protocol && protocol <= e.iProtocol + e.iProtocolMaxOffset;
    if (!inrange && !(protocol == 0 && e.dwProviderFlags != 0)) continue;
    found = true;
    s = WSASocketW(family, type, protocol, &catalogue[i], 0, WIRE_SOCKET_FLAGS);
    if (s == INVALID_SOCKET) failure = WSAGetLastError();
    break;
  }
  xfree(catalogue);
  if (!found) {
    WSASetLastError(WSAEPROTONOSUPPORT);
    return INVALID_SOCKET;
  }
  // Releasing the buffer may have changed the last error.
  if (s == INVALID_SOCKET) WSASetLastError(failure);
  return s;
}

namespace {

// A listen_on step that failed: its error, read before the log line and the close that
// could change it, goes to *error and into the report.
int listen_failed(SOCKET s, const char *step, int *error) {
  int code = WSAGetLastError();
  if (error) *error = code;
  if (s != INVALID_SOCKET) closesocket(s);
  kiv_logerror(nullptr, "ssock.listen_on", KIV_SEV_ERROR, KIV_ESYS, "%s() -> %d", step, code);
  return KIV_ESYS;
}

}  // namespace

int listen_on(uint16_t port, SOCKET *out, const char *address, int *error) {
  static const char TAG[] = "ssock.listen_on";
  sockaddr_storage local = {};
  int locallength = sizeof(sockaddr_in);
  auto *v4 = reinterpret_cast<sockaddr_in *>(&local);
  v4->sin_family = AF_INET;
  v4->sin_port = htons(port);
  v4->sin_addr.s_addr = htonl(INADDR_ANY);
  if (address) {
    addrinfo hints = {}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    char number[8];
    xsnprintf(number, sizeof number, "%u", static_cast<unsigned>(port));
    int rc = getaddrinfo(address, number, &hints, &found);
    if (rc != 0 || !found || found->ai_addrlen > sizeof local) {
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ECONFIG, "Port %d: bad address \"%.64s\" (%d)",
                   static_cast<int>(port), address, rc);
      if (found) freeaddrinfo(found);
      return KIV_ECONFIG;
    }
    memcpy(&local, found->ai_addr, found->ai_addrlen);
    locallength = static_cast<int>(found->ai_addrlen);
    freeaddrinfo(found);
  }
  SOCKET s = non_lsp_socket(local.ss_family, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return listen_failed(s, "socket", error);
  // Agents are started with inheritance on: a listening socket reaches them only
  // through WSADuplicateSocketA.
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  // Windows makes IPv6 sockets IPv6-only; "::" also takes IPv4 clients (as mapped
  // addresses), and a mapped address can be bound only so. No other IPv6 address sees IPv4.
  DWORD v6only = 0;
  if (local.ss_family == AF_INET6 &&
      setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char *>(&v6only),
                 sizeof v6only) == SOCKET_ERROR)
    return listen_failed(s, "setsockopt", error);
  if (bind(s, reinterpret_cast<sockaddr *>(&local), locallength) == SOCKET_ERROR)
    return listen_failed(s, "bind", error);
  if (listen(s, WIRE_LISTEN_BACKLOG) == SOCKET_ERROR) return listen_failed(s, "listen", error);
  *out = s;
  return 0;
}
