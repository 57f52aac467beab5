// echo-agent: sends back every byte each client sends, on every port the port manager
// hands it. One thread per port waits for connections, one thread per client echoes; the
// main thread follows the manager's commands and the lifespan.
//
// Exit codes: 0 on "exit", when the pipe closes and after `lifespan` seconds without a
// client (the manager then listens again on the same sockets); 1 when it has no port it
// can serve (the manager then opens new sockets); 2 when the start-up cannot be read.
#include <cstdio>
#include <cstring>

#include "agent/kivagent.h"
#include "lib/heap.h"

namespace {

struct server {
  unsigned port;
  SOCKET sock;
  volatile LONG stopping;  // set before the main thread closes sock under the port's thread
  HANDLE thread;
};

// Clients being served, and since when there has been none (GetTickCount64).
CRITICAL_SECTION idle_lock;
unsigned clients;
ULONGLONG idle_since;
HANDLE client_gone;  // auto reset: a client ended, the lifespan count may begin

// Every end of a client, so that the main thread starts counting the lifespan when the
// last one leaves.
void client_left() {
  EnterCriticalSection(&idle_lock);
  if (--clients == 0) idle_since = GetTickCount64();
  LeaveCriticalSection(&idle_lock);
  SetEvent(client_gone);
}

DWORD WINAPI echo(void *arg) {
  SOCKET c = reinterpret_cast<SOCKET>(arg);
  char buf[4096];
  for (;;) {
    int n = recv(c, buf, sizeof buf, 0);
    if (n <= 0) break;
    int sent = 0;
    while (sent < n) {
      int m = send(c, buf + sent, n - sent, 0);
      if (m <= 0) break;
      sent += m;
    }
    if (sent < n) break;
  }
  closesocket(c);
  client_left();
  return 0;
}

void serve_client(SOCKET c) {
  EnterCriticalSection(&idle_lock);
  clients++;
  LeaveCriticalSection(&idle_lock);
  HANDLE t = CreateThread(nullptr, 64 * 1024, echo, reinterpret_cast<void *>(c),
                          STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (t) {
    CloseHandle(t);
    return;
  }
  closesocket(c);
  client_left();
}

// A blocking accept takes every connection the socket queues, without depending on
// readiness notices that could be missed.
DWORD WINAPI accept_loop(void *arg) {
  auto *sv = static_cast<server *>(arg);
  HANDLE nap = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  for (;;) {
    SOCKET c = accept(sv->sock, nullptr, nullptr);
    if (c != INVALID_SOCKET) {
      serve_client(c);
      continue;
    }
    // Closing the socket is how the main thread ends a blocked accept.
    if (sv->stopping) break;
    // A client that gave up while queued costs nothing; other failures (out of sockets
    // or memory) get a pause, so that the loop does not spin while they last.
    if (WSAGetLastError() != WSAECONNRESET && nap) WaitForSingleObject(nap, 100);
  }
  if (nap) CloseHandle(nap);
  return 0;
}

// Starts the thread of one port. False when the port cannot be served.
bool start_server(server *sv, unsigned port, SOCKET sock) {
  sv->port = port;
  sv->sock = sock;
  sv->thread =
      CreateThread(nullptr, 64 * 1024, accept_loop, sv, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  return sv->thread != nullptr;
}

// Stops serving a port: its socket is closed (by kivagent_drop), which also ends the
// thread's accept. The thread is not waited for: the port is closed either way.
void stop_server(kivagent *agent, server *sv) {
  InterlockedExchange(&sv->stopping, 1);
  kivagent_drop(agent, sv->port);
  if (sv->thread) CloseHandle(sv->thread);
  sv->thread = nullptr;
  sv->port = 0;
}

}  // namespace

int main(int argc, char **argv) {
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 2;
  InitializeCriticalSection(&idle_lock);
  client_gone = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  if (!client_gone) return 2;

  kivagent agent;
  int r = kivagent_start(&agent, argc, argv, KIVAGENT_BLOCKING);
  if (r != 0) {
    fprintf(stderr, "echo-agent: no start-up from the port manager (%d)\n", r);
    kivagent_end(&agent);
    return r == KIVAGENT_EOF ? 0 : 2;
  }
  idle_since = GetTickCount64();

  auto *servers =
      static_cast<server *>(xrealloc(nullptr, (agent.nports + 1) * sizeof(server), nullptr));
  if (servers) memset(servers, 0, (agent.nports + 1) * sizeof(server));
  unsigned serving = 0;
  for (unsigned i = 0; servers && i < agent.nports; i++) {
    kivagent_port *p = &agent.ports[i];
    // An "on" port comes without a socket: listen on it as the manager would have.
    if (p->sock == INVALID_SOCKET && kivagent_listen(p->port, KIVAGENT_BLOCKING, &p->sock) != 0) {
      fprintf(stderr, "echo-agent: cannot listen on port %u (%d)\n", p->port, WSAGetLastError());
      continue;
    }
    if (start_server(&servers[i], p->port, p->sock)) serving++;
  }
  int code = serving ? 0 : 1;

  bool done = !serving;
  while (!done) {
    DWORD timeout = INFINITE;
    EnterCriticalSection(&idle_lock);
    if (clients == 0) {
      ULONGLONG idle = GetTickCount64() - idle_since, life = agent.lifespan * 1000ull;
      timeout = idle >= life ? 0 : DWORD(life - idle);
    }
    LeaveCriticalSection(&idle_lock);
    if (timeout == 0) break;

    HANDLE wait[2] = {agent.event, client_gone};
    DWORD w = WaitForMultipleObjects(2, wait, FALSE, timeout);
    if (w == WAIT_FAILED) break;
    if (w != WAIT_OBJECT_0) continue;  // time-out or a client gone: the lifespan is reckoned again
    kivagent_event ev;
    while (!done && kivagent_next(&agent, &ev)) {
      switch (ev.kind) {
        case KIVAGENT_REMOVE:
          for (unsigned i = 0; i < agent.nports; i++)
            if (servers[i].port == ev.port) stop_server(&agent, &servers[i]);
          break;
        case KIVAGENT_EXIT:
        case KIVAGENT_CLOSED:
          done = true;
          break;
        case KIVAGENT_ERROR:
          fprintf(stderr, "echo-agent: line ignored (%d): %s\n", ev.code, ev.line);
          break;
        default:  // "reconfig": nothing the echo agent serves depends on the configuration
          break;
      }
    }
  }

  for (unsigned i = 0; servers && i < agent.nports; i++)
    InterlockedExchange(&servers[i].stopping, 1);
  kivagent_end(&agent);
  // Port threads may still be leaving their accept and clients still being served:
  // servers stays, and the end of the process takes the threads and their sockets.
  fflush(stderr);
  ExitProcess(static_cast<UINT>(code));
}
