// The hand-over: every record written as a block of text for another process, each socket
// and handle duplicated into it, and the records built back from such a block.
//
// The block, version 2: lines that end in LF, fields separated by one blank.
//   kivd-handover 2
//   kivd counts=<counts>
//   service name=<text> ring=<text> counts=<counts> starts=<n> period_start=<n>
//   agent pid=<n> process=<handle> pipe=<handle> job=<handle> owed=<n>
//   port number=<n> start=<n> service=<text> address=<text> agent=<index> socket=<info>
//        parent=<handle> extra_args=<text> ring=<text> counts=<counts> parent_pid=<n>
//        flags=<n> until=<n>
//   prog name=<text> program=<text> pid=<n> process=<handle> job=<handle> ring=<text>
//        counts=<counts>
//        flags=<n> until=<n> starts=<n> period_start=<n>
//   end
// (each record on one line). The kinds come in that order: kivd's own, services, agents, ports as
// their list holds them (ascending, a removed record before its successor), programs;
// each line has exactly its kind's fields in that order, and nothing follows "end".
// <text> is "-" for none, else the base64 of its bytes (no zero byte), so that blanks and
// line ends in names cannot break a line; <handle> is "-" or a handle value of the
// receiver in hex ("0x1a4"), named once in the block; <info> is "-" or the base64 of the
// WSAPROTOCOL_INFOA duplicated for the receiver; <index> is "-" or the agent's place among
// the agent lines, from 0; <n> is a decimal number in its field's range. The numbers that
// end a line come from one table per kind (SERVICE_NUMBERS ...): a new field is one entry
// there, and a changed layout a new version. <counts> is the record's (or kivd's own)
// counters (toolkit/runtime/counters.h), each decimal, comma-separated, exactly as many as
// its kind has: they travel with the records, and so does a record's ring of recent events
// (`why`), its lines joined by line ends in one <text>.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "lib/b64.h"
#include "lib/heap.h"
#include "lib/printf.h"
#include "lib/wire.h"
#include "ports/internal.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/memory.h"

namespace {

const char TAG[] = "ssock.handover";
const char HEADER[] = "kivd-handover 2\n";
constexpr size_t HEADER_LENGTH = sizeof HEADER - 1;

// A number of a record: its key, where it is, how it is stored and its range.
struct number_field {
  const char *key;
  size_t offset;
  unsigned size;
  bool is_signed;
  long long min;
  unsigned long long max;
};

#define KIV_NUMBER(record, member, min, max)                         \
  number_field {                                                     \
#member, offsetof(record, member), sizeof(record::member),       \
        std::is_signed < decltype(record::member)> ::value, min, max \
  }

constexpr long long TIME_MAX = LLONG_MAX;
constexpr unsigned PORT_FLAGS =
    PORT_REMOVE | PORT_TOLD | PORT_DISABLED | PORT_EXIT | PORT_ADOPTED | PORT_REST;
constexpr unsigned PROG_FLAGS = PROG_REMOVE | PROG_DISABLED | PROG_KILLED | PROG_ADOPTED;
// A range from 0 holds every combination of the flags only while they are contiguous bits.
static_assert((PORT_FLAGS & (PORT_FLAGS + 1)) == 0 && (PROG_FLAGS & (PROG_FLAGS + 1)) == 0,
              "flag ranges");

constexpr number_field SERVICE_NUMBERS[] = {
    KIV_NUMBER(service_record, starts, 0, INT_MAX),
    KIV_NUMBER(service_record, period_start, 0, TIME_MAX),
};
constexpr number_field AGENT_NUMBERS[] = {
    KIV_NUMBER(child_record, owed, 0, sizeof WIRE_RECONFIG "\r\n" - 1),
};
constexpr number_field PORT_NUMBERS[] = {
    KIV_NUMBER(port_record, parent_pid, 0, UINT32_MAX),
    KIV_NUMBER(port_record, flags, 0, PORT_FLAGS),
    KIV_NUMBER(port_record, until, 0, TIME_MAX),
};
constexpr number_field PROG_NUMBERS[] = {
    KIV_NUMBER(prog_record, flags, 0, PROG_FLAGS),
    KIV_NUMBER(prog_record, until, 0, TIME_MAX),
    KIV_NUMBER(prog_record, starts, 0, INT_MAX),
    KIV_NUMBER(prog_record, period_start, 0, TIME_MAX),
};

// load and store know these sizes.
template <size_t N>
constexpr bool sized(const number_field (&table)[N]) {
  for (const number_field &f : table)
    if (!(f.size == 4 || f.size == 8 || (f.size == 2 && !f.is_signed))) return false;
  return true;
}
static_assert(sized(SERVICE_NUMBERS) && sized(AGENT_NUMBERS) && sized(PORT_NUMBERS) &&
                  sized(PROG_NUMBERS),
              "a number field of a size load and store know");

// A value as sign and magnitude, so that every field size and signedness fits.
struct number {
  bool negative;
  unsigned long long magnitude;
};

number load(const void *record, const number_field &f) {
  const char *at = static_cast<const char *>(record) + f.offset;
  long long value = 0;
  if (f.is_signed) {
    if (f.size == 4) {
      int32_t v;
      memcpy(&v, at, 4);
      value = v;
    } else {
      memcpy(&value, at, 8);
    }
    return {value < 0, value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                                 : static_cast<unsigned long long>(value)};
  }
  unsigned long long u = 0;
  if (f.size == 2) {
    uint16_t v;
    memcpy(&v, at, 2);
    u = v;
  } else if (f.size == 4) {
    uint32_t v;
    memcpy(&v, at, 4);
    u = v;
  } else {
    memcpy(&u, at, 8);
  }
  return {false, u};
}

// Stores a value already checked against the field's range.
void store(void *record, const number_field &f, number n) {
  char *at = static_cast<char *>(record) + f.offset;
  unsigned long long bits = n.negative ? 0ULL - n.magnitude : n.magnitude;
  if (f.size == 2) {
    auto v = static_cast<uint16_t>(bits);
    memcpy(at, &v, 2);
  } else if (f.size == 4) {
    auto v = static_cast<uint32_t>(bits);
    memcpy(at, &v, 4);
  } else {
    memcpy(at, &bits, 8);
  }
}

// ---- Writing ----

struct writer {
  dstr *out;
  bool failed = false;

