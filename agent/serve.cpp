// kivagent_serve: the loop every agent of the library shares. One thread per port accepts,
// one thread per client runs the agent's function; the calling thread follows the
// manager's commands and the lifespan.
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "agent/kivagent.h"
#include "lib/heap.h"

namespace {

// An agent built against the first header sets this size; what it does not reach is zero.
constexpr size_t SERVING_FIRST = offsetof(kivagent_serving, stop_ms) + sizeof(DWORD);
// How long the end waits for an accept thread whose socket it closed: it ends at once,
// unless the system is starved.
constexpr DWORD ACCEPT_END_MS = 5000;

struct serving_state;

struct server {
  serving_state *st;
  unsigned port;
  SOCKET sock;
  volatile LONG stopping;  // set before the serving thread closes sock under the accept
  HANDLE accepting;        // its accept thread: the end waits for it, so that a connection it
                           // took just as the socket closed is counted and served
};

// Shared by the serving thread, the port threads and the client threads; the last to let
// go frees it, so kivagent_serve may return while clients are still being served.
struct serving_state {
  volatile LONG refs;
  kivagent_serving serving;
  CRITICAL_SECTION lock;
  unsigned clients;      // under lock
  ULONGLONG idle_since;  // under lock: since when there has been no client (GetTickCount64)
  HANDLE changed;        // auto reset: a client returned, the lifespan is reckoned again
  HANDLE stopping;       // manual reset: accept nothing more
  HANDLE stop;           // manual reset: the clients' grace is over
  HANDLE places;         // semaphore of max free places; null without a limit
  server *servers;
  unsigned nservers;
};

void release(serving_state *st) {
  if (InterlockedDecrement(&st->refs) != 0) return;
  for (HANDLE h : {st->changed, st->stopping, st->stop, st->places})
    if (h) CloseHandle(h);
  DeleteCriticalSection(&st->lock);
  xfree(st->servers);
  xfree(st);
}

HANDLE thread(LPTHREAD_START_ROUTINE run, void *arg) {
  return CreateThread(nullptr, 64 * 1024, run, arg, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
}

unsigned clients(serving_state *st) {
  EnterCriticalSection(&st->lock);
  unsigned n = st->clients;
  LeaveCriticalSection(&st->lock);
  return n;
}

void client_left(serving_state *st) {
  EnterCriticalSection(&st->lock);
  if (--st->clients == 0) st->idle_since = GetTickCount64();
  LeaveCriticalSection(&st->lock);
  if (st->places) ReleaseSemaphore(st->places, 1, nullptr);
  SetEvent(st->changed);
}

struct client_run {
  serving_state *st;
  kivagent_client client;
};

DWORD WINAPI client_thread(void *arg) {
  auto *run = static_cast<client_run *>(arg);
  serving_state *st = run->st;
  st->serving.client(&run->client);
  xfree(run);
  client_left(st);
  release(st);
  return 0;
}

// Counts the client in and gives it a thread; without one its connection is closed.
void serve_client(server *sv, SOCKET c, const sockaddr_storage &peer, int peerlen) {
  serving_state *st = sv->st;
  EnterCriticalSection(&st->lock);
  st->clients++;
  LeaveCriticalSection(&st->lock);
  auto *run = static_cast<client_run *>(xrealloc(nullptr, sizeof(client_run), nullptr));
  if (run) {
    memset(run, 0, sizeof *run);
    run->st = st;
    run->client.size = sizeof run->client;
    run->client.sock = c;
    run->client.port = sv->port;
    run->client.peer = peer;
    run->client.peerlen = peerlen;
    run->client.stop = st->stop;
    run->client.context = st->serving.context;
    InterlockedIncrement(&st->refs);
    if (HANDLE t = thread(client_thread, run)) {
      CloseHandle(t);
      return;
    }
    InterlockedDecrement(&st->refs);
    xfree(run);
  }
  closesocket(c);
  client_left(st);
}

// One port: a free place first (with a limit), then a connection. While every place is
// taken nothing is accepted, so further connections wait in the socket's backlog. A
// blocking accept takes every queued connection without depending on readiness notices.
DWORD WINAPI accept_loop(void *arg) {
  auto *sv = static_cast<server *>(arg);
  serving_state *st = sv->st;
  for (;;) {
    HANDLE wait[2] = {st->stopping, st->places};
    if (st->places && WaitForMultipleObjects(2, wait, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) break;
    // The port may have been removed while this thread waited for a place: its socket is
    // closed, and the number may already name another socket.
    if (sv->stopping) {
      if (st->places) ReleaseSemaphore(st->places, 1, nullptr);
      break;
    }
    sockaddr_storage peer;
    int peerlen = sizeof peer;
    SOCKET c = accept(sv->sock, reinterpret_cast<sockaddr *>(&peer), &peerlen);
    if (c != INVALID_SOCKET) {
      serve_client(sv, c, peer, peerlen);
      continue;
    }
    int error = WSAGetLastError();
    if (st->places) ReleaseSemaphore(st->places, 1, nullptr);
    // Closing the socket is how the serving thread ends a blocked accept.
    if (sv->stopping) break;
    // A client that gave up while queued costs nothing; other failures (out of sockets
    // or memory) get a pause, so that the loop does not spin while they last.
    if (error != WSAECONNRESET) WaitForSingleObject(st->stopping, 100);
  }
  release(st);
  return 0;
}

// Stops serving a port: its socket is closed, which also ends the thread's accept. The
// thread is not waited for: the port is closed either way.
void stop_server(kivagent *agent, server *sv) {
  InterlockedExchange(&sv->stopping, 1);
  kivagent_drop(agent, sv->port);
}

// Waits until no client is left or ms have passed.
void wait_clients(serving_state *st, DWORD ms) {
  ULONGLONG deadline = GetTickCount64() + ms;
  for (ULONGLONG now; clients(st) > 0 && (now = GetTickCount64()) < deadline;)
    WaitForSingleObject(st->changed, static_cast<DWORD>(deadline - now));
}

// True when a connection waits in the backlog of a port still served: the accepting thread
// is about to count it as a client.
bool waiting(serving_state *st) {
  for (unsigned i = 0; i < st->nservers; i++) {
    server *sv = &st->servers[i];
    if (!sv->st || sv->stopping) continue;
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(sv->sock, &ready);
    timeval now = {0, 0};
    if (select(0, &ready, nullptr, nullptr, &now) == 1) return true;
  }
  return false;
}

// Follows the manager: true at "exit" or the pipe's end. false once no client is left and,
// while accepting, the lifespan has passed since the last one with no connection waiting
// (so a lifespan of 0 still serves the connection that started the agent).
bool follow(serving_state *st, kivagent *agent, bool accepting) {
  for (;;) {
    // The backlog first: a connection taken from it since is counted by the time the count
    // is read, or at the latest when its accept thread ends, which the end waits for.
    bool queued = accepting && waiting(st);
    DWORD timeout = INFINITE;
    EnterCriticalSection(&st->lock);
    if (st->clients == 0) {
      ULONGLONG idle = GetTickCount64() - st->idle_since;
      ULONGLONG life = accepting ? agent->lifespan * 1000ull : 0;
      timeout = idle >= life ? 0 : static_cast<DWORD>(life - idle);
    }
    LeaveCriticalSection(&st->lock);
    // A queued connection's accept is a moment away: look again soon.
    if (timeout == 0 && queued) timeout = 50;
    if (timeout == 0) return false;
    HANDLE wait[2] = {agent->event, st->changed};
    DWORD w = WaitForMultipleObjects(2, wait, FALSE, timeout);
    if (w == WAIT_FAILED) return true;
    if (w != WAIT_OBJECT_0) continue;  // a client returned or time passed: reckon again
    kivagent_event ev;
    while (kivagent_next(agent, &ev)) {
      if (ev.kind == KIVAGENT_REMOVE) {
        for (unsigned i = 0; i < st->nservers; i++)
          if (st->servers[i].port == ev.port) stop_server(agent, &st->servers[i]);
      } else if (ev.kind == KIVAGENT_EXIT || ev.kind == KIVAGENT_CLOSED) {
        return true;
      } else if (ev.kind == KIVAGENT_ERROR) {
        fprintf(stderr, "%s: line ignored (%d): %s\n", st->serving.name, ev.code, ev.line);
      }  // "reconfig": what the library serves does not depend on the configuration
    }
  }
}

// Starts a thread for each port that can be served; returns how many there are.
unsigned start_servers(serving_state *st, kivagent *agent) {
  unsigned serving = 0;
  for (unsigned i = 0; i < agent->nports; i++) {
    kivagent_port *p = &agent->ports[i];
    server *sv = &st->servers[i];
    // An "on" port comes without a socket: listen on it as the manager would have.
    if (p->sock == INVALID_SOCKET &&
        kivagent_listen_on(p->port, p->address, KIVAGENT_BLOCKING, &p->sock) != 0) {
      fprintf(stderr, "%s: cannot listen on port %u (%d)\n", st->serving.name, p->port,
              WSAGetLastError());
      continue;
    }
    sv->st = st;
    sv->port = p->port;
    sv->sock = p->sock;
    InterlockedIncrement(&st->refs);
    sv->accepting = thread(accept_loop, sv);
    if (!sv->accepting) {
      InterlockedDecrement(&st->refs);
      sv->st = nullptr;
      continue;
    }
    serving++;
  }
  return serving;
}

serving_state *new_state(const kivagent_serving *serving, unsigned nports) {
  auto *st = static_cast<serving_state *>(xrealloc(nullptr, sizeof(serving_state), nullptr));
  if (!st) return nullptr;
  memset(st, 0, sizeof *st);
  st->refs = 1;
  InitializeCriticalSection(&st->lock);
  memcpy(&st->serving, serving, serving->size);
  st->idle_since = GetTickCount64();
  st->changed = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  st->stopping = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  st->stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  LONG max = static_cast<LONG>(serving->max);
  if (max > 0) st->places = CreateSemaphoreA(nullptr, max, max, nullptr);
  st->servers = static_cast<server *>(xrealloc(nullptr, (nports + 1) * sizeof(server), nullptr));
  if (st->servers) memset(st->servers, 0, (nports + 1) * sizeof(server));
  st->nservers = nports;
  if (!st->changed || !st->stopping || !st->stop || (max > 0 && !st->places) || !st->servers) {
    release(st);
    return nullptr;
  }
  return st;
}

}  // namespace

int kivagent_serve(int argc, char **argv, const kivagent_serving *serving) {
  // A larger record comes from a later header, with fields this library would not follow.
  if (!serving || serving->size < SERVING_FIRST || serving->size > sizeof *serving ||
      !serving->client) {
    fprintf(stderr, "kivagent: a serving record this library does not know\n");
    return KIVAGENT_EXIT_STARTUP;
  }
  const char *name = serving->name ? serving->name : "kivagent";
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return KIVAGENT_EXIT_STARTUP;
  kivagent agent;
  int r = kivagent_start(&agent, argc, argv, KIVAGENT_BLOCKING);
  serving_state *st = r == 0 ? new_state(serving, agent.nports) : nullptr;
  if (!st) {
    fprintf(stderr, "%s: no start-up from the port manager (%d)\n", name, r ? r : KIVAGENT_ENOMEM);
    kivagent_end(&agent);
    fflush(stderr);
    return r == KIVAGENT_EOF ? KIVAGENT_EXIT_DONE : KIVAGENT_EXIT_STARTUP;
  }
  st->serving.name = name;
  int code = KIVAGENT_EXIT_NOPORT;
  bool told = true;
  if (start_servers(st, &agent) > 0) {
    code = KIVAGENT_EXIT_DONE;
    told = follow(st, &agent, true);
  }
  SetEvent(st->stopping);
  for (unsigned i = 0; i < st->nservers; i++) stop_server(&agent, &st->servers[i]);
  // An accept that returned a connection as its socket closed counts it before its thread
  // ends: only then is the count of clients final.
  for (unsigned i = 0; i < st->nservers; i++) {
    if (!st->servers[i].accepting) continue;
    WaitForSingleObject(st->servers[i].accepting, ACCEPT_END_MS);
    CloseHandle(st->servers[i].accepting);
  }
  // A connection taken as the lifespan ended is served to its end, as any other.
  if (!told) follow(st, &agent, false);
  kivagent_end(&agent);
  wait_clients(st, st->serving.grace_ms);
  SetEvent(st->stop);
  wait_clients(st, st->serving.stop_ms);
  release(st);
  fflush(stderr);
  return code;
}
