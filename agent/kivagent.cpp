#include "agent/kivagent.h"

#include <ws2tcpip.h>

#include <cstdint>
#include <cstring>

#include "lib/b64.h"
#include "lib/heap.h"
#include "lib/wire.h"

static_assert(sizeof(WSAPROTOCOL_INFOA) == WIRE_INFO_SIZE,
              "the manager hands over the protocol information");
static_assert(KIVAGENT_MAXLINE >= WIRE_PORT_LINE_MAX, "a port line for port 65535 must fit");

// Shared by the agent's thread and the reader thread; the last of the two to let go
// frees it, so kivagent_end never has to wait for a read that may block for ever.
struct kivagent_state {
  volatile LONG refs;
  HANDLE pipe;
  HANDLE event;
  HANDLE thread;
  CRITICAL_SECTION lock;
  // Pending events, a ring of cap entries starting at head.
  kivagent_event *queue;
  unsigned cap, head, count;
  bool lost;  // an event could not be queued for want of memory
  // Bytes read from the pipe and not yet split into lines: buf[pos..end).
  char buf[4096];
  unsigned pos, end;
};

static void release(kivagent_state *s) {
  if (InterlockedDecrement(&s->refs) != 0) return;
  if (s->pipe) CloseHandle(s->pipe);
  if (s->event) CloseHandle(s->event);
  DeleteCriticalSection(&s->lock);
  xfree(s->queue);
  xfree(s);
}

static void push(kivagent_state *s, const kivagent_event &ev) {
  EnterCriticalSection(&s->lock);
  if (s->count == s->cap) {
    unsigned cap = s->cap ? s->cap * 2 : 16;
    auto *q =
        static_cast<kivagent_event *>(xrealloc(nullptr, cap * sizeof(kivagent_event), nullptr));
    if (q) {
      for (unsigned i = 0; i < s->count; i++) q[i] = s->queue[(s->head + i) % s->cap];
      xfree(s->queue);
      s->queue = q;
      s->cap = cap;
      s->head = 0;
    }
  }
  if (s->count < s->cap) {
    s->queue[(s->head + s->count) % s->cap] = ev;
    s->count++;
  } else {
    // The pipe must still be drained (the manager writes synchronously), so the event is
    // dropped and the agent told that something was lost.
    s->lost = true;
  }
  SetEvent(s->event);
  LeaveCriticalSection(&s->lock);
}

static void push_kind(kivagent_state *s, kivagent_kind kind, unsigned port) {
  kivagent_event ev{};
  ev.kind = kind;
  ev.port = port;
  push(s, ev);
}

static void push_error(kivagent_state *s, int code, unsigned port, const char *line) {
  kivagent_event ev{};
  ev.kind = KIVAGENT_ERROR;
  ev.code = code;
  ev.port = port;
  size_t n = strnlen(line, sizeof ev.line - 1);
  memcpy(ev.line, line, n);
  ev.line[n] = '\0';
  push(s, ev);
}

// read_line below, zero bytes and all.
static int read_raw_line(kivagent_state *s, char *line) {
  unsigned len = 0;
  bool over = false;
  for (;;) {
    while (s->pos < s->end) {
      char c = s->buf[s->pos++];
      if (c == '\n') {
        if (!over && len > 0 && line[len - 1] == '\r') len--;
        line[len] = '\0';
        return over ? KIVAGENT_EOVERFLOW : static_cast<int>(len);
      }
      if (len < KIVAGENT_MAXLINE)
        line[len++] = c;
      else
        over = true;
    }
    DWORD got = 0;
    BOOL ok = ReadFile(s->pipe, s->buf, sizeof s->buf, &got, nullptr);
    // A zero-byte write at the other end reads as success with nothing; the end of the
    // pipe reads as a failure (ERROR_BROKEN_PIPE).
    if (ok && got == 0) continue;
    if (!ok) {
      // A last line without its end is still the manager's word; handle it as a line.
      line[len] = '\0';
      if (len == 0) return KIVAGENT_EOF;
      s->pos = s->end = 0;
      return over ? KIVAGENT_EOVERFLOW : static_cast<int>(len);
    }
    s->pos = 0;
    s->end = got;
  }
}

// A decimal port number 1..65535 filling text[0..len): no sign, no blanks, at most 5 digits.
static unsigned parse_port(const char *text, size_t len) {
  if (len == 0 || len > 5) return 0;
  unsigned v = 0;
  for (size_t i = 0; i < len; i++) {
    if (text[i] < '0' || text[i] > '9') return 0;
    v = v * 10 + unsigned(text[i] - '0');
  }
  return v <= 65535 ? v : 0;
}