  void text(const char *s, int count = -1) {
    if (!failed && dstr_append(out, s, count) < 0) failed = true;
  }
  void key(const char *k) {
    text(" ");
    text(k);
    text("=");
  }
  void decimal(number n) {
    char digits[24];
    int i = sizeof digits;
    digits[--i] = '\0';
    do {
      digits[--i] = static_cast<char>('0' + n.magnitude % 10);
      n.magnitude /= 10;
    } while (n.magnitude);
    if (n.negative) digits[--i] = '-';
    text(digits + i);
  }
  void value(const char *k, unsigned long long n) {
    key(k);
    decimal({false, n});
  }
  void bytes(const char *k, const void *data, int count) {
    key(k);
    auto *b64 = static_cast<char *>(kiv_alloc(static_cast<unsigned>((count + 2) / 3 * 4 + 1), TAG));
    if (!b64) {
      failed = true;
      return;
    }
    b64[0] = '\0';  // an empty text encodes to nothing
    b64_encode(data, count, b64);
    text(b64);
    xfree(b64);
  }
  void string(const char *k, const char *s) {
    if (s)
      bytes(k, s, static_cast<int>(strlen(s)));
    else
      key(k), text("-");
  }
  void handle(const char *k, HANDLE h) {
    key(k);
    if (!h) return text("-");
    // Handle values fit in 32 bits, as an agent's -C relies on too.
    char hex[16];
    xsnprintf(hex, sizeof hex, "%#x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(h)));
    text(hex);
  }
  void ring(const kivev_ring *r) {
    std::string lines;
    for (int i = 0; const char *line = kivev_kept(r, i); i++) (lines += line) += '\n';
    string("ring", lines.empty() ? nullptr : lines.c_str());
  }
  void counts(const uint64_t *values, int n) {
    key("counts");
    for (int i = 0; i < n; i++) {
      if (i) text(",");
      decimal({false, values[i]});
    }
  }
  template <size_t N>
  void numbers(const number_field (&table)[N], const void *record) {
    for (const number_field &f : table) {
      key(f.key);
      decimal(load(record, f));
    }
    text("\n");
  }
};

// kivd's own counts, in their rows' order.
constexpr int KIVD_FIRST = kiv_stats_first(WIRE_OF_KIVD);
constexpr int KIVD_COUNTS = kiv_stats_rows(WIRE_OF_KIVD);

// The handles made in the target, closed there again when the hand-over fails.
struct duplicates {
  HANDLE target;
  std::vector<HANDLE> made;

