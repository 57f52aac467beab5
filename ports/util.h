// Listening sockets that the port manager can hand to agent processes.
#pragma once
#include <winsock2.h>

#include <cstdint>

// Opens a non-inheritable TCP socket on a base provider, bound to port on every local
// IPv4 address and listening with a backlog of 10. 0 and the socket in *out, or
// KIV_ESYS (reported) with nothing stored.
int listen_on(uint16_t port, SOCKET *out);
// A socket of the first base (non-layered) provider of the catalogue that serves family,
// type and protocol; INVALID_SOCKET with the Winsock last error set to the reason
// (WSAENOBUFS, WSAEPROTONOSUPPORT or WSASocketW's own).
SOCKET non_lsp_socket(int family, int type, int protocol);