// Reads the next line into line (KIVAGENT_MAXLINE + 1 bytes), without its LF and the CR
// before it. Returns its length; KIVAGENT_EOVERFLOW for a longer line, which is skipped up
// to its LF (line keeps its start); KIVAGENT_EINVAL for a line with a zero byte, which
// would otherwise read as its part before the zero; KIVAGENT_EOF when the pipe is closed
// or broken.
static int read_line(kivagent_state *s, char *line) {
  int n = read_raw_line(s, line);
  if (n > 0 && strlen(line) != size_t(n)) return KIVAGENT_EINVAL;
  return n;
}

static bool starts(const char *line, const char *word) {
  return strncmp(line, word, strlen(word)) == 0;
}

static int set_mode(SOCKET sock, unsigned flags) {
  u_long nonblocking = (flags & KIVAGENT_NONBLOCKING) ? 1 : 0;
  return ioctlsocket(sock, FIONBIO, &nonblocking) == SOCKET_ERROR ? KIVAGENT_ESYS : 0;
}

static int add_port(kivagent *a, unsigned port, SOCKET sock, const char *address) {
  char *copy = nullptr;
  if (address && !(copy = xstrdup(address, nullptr))) return KIVAGENT_ENOMEM;
  void *grown = xrealloc(a->ports, (a->nports + 1) * sizeof(kivagent_port), nullptr);
  if (!grown) {
    xfree(copy);
    return KIVAGENT_ENOMEM;
  }
  a->ports = static_cast<kivagent_port *>(grown);
  a->ports[a->nports].port = port;
  a->ports[a->nports].sock = sock;
  a->ports[a->nports].address = copy;
  a->nports++;
  return 0;
}

// One port line: "-Ptcp::<port>", "-Ptcp::<port>@<base64>" or "-Ptcp:<address>:<port>"
// (brackets around an IPv6 address). Errors become events.
static void port_line(kivagent *a, const char *line, unsigned flags) {
  kivagent_state *s = a->state;
  const char *number = line + strlen(WIRE_PORT);
  const char *at = nullptr;
  char address[WIRE_ADDRESS_MAX + 1] = "";
  if (!starts(line, WIRE_PORT)) {
    // The address runs to the last ":" (after the "]" of a bracketed one).
    const char *text = line + strlen(WIRE_PORT_AT);
    bool bracket = text[0] == '[';
    const char *close = bracket ? strchr(text, ']') : nullptr;
    const char *colon = strrchr(text, ':');
    const char *first = text + bracket, *last = bracket ? close : colon;
    if (!last || !colon || (bracket && colon != close + 1) || last == first ||
        size_t(last - first) > WIRE_ADDRESS_MAX)
      return push_error(s, KIVAGENT_EINVAL, 0, line);
    memcpy(address, first, size_t(last - first));
    address[last - first] = '\0';
    number = colon + 1;
  } else {
    at = strchr(number, '@');
  }
  unsigned port = parse_port(number, at ? size_t(at - number) : strlen(number));
  if (!port) return push_error(s, KIVAGENT_EINVAL, 0, line);
  for (unsigned i = 0; i < a->nports; i++)
    if (a->ports[i].port == port) return push_error(s, KIVAGENT_EINVAL, port, line);
  SOCKET sock = INVALID_SOCKET;
  if (at) {
    WSAPROTOCOL_INFOA info;
    int textlen = static_cast<int>(strlen(at + 1));
    if (textlen != WIRE_INFO_TEXT ||
        b64_decode(at + 1, textlen, &info, sizeof info) != int(sizeof info))
      return push_error(s, KIVAGENT_EINVAL, port, line);
    // With the flags the manager made it with, as a duplicated socket must be rebuilt.
    sock = WSASocketA(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0,
                      WIRE_SOCKET_FLAGS);
    if (sock == INVALID_SOCKET) return push_error(s, KIVAGENT_ESYS, port, line);
    // Agents start programs of their own; none of them is to inherit a listening socket.
    SetHandleInformation(reinterpret_cast<HANDLE>(sock), HANDLE_FLAG_INHERIT, 0);
    // The manager's event selection left the socket non-blocking; set what was asked for.
    if (set_mode(sock, flags) != 0) push_error(s, KIVAGENT_ESYS, port, line);
  }
  if (add_port(a, port, sock, address[0] ? address : nullptr) != 0) {
    if (sock != INVALID_SOCKET) closesocket(sock);
    push_error(s, KIVAGENT_ENOMEM, port, line);
  }
}