  bool make(HANDLE h, HANDLE *out, DWORD *error) {
    *out = nullptr;
    if (!h) return true;
    if (!DuplicateHandle(GetCurrentProcess(), h, target, out, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
      *error = GetLastError();
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "DuplicateHandle() failed %d",
                   static_cast<int>(*error));
      return false;
    }
    made.push_back(*out);
    return true;
  }
  void undo() {
    for (HANDLE h : made)
      DuplicateHandle(target, h, nullptr, nullptr, 0, FALSE, DUPLICATE_CLOSE_SOURCE);
  }
};

// ---- Reading ----

enum class handle_kind { PROCESS, PIPE, JOB, WAITABLE };

// Builds the records of one block into the (emptied) lists; every handle and socket it
// takes over is owned by a linked record or by `agents` at once, so that a failure
// anywhere leaves nothing that the caller's teardown does not close.
struct reader {
  const char *at, *end;  // the rest of the block
  const char *word_at;   // the rest of the current line
  const char *line_end;
  std::vector<child_record *> agents;
  std::vector<HANDLE> taken;
  port_record *last_port = nullptr;
  prog_record *last_prog = nullptr;
  int rc = 0;

  bool fail(int code = KIV_EINVAL) {
    if (rc == 0) rc = code;
    return false;
  }

  bool next_line() {
    const char *lf = static_cast<const char *>(memchr(at, '\n', static_cast<size_t>(end - at)));
    if (!lf) return fail();
    word_at = at;
    line_end = lf;
    at = lf + 1;
    return true;
  }
  // The next word of the line; words are separated by exactly one blank.
  bool word(const char **text, size_t *length) {
    if (word_at >= line_end) return fail();
    const char *blank =
        static_cast<const char *>(memchr(word_at, ' ', static_cast<size_t>(line_end - word_at)));
    const char *stop = blank ? blank : line_end;
    *text = word_at;
    *length = static_cast<size_t>(stop - word_at);
    word_at = blank ? blank + 1 : line_end;
    if (*length == 0 || (blank && word_at == line_end)) return fail();
    return true;
  }
  bool line_done() { return word_at == line_end || fail(); }
  // The value of the next word, which must be key=value.
  bool field(const char *key, const char **value, size_t *length) {
    const char *w;
    size_t n;
    if (!word(&w, &n)) return false;
    size_t k = strlen(key);
    if (n <= k || memcmp(w, key, k) != 0 || w[k] != '=') return fail();
    *value = w + k + 1;
    *length = n - k - 1;
    return true;
  }
  static bool none(const char *v, size_t n) { return n == 1 && *v == '-'; }

  // Canonical decimal only (no sign but a needed "-", no leading zero), within the range.
  bool decimal(const char *key, long long min, unsigned long long max, number *out) {
    const char *v;
    size_t n;
    return field(key, &v, &n) && decimal_text(v, n, min, max, out);
  }
  bool decimal_text(const char *v, size_t n, long long min, unsigned long long max, number *out) {
    if (n == 0) return fail();
    out->negative = *v == '-';
    if (out->negative) v++, n--;
    if (n == 0 || n > 20 || (n > 1 && *v == '0')) return fail();
    unsigned long long m = 0;
    for (size_t i = 0; i < n; i++) {
      if (v[i] < '0' || v[i] > '9') return fail();
      unsigned digit = static_cast<unsigned>(v[i] - '0');
      if (m > (ULLONG_MAX - digit) / 10) return fail();
      m = m * 10 + digit;
    }
    out->magnitude = m;
    if (out->negative)
      return (m != 0 && min < 0 && m <= 0ULL - static_cast<unsigned long long>(min)) || fail();
    return ((min <= 0 || m >= static_cast<unsigned long long>(min)) && m <= max) || fail();
  }
  bool unsigned_value(const char *key, unsigned long long min, unsigned long long max,
                      unsigned long long *out) {
    number n;
    if (!decimal(key, static_cast<long long>(min), max, &n)) return false;
    *out = n.magnitude;
    return true;
  }
  // Exactly n comma-separated counts, each canonical decimal.
  bool counts(uint64_t *values, int n) {
    const char *v;
    size_t length;
    if (!field("counts", &v, &length)) return false;
    const char *stop = v + length;
    for (int i = 0; i < n; i++) {
      const char *comma = static_cast<const char *>(memchr(v, ',', static_cast<size_t>(stop - v)));
      const char *piece_end = comma ? comma : stop;
      number value;
      if ((i + 1 < n) != (comma != nullptr) ||
          !decimal_text(v, static_cast<size_t>(piece_end - v), 0, ULLONG_MAX, &value))
        return fail();
      values[i] = value.magnitude;
      v = comma ? comma + 1 : stop;
    }
    return true;
  }
  // A record's ring: the lines of the text, each kept as the record's.
  bool ring(kivev_ring **r) {
    char *lines;
    if (!text("ring", &lines, false)) return false;
    for (char *line = lines; line && *line;) {
      char *end = strchr(line, '\n');
      if (end) *end = '\0';
      kivev_keep_line(r, line);
      line = end ? end + 1 : nullptr;
    }
    xfree(lines);
    return true;
  }
  uint64_t kivd[KIVD_COUNTS] = {};
  bool kivd_seen = false;
  bool kivd_line() { return counts(kivd, KIVD_COUNTS) && line_done(); }

