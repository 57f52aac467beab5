#include "ports/util.h"

#include <ws2spi.h>

#include "lib/heap.h"
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

int listen_on(uint16_t port, SOCKET *out) {
  static const char TAG[] = "ssock.listen_on";
  SOCKET s = non_lsp_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "socket() -> %d", WSAGetLastError());
    return KIV_ESYS;
  }
  // Agents are started with inheritance on: a listening socket reaches them only
  // through WSADuplicateSocketA.
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(s, reinterpret_cast<sockaddr *>(&address), sizeof address) == SOCKET_ERROR) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "bind() -> %d", WSAGetLastError());
    closesocket(s);
    return KIV_ESYS;
  }
  if (listen(s, 10) == SOCKET_ERROR) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "listen() -> %d", WSAGetLastError());
    closesocket(s);
    return KIV_ESYS;
  }
  *out = s;
  return 0;
}