// The commands that may come at any time. Returns false for a line that is none of them.
static bool command_line(kivagent_state *s, const char *line) {
  if (strcmp(line, WIRE_EXIT) == 0) {
    push_kind(s, KIVAGENT_EXIT, 0);
  } else if (strcmp(line, WIRE_RECONFIG) == 0) {
    push_kind(s, KIVAGENT_RECONFIG, 0);
  } else if (starts(line, WIRE_REMOVE)) {
    const char *number = line + strlen(WIRE_REMOVE);
    unsigned port = parse_port(number, strlen(number));
    if (port)
      push_kind(s, KIVAGENT_REMOVE, port);
    else
      push_error(s, KIVAGENT_EINVAL, 0, line);
  } else {
    return false;
  }
  return true;
}

// The public header cannot include the wire contract, so its default is checked here.
static_assert(KIVAGENT_DEFAULT_LIFESPAN == WIRE_DEFAULT_LIFESPAN, "one default lifespan");

// "lifespan <seconds>": digits only, at most WIRE_LIFESPAN_MAX (its milliseconds fit 32
// bits), so no more than its seven digits.
static bool parse_lifespan(const char *text, unsigned long *out) {
  size_t len = strlen(text);
  if (len == 0 || len > 7) return false;
  unsigned long v = 0;
  for (size_t i = 0; i < len; i++) {
    if (text[i] < '0' || text[i] > '9') return false;
    v = v * 10 + unsigned(text[i] - '0');
  }
  if (v > WIRE_LIFESPAN_MAX) return false;
  *out = v;
  return true;
}

static DWORD WINAPI reader(void *arg) {
  auto *s = static_cast<kivagent_state *>(arg);
  char line[KIVAGENT_MAXLINE + 1];
  for (;;) {
    int n = read_line(s, line);
    if (n == KIVAGENT_EOF) break;
    if (n < 0)
      push_error(s, n, 0, line);
    else if (!command_line(s, line))
      push_error(s, KIVAGENT_EINVAL, 0, line);
  }
  push_kind(s, KIVAGENT_CLOSED, 0);
  release(s);
  return 0;
}