  template <size_t N>
  bool numbers(const number_field (&table)[N], void *record) {
    for (const number_field &f : table) {
      number n;
      if (!decimal(f.key, f.min, f.max, &n)) return false;
      store(record, f, n);
    }
    return line_done();
  }

  // A text field: *out null for "-", else a new zero-terminated copy of its bytes.
  bool text(const char *key, char **out, bool required) {
    *out = nullptr;
    const char *v;
    size_t n;
    if (!field(key, &v, &n)) return false;
    if (none(v, n)) return !required || fail();
    if (n % 4 != 0 || n > INT_MAX) return fail();
    auto *s = static_cast<char *>(kiv_alloc(static_cast<unsigned>(n / 4 * 3 + 1), TAG));
    if (!s) return fail(KIV_ENOMEM);
    int length = b64_decode(v, static_cast<int>(n), s, static_cast<int>(n / 4 * 3));
    if (length < 0 || memchr(s, '\0', static_cast<size_t>(length))) {
      xfree(s);
      return fail();
    }
    s[length] = '\0';
    *out = s;
    return true;
  }

  // A handle of this process of the kind named, not named before; null for "-".
  bool handle(const char *key, handle_kind kind, DWORD pid, HANDLE *out) {
    *out = nullptr;
    const char *v;
    size_t n;
    if (!field(key, &v, &n)) return false;
    if (none(v, n)) return true;
    if (n < 3 || n > 10 || v[0] != '0' || v[1] != 'x' || v[2] == '0') return fail();
    uintptr_t value = 0;
    for (size_t i = 2; i < n; i++) {
      const char *digit = static_cast<const char *>(memchr("0123456789abcdef", v[i], 16));
      if (!digit) return fail();
      value = value * 16 + static_cast<uintptr_t>(digit - "0123456789abcdef");
    }
    HANDLE h = reinterpret_cast<HANDLE>(value);
    DWORD flags;
    // Handle values are multiples of 4; the pseudo handles of the process and thread are not.
    if (value % 4 != 0 || !GetHandleInformation(h, &flags)) return fail();
    for (HANDLE t : taken)
      if (t == h) return fail();
    bool right = false;
    if (kind == handle_kind::PROCESS) {
      right = GetProcessId(h) == pid;
    } else if (kind == handle_kind::PIPE) {
      right = GetFileType(h) == FILE_TYPE_PIPE;
    } else if (kind == handle_kind::JOB) {
      JOBOBJECT_BASIC_ACCOUNTING_INFORMATION info;
      right = QueryInformationJobObject(h, JobObjectBasicAccountingInformation, &info, sizeof info,
                                        nullptr);
    } else {
      right = WaitForSingleObject(h, 0) != WAIT_FAILED;
    }
    if (!right) return fail();
    taken.push_back(h);
    *out = h;
    return true;
  }

  bool service_line() {
    char *name;
    if (!text("name", &name, true)) return false;
    service_record *s = find_service(name) ? nullptr : addservice(name);
    xfree(name);
    if (!s) return fail();
    return ring(&s->ring) && counts(s->counts, KIV_SERVICE_COUNTS) && numbers(SERVICE_NUMBERS, s);
  }

  bool agent_line() {
    unsigned long long pid;
    if (!unsigned_value("pid", 1, UINT32_MAX, &pid)) return false;
    auto *c = static_cast<child_record *>(kiv_zalloc(sizeof(child_record), TAG));
    if (!c) return fail(KIV_ENOMEM);
    agents.push_back(c);
    c->pid = static_cast<DWORD>(pid);
    if (!handle("process", handle_kind::PROCESS, c->pid, &c->process)) return false;
    if (!c->process) return fail();
    return handle("pipe", handle_kind::PIPE, 0, &c->pipe) &&
           handle("job", handle_kind::JOB, 0, &c->job) && numbers(AGENT_NUMBERS, c);
  }

  bool port_line() {
    unsigned long long port, start;
    char *name;
    if (!unsigned_value("number", 1, 65535, &port) ||
        !unsigned_value("start", START_AUTO, START_ON, &start) || !text("service", &name, true))
      return false;
    service_record *svc = find_service(name);
    xfree(name);
    if (!svc) return fail();
    if (last_port && port < last_port->port) return fail();
    auto *p = static_cast<port_record *>(kiv_zalloc(sizeof(port_record), TAG));
    if (!p) return fail(KIV_ENOMEM);
    p->port = static_cast<uint16_t>(port);
    p->start = static_cast<int>(start);
    p->service = svc;
    p->sock = INVALID_SOCKET;
    svc->nports++;
    (last_port ? last_port->next : ssock_ports) = p;
    port_record *before = last_port;
    last_port = p;
    if (!text("address", &p->address, false)) return false;
    if (p->address && strlen(p->address) > WIRE_ADDRESS_MAX) return fail();
    const char *v;
    size_t n;
    if (!field("agent", &v, &n)) return false;
    if (!none(v, n)) {
      number index;
      if (agents.empty() || !decimal_text(v, n, 0, agents.size() - 1, &index)) return fail();
      p->agent = agents[index.magnitude];
    }
    if (!socket_field(p) || !handle("parent", handle_kind::WAITABLE, 0, &p->parent) ||
        !text("extra_args", &p->extra_args, false) || !ring(&p->ring) ||
        !counts(p->counts, KIV_PORT_COUNTS) || !numbers(PORT_NUMBERS, p))
      return false;
    // What only a hooked port has, what only an agent's port is, one live record a number.
    if ((p->start != START_HOOK && (p->parent || p->extra_args || p->parent_pid)) ||
        ((p->flags & PORT_TOLD) && !p->agent) ||
        (before && before->port == p->port && !(before->flags & PORT_REMOVE)))
      return fail();
    return true;
  }

  bool socket_field(port_record *p) {
    const char *v;
    size_t n;
    if (!field("socket", &v, &n)) return false;
    if (none(v, n)) return true;
    WSAPROTOCOL_INFOA info;
    if (n != WIRE_INFO_TEXT ||
        b64_decode(v, static_cast<int>(n), &info, sizeof info) != static_cast<int>(sizeof info))
      return fail();
    p->sock = WSASocketA(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0,
                         WIRE_SOCKET_FLAGS);
    if (p->sock == INVALID_SOCKET) {
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "Port %d: socket not taken over [%d]",
                   p->port, WSAGetLastError());
      return fail();
    }
    return true;
  }

  bool prog_line() {
    char *name;
    if (!text("name", &name, true)) return false;
    if (find_prog(name)) {
      xfree(name);
      return fail();
    }
    auto *g = static_cast<prog_record *>(kiv_zalloc(sizeof(prog_record), TAG));
    if (!g) {
      xfree(name);
      return fail(KIV_ENOMEM);
    }
    g->name = name;
    (last_prog ? last_prog->next : ssock_progs) = g;
    last_prog = g;
    unsigned long long pid;
    if (!text("program", &g->program, false) || !unsigned_value("pid", 0, UINT32_MAX, &pid))
      return false;
    g->pid = static_cast<DWORD>(pid);
    return handle("process", handle_kind::PROCESS, g->pid, &g->process) &&
           handle("job", handle_kind::JOB, 0, &g->job) && ring(&g->ring) &&
           counts(g->counts, KIV_PROGRAM_COUNTS) && numbers(PROG_NUMBERS, g);
  }