// The value of "-C0x<hex>" as the manager writes it ("%#x"); 0 when it is not one.
static uintptr_t parse_handle(const char *text) {
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text += 2;
  if (!*text || strlen(text) > 2 * sizeof(uintptr_t)) return 0;
  uintptr_t v = 0;
  for (; *text; text++) {
    char c = *text;
    unsigned d;
    if (c >= '0' && c <= '9')
      d = unsigned(c - '0');
    else if (c >= 'a' && c <= 'f')
      d = unsigned(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
      d = unsigned(c - 'A' + 10);
    else
      return 0;
    v = v * 16 + d;
  }
  return v;
}

int kivagent_start(kivagent *a, int argc, char **argv, unsigned flags) {
  if (!a) return KIVAGENT_EINVAL;
  memset(a, 0, sizeof *a);
  a->lifespan = KIVAGENT_DEFAULT_LIFESPAN;
  const char *pipearg = nullptr;
  for (int i = 1; i < argc && argv && argv[i]; i++) {
    // The manager writes -C last; fixed or extra arguments before it are the agent's own.
    if (starts(argv[i], "-C"))
      pipearg = argv[i] + 2;
    else if (starts(argv[i], "-D") && !a->debug)
      a->debug = argv[i] + 2;
  }
  uintptr_t value = pipearg ? parse_handle(pipearg) : 0;
  HANDLE pipe = reinterpret_cast<HANDLE>(value);
  if (!value || GetFileType(pipe) != FILE_TYPE_PIPE) return KIVAGENT_EINVAL;

  auto *s = static_cast<kivagent_state *>(xrealloc(nullptr, sizeof(kivagent_state), nullptr));
  if (!s) return KIVAGENT_ENOMEM;
  memset(s, 0, sizeof *s);
  s->refs = 1;
  InitializeCriticalSection(&s->lock);
  s->event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  if (!s->event) {
    release(s);
    return KIVAGENT_ESYS;
  }
  // The pipe is ours from here on: released with the state.
  s->pipe = pipe;
  // The agent's own programs are not to inherit it.
  SetHandleInformation(pipe, HANDLE_FLAG_INHERIT, 0);
  a->state = s;
  a->event = s->event;

  char line[KIVAGENT_MAXLINE + 1];
  for (;;) {
    int n = read_line(s, line);
    if (n == KIVAGENT_EOF) {
      push_kind(s, KIVAGENT_CLOSED, 0);
      return KIVAGENT_EOF;
    }
    if (n < 0) {
      push_error(s, n, 0, line);
    } else if (starts(line, WIRE_PORT_AT)) {
      port_line(a, line, flags);
    } else if (starts(line, WIRE_LIFESPAN)) {
      // An unreadable lifespan keeps the manager's own default; the start-up ends anyway.
      if (!parse_lifespan(line + strlen(WIRE_LIFESPAN), &a->lifespan))
        push_error(s, KIVAGENT_EINVAL, 0, line);
      break;
    } else if (strcmp(line, WIRE_END_PORTS) != 0 && !command_line(s, line)) {
      push_error(s, KIVAGENT_EINVAL, 0, line);
    }
  }

  InterlockedIncrement(&s->refs);
  s->thread =
      CreateThread(nullptr, 64 * 1024, reader, s, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (!s->thread) {
    InterlockedDecrement(&s->refs);
    return KIVAGENT_ESYS;
  }
  return 0;
}

int kivagent_next(kivagent *a, kivagent_event *ev) {
  if (!ev) return 0;
  memset(ev, 0, sizeof *ev);
  kivagent_state *s = a ? a->state : nullptr;
  if (!s) return 0;
  EnterCriticalSection(&s->lock);
  int got = 1;
  if (s->lost) {
    s->lost = false;
    ev->kind = KIVAGENT_ERROR;
    ev->code = KIVAGENT_ENOMEM;
  } else if (s->count > 0) {
    *ev = s->queue[s->head];
    s->head = (s->head + 1) % s->cap;
    s->count--;
  } else {
    got = 0;
  }
  // Reset under the lock: the reader sets the event under it too, so none is missed.
  if (!s->lost && s->count == 0) ResetEvent(s->event);
  LeaveCriticalSection(&s->lock);
  return got;
}

int kivagent_drop(kivagent *a, unsigned port) {
  for (unsigned i = 0; a && i < a->nports; i++) {
    if (a->ports[i].port != port) continue;
    if (a->ports[i].sock != INVALID_SOCKET) closesocket(a->ports[i].sock);
    a->ports[i].sock = INVALID_SOCKET;
    return 0;
  }
  return KIVAGENT_EINVAL;
}

int kivagent_listen(unsigned port, unsigned flags, SOCKET *out) {
  return kivagent_listen_on(port, nullptr, flags, out);
}

int kivagent_listen_on(unsigned port, const char *address, unsigned flags, SOCKET *out) {
  *out = INVALID_SOCKET;
  if (port == 0 || port > 65535) return KIVAGENT_EINVAL;
  sockaddr_storage addr{};
  int addrlen = sizeof(sockaddr_in);
  auto *v4 = reinterpret_cast<sockaddr_in *>(&addr);
  v4->sin_family = AF_INET;
  v4->sin_port = htons(static_cast<u_short>(port));
  v4->sin_addr.s_addr = htonl(INADDR_ANY);
  if (address) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo(address, nullptr, &hints, &found) != 0 || !found ||
        found->ai_addrlen > sizeof addr) {
      if (found) freeaddrinfo(found);
      return KIVAGENT_EINVAL;
    }
    memcpy(&addr, found->ai_addr, found->ai_addrlen);
    addrlen = static_cast<int>(found->ai_addrlen);
    freeaddrinfo(found);
    // Both families keep the port at the same offset.
    v4->sin_port = htons(static_cast<u_short>(port));
  }
  SOCKET sock = WSASocketA(addr.ss_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WIRE_SOCKET_FLAGS);
  if (sock == INVALID_SOCKET) return KIVAGENT_ESYS;
  SetHandleInformation(reinterpret_cast<HANDLE>(sock), HANDLE_FLAG_INHERIT, 0);
  // "::" takes IPv4 clients too, as the manager's own listening does.
  DWORD v6only = 0;
  if ((addr.ss_family == AF_INET6 &&
       setsockopt(sock, IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char *>(&v6only),
                  sizeof v6only) == SOCKET_ERROR) ||
      bind(sock, reinterpret_cast<sockaddr *>(&addr), addrlen) == SOCKET_ERROR ||
      listen(sock, WIRE_LISTEN_BACKLOG) == SOCKET_ERROR || set_mode(sock, flags) != 0) {
    int err = WSAGetLastError();
    closesocket(sock);
    WSASetLastError(err);
    return KIVAGENT_ESYS;
  }
  *out = sock;
  return 0;
}

void kivagent_end(kivagent *a) {
  if (!a) return;
  for (unsigned i = 0; i < a->nports; i++) {
    if (a->ports[i].sock != INVALID_SOCKET) closesocket(a->ports[i].sock);
    xfree(const_cast<char *>(a->ports[i].address));
  }
  xfree(a->ports);
  if (kivagent_state *s = a->state) {
    if (s->thread) {
      // Best effort: a reader still blocked in ReadFile keeps the state alive until the
      // pipe closes, which at the latest happens when the process ends.
      CancelSynchronousIo(s->thread);
      CloseHandle(s->thread);
    }
    release(s);
  }
  memset(a, 0, sizeof *a);
}