  int run() {
    static const char *const KINDS[] = {"kivd", "service", "agent", "port", "prog", "end"};
    constexpr size_t NKINDS = sizeof KINDS / sizeof KINDS[0];
    size_t rank = 0;
    while (next_line()) {
      const char *kind;
      size_t length;
      if (!word(&kind, &length)) break;
      size_t k = 0;
      while (k < NKINDS && !(strlen(KINDS[k]) == length && memcmp(kind, KINDS[k], length) == 0))
        k++;
      // kivd's own line comes first, once.
      if (k == NKINDS || k < rank || (k == 0) != (rank == 0 && !kivd_seen)) return fail(), rc;
      rank = k;
      kivd_seen = true;
      bool ok = k == 0   ? kivd_line()
                : k == 1 ? service_line()
                : k == 2 ? agent_line()
                : k == 3 ? port_line()
                : k == 4 ? prog_line()
                         : line_done();
      if (!ok) break;
      if (k == NKINDS - 1) {
        if (at != end) break;
        for (port_record *p = ssock_ports; p; p = p->next)
          if (p->agent) p->agent->links++;
        // An agent no port holds would be owned by no record.
        for (child_record *c : agents)
          if (c->links == 0) return fail(), rc;
        return rc;
      }
    }
    return fail(), rc;
  }
};

// The manager's lists and wait list, exchanged with empty ones while a block is read.
struct manager_state {
  port_record *ports = nullptr;
  service_record *services = nullptr;
  prog_record *progs = nullptr;
  unsigned waitcount = 0;
  HANDLE *waithandles = nullptr;
  uint16_t *waitports = nullptr;
  time_t nextdue = 0;

  void exchange_lists() {
    std::swap(ports, ssock_ports);
    std::swap(services, ssock_services);
    std::swap(progs, ssock_progs);
  }
  void exchange_waitlist() {
    std::swap(waitcount, ssock_waitcount);
    std::swap(waithandles, ssock_waithandles);
    std::swap(waitports, ssock_waitports);
    std::swap(nextdue, ssock_nextdue);
  }
};

}  // namespace

int ssock_handover_write(HANDLE target, DWORD target_pid, dstr *out, ssock_handed *counts,
                         DWORD *error) {
  int mark = out->length;
  writer w{out};
  duplicates made{target, {}};
  std::vector<child_record *> agents;
  ssock_handed n{};
  bool duplicated = true;
  w.text(HEADER);
  uint64_t own[KIVD_COUNTS];
  for (int i = 0; i < KIVD_COUNTS; i++)
    own[i] = kiv_counter(static_cast<wire_stat>(KIVD_FIRST + i));
  w.text("kivd");
  w.counts(own, KIVD_COUNTS);
  w.text("\n");
  for (service_record *s = ssock_services; s; s = s->next) {
    if (s->nports == 0) continue;  // the next pass frees it
    w.text("service");
    w.string("name", s->name);
    w.ring(s->ring);
    w.counts(s->counts, KIV_SERVICE_COUNTS);
    w.numbers(SERVICE_NUMBERS, s);
  }
  for (port_record *p = ssock_ports; p; p = p->next)
    if (p->agent && std::find(agents.begin(), agents.end(), p->agent) == agents.end())
      agents.push_back(p->agent);
  for (child_record *c : agents) {
    HANDLE process, pipe, job;
    duplicated = made.make(c->process, &process, error) && made.make(c->pipe, &pipe, error) &&
                 made.make(c->job, &job, error);
    if (!duplicated) break;
    w.text("agent");
    w.value("pid", c->pid);
    w.handle("process", process);
    w.handle("pipe", pipe);
    w.handle("job", job);
    w.numbers(AGENT_NUMBERS, c);
    n.agents++;
  }
  for (port_record *p = ssock_ports; p && duplicated; p = p->next) {
    WSAPROTOCOL_INFOA info{};
    if (p->sock != INVALID_SOCKET) {
      // An agent's launch already cancelled its port's selection.
      if (!p->agent) WSAEventSelect(p->sock, p->event, 0);
      if (WSADuplicateSocketA(p->sock, target_pid, &info) == SOCKET_ERROR) {
        *error = static_cast<DWORD>(WSAGetLastError());
        kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS,
                     "Port %d: WSADuplicateSocket() failed %d", p->port, static_cast<int>(*error));
        duplicated = false;
        break;
      }
    }
    HANDLE parent;
    if (!(duplicated = made.make(p->parent, &parent, error))) break;
    w.text("port");
    w.value("number", p->port);
    w.value("start", static_cast<unsigned>(p->start));
    w.string("service", p->service->name);
    w.string("address", p->address);
    w.key("agent");
    if (p->agent)
      w.decimal({false, static_cast<unsigned long long>(
                            std::find(agents.begin(), agents.end(), p->agent) - agents.begin())});
    else
      w.text("-");
    if (p->sock != INVALID_SOCKET)
      w.bytes("socket", &info, sizeof info);
    else
      w.string("socket", nullptr);
    w.handle("parent", parent);
    w.string("extra_args", p->extra_args);
    w.ring(p->ring);
    w.counts(p->counts, KIV_PORT_COUNTS);
    w.numbers(PORT_NUMBERS, p);
    n.ports++;
  }
  for (prog_record *g = ssock_progs; g && duplicated; g = g->next) {
    HANDLE process, job;
    if (!(duplicated = made.make(g->process, &process, error) && made.make(g->job, &job, error)))
      break;
    w.text("prog");
    w.string("name", g->name);
    w.string("program", g->program);
    w.value("pid", g->pid);
    w.handle("process", process);
    w.handle("job", job);
    w.ring(g->ring);
    w.counts(g->counts, KIV_PROGRAM_COUNTS);
    w.numbers(PROG_NUMBERS, g);
    n.programs++;
  }
  w.text("end\n");
  if (!duplicated || w.failed) {
    made.undo();
    dstr_truncate(out, mark);
    if (duplicated) kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ENOMEM, "No room for the block");
    return duplicated ? KIV_ENOMEM : KIV_ESYS;
  }
  if (counts) *counts = n;
  KIV_LOG(3, TAG, "Handed over %d ports, %d agents, %d programs to %d", n.ports, n.agents,
          n.programs, static_cast<int>(target_pid));
  return 0;
}

void ssock_handover_resume() {
  for (port_record *p = ssock_ports; p; p = p->next)
    if (p->sock != INVALID_SOCKET && !p->agent) WSAEventSelect(p->sock, p->event, FD_ACCEPT);
}

int ssock_handover_read(const char *block, size_t length, bool serve, ssock_handed *counts) {
  if (!block || length < HEADER_LENGTH || memcmp(block, HEADER, HEADER_LENGTH) != 0) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_EINVAL, "Not a hand-over block of this version");
    return KIV_EINVAL;
  }
  manager_state before;
  before.exchange_lists();
  before.exchange_waitlist();
  reader r{block + HEADER_LENGTH, block + length, nullptr, nullptr, {}, {}};
  int rc = r.run();
  if (rc == 0 && (before.ports || before.services || before.progs)) rc = KIV_EINVAL;
  if (rc != 0) {
    kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, rc, "Hand-over block refused at byte %d",
                 static_cast<int>(r.word_at ? r.word_at - block : 0));
    // The agents go by the reader's list, which also has those no port names yet.
    for (port_record *p = ssock_ports; p; p = p->next) p->agent = nullptr;
    for (child_record *c : r.agents) free_child(c);
    ssock_reset();
    before.exchange_lists();
    before.exchange_waitlist();
    return rc;
  }
  before.exchange_waitlist();
  // kivd's own counts go on from the giver's (the uptime from when they began).
  for (int i = 0; i < KIVD_COUNTS; i++)
    kiv_counter_set(static_cast<wire_stat>(KIVD_FIRST + i), r.kivd[i]);
  ssock_handed n{};
  for (port_record *p = ssock_ports; p; p = p->next) {
    n.ports++;
    p->flags |= PORT_ADOPTED;
    if (p->sock == INVALID_SOCKET) continue;
    p->event = WSACreateEvent();
    if (p->event == WSA_INVALID_EVENT) {
      // Without its event the port could never report a connection: the pass listens anew.
      kiv_logerror(nullptr, TAG, KIV_SEV_ERROR, KIV_ESYS, "Port %d: no event [%d]", p->port,
                   WSAGetLastError());
      p->event = nullptr;
      closesocket(p->sock);
      p->sock = INVALID_SOCKET;
    } else if (serve && !p->agent) {
      WSAEventSelect(p->sock, p->event, FD_ACCEPT);
    }
  }
  for (prog_record *g = ssock_progs; g; g = g->next) {
    n.programs++;
    g->flags |= PROG_ADOPTED;
  }
  n.agents = static_cast<int>(r.agents.size());
  if (counts) *counts = n;
  KIV_LOG(3, TAG, "Adopted %d ports, %d agents, %d programs", n.ports, n.agents, n.programs);
  return 0;
}
