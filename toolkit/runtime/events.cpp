#include "toolkit/runtime/events.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/counters.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/platform.h"

namespace {

struct definition {
  int id;
  int severity;
  const char *name;
  const char *next;
  int nfields;
  kivev_field fields[KIVEV_MAXINSERTS];
};

template <class... F>
constexpr int nfields(F...) {
  return sizeof...(F);
}

// Whether the event is shown right: a next step of its own, or a rest it names.
constexpr bool next_known(const char *next, std::initializer_list<kivev_field> fields) {
  bool rests = false;
  for (kivev_field f : fields) rests |= f == KIVEV_F_UNTIL;
  return (next != nullptr) != rests;
}

#define KIVEV_DEFINE(name, number, severity, next, ...) \
  {number, severity, #name, next, nfields(__VA_ARGS__), {__VA_ARGS__}},
#define KIVEV_CHECK(name, number, severity, next, ...) \
  static_assert(next_known(next, {__VA_ARGS__}), "a next step or an until: " #name);
KIVEV_EVENTS(KIVEV_CHECK)
#undef KIVEV_CHECK
// In number order (the list is written so): kivev_at walks it, the tests check the order.
const definition definitions[] = {KIVEV_EVENTS(KIVEV_DEFINE)};
#undef KIVEV_DEFINE
static_assert(sizeof definitions / sizeof definitions[0] == KIVEV_NEVENTS, "one per event");

const definition *find(int id) {
  for (const definition &d : definitions)
    if (d.id == id) return &d;
  return nullptr;
}

struct outlet {
  kivev_outlet call;
  void *context;
  int flags;
};
outlet outlets[KIVEV_MAXOUTLETS];
int noutlets;

// The repeat limit: one entry per (number, port, service, program, text, value) seen in
// the last minute, found by a 64-bit hash of the six. A bounded table: an emitter cannot grow it.
struct repeat {
  uint64_t key;  // 0: free
  time_t written;
  int held;
};
constexpr int NREPEATS = 256;
repeat repeats[NREPEATS];

// Events emitted from inside an outlet are dropped: this thread is already emitting.
thread_local int emitting;

uint64_t hash(uint64_t h, const void *data, size_t length) {
  const auto *p = static_cast<const unsigned char *>(data);
  for (size_t i = 0; i < length; i++) h = (h ^ p[i]) * 0x100000001B3ull;
  return h;
}

uint64_t keyof(const kivev_event *ev) {
  uint64_t h = 0xCBF29CE484222325ull;
  h = hash(h, &ev->id, sizeof ev->id);
  h = hash(h, &ev->port, sizeof ev->port);
  // The separators keep ("ab", "c") apart from ("a", "bc"). The text and value tell two
  // refused values of one record apart.
  for (const char *text : {ev->service, ev->program, ev->text, ev->value}) {
    if (text) h = hash(h, text, strlen(text));
    h = hash(h, "\0", 1);
  }
  return h ? h : 1;
}

// Whether the limited outlets get this event; sets ev->held when they do. Called under
// the events lock.
bool pass_limit(kivev_event *ev) {
  uint64_t key = keyof(ev);
  time_t now = ev->time;
  repeat *slot = nullptr;
  for (repeat &r : repeats) {
    if (r.key == key) {
      // A clock set back counts as the minute gone by.
      if (now >= r.written && now - r.written < KIVEV_REPEAT_SECONDS) {
        r.held++;
        return false;
      }
      ev->held = r.held;
      r.held = 0;
      r.written = now;
      return true;
    }
    // A free entry, else the one written longest ago, if its minute is over (a count it
    // still held is then never said: no identical event came for a minute and more).
    bool over = r.key == 0 || now < r.written || now - r.written >= KIVEV_REPEAT_SECONDS;
    if (over && (!slot || (slot->key != 0 && (r.key == 0 || r.written < slot->written)))) slot = &r;
  }
  // With every entry in its minute the event passes unlimited rather than be lost.
  if (slot) *slot = {key, now, 0};
  ev->held = 0;
  return true;
}

// Local date and time of t, "%Y-%m-%d %H:%M:%S"; the number of seconds when the
// platform cannot convert it.
void localtext(time_t t, char *buffer, int size) {
  struct tm local;
  if (!kiv_localtime(t, &local) ||
      strftime(buffer, static_cast<size_t>(size), "%Y-%m-%d %H:%M:%S", &local) == 0)
    snprintf(buffer, static_cast<size_t>(size), "%lld", static_cast<long long>(t));
}

}  // namespace

int kivev_addoutlet(kivev_outlet call, void *context, int flags) {
  if (!kiv_locks_ready()) kiv_locks_init();
  kiv_lock(KIV_LOCK_EVENTS);
  int rc = KIV_EOVERFLOW;
  if (noutlets < KIVEV_MAXOUTLETS) {
    outlets[noutlets++] = {call, context, flags};
    rc = 0;
  }
  kiv_unlock(KIV_LOCK_EVENTS);
  return rc;
}

void kivev_reset() {
  if (!kiv_locks_ready()) kiv_locks_init();
  kiv_lock(KIV_LOCK_EVENTS);
  noutlets = 0;
  memset(repeats, 0, sizeof repeats);
  kiv_unlock(KIV_LOCK_EVENTS);
  kivev_forget_own();
}

void kivev_emit(kivev_event *ev) {
  if (!ev || emitting) return;
  if (!kiv_locks_ready()) kiv_locks_init();
  emitting = 1;
  ev->time = kiv_time();
  // The lock covers the table of outlets and the repeat limit, not the outlets' calls:
  // an outlet may log, and a logging thread may be emitting (a trace that failed).
  kiv_lock(KIV_LOCK_EVENTS);
  outlet copy[KIVEV_MAXOUTLETS];
  int n = noutlets;
  memcpy(copy, outlets, sizeof copy);
  bool limited = false;
  for (int i = 0; i < n; i++) limited |= (copy[i].flags & KIVEV_LIMITED) != 0;
  bool pass = !limited || pass_limit(ev);
  kiv_unlock(KIV_LOCK_EVENTS);
  kiv_count(pass ? WIRE_STAT_KIVD_EVENTS : WIRE_STAT_KIVD_EVENTS_HELD);
  for (int i = 0; i < n; i++) {
    if (!(copy[i].flags & KIVEV_LIMITED)) {
      int held = ev->held;
      ev->held = 0;  // said by limited outlets only
      copy[i].call(copy[i].context, ev);
      ev->held = held;
    } else if (pass) {
      copy[i].call(copy[i].context, ev);
    }
  }
  emitting = 0;
}

int kivev_severity(int id) {
  const definition *d = find(id);
  return d ? d->severity : -1;
}

const char *kivev_name(int id) {
  const definition *d = find(id);
  return d ? d->name : nullptr;
}

int kivev_fields(int id, const kivev_field **fields) {
  const definition *d = find(id);
  if (!d) return -1;
  if (fields) *fields = d->fields;
  return d->nfields;
}

const char *kivev_next(int id) {
  const definition *d = find(id);
  return d ? d->next : nullptr;
}

int kivev_at(int i) { return i >= 0 && i < KIVEV_NEVENTS ? definitions[i].id : -1; }

int kivev_inserts(const kivev_event *ev, char *buffer, int size, const char **inserts) {
  const definition *d = ev ? find(ev->id) : nullptr;
  if (!d) return KIV_EINVAL;
  char *at = buffer;
  int room = size;
  for (int i = 0; i < d->nfields; i++) {
    char text[512];
    const char *value = text;
    text[0] = '\0';
    enum { NONE, SIGNED, UNSIGNED, HEX } kind = NONE;  // a number, formatted below
    long number = 0;
    unsigned long unsignednumber = 0;
    switch (d->fields[i]) {
      case KIVEV_F_PORT:
        kind = SIGNED, number = ev->port;
        break;
      case KIVEV_F_SERVICE:
        value = ev->service;
        break;
      case KIVEV_F_PROGRAM:
        value = ev->program;
        break;
      case KIVEV_F_PID:
        kind = UNSIGNED, unsignednumber = ev->pid;
        break;
      case KIVEV_F_EXIT:
        kind = UNSIGNED, unsignednumber = ev->exitcode;
        break;
      case KIVEV_F_EXCEPTION:
        kind = HEX, unsignednumber = ev->exitcode;
        break;
      case KIVEV_F_SYSERROR:
        kind = SIGNED, number = ev->syserror;
        break;
      case KIVEV_F_ERRORTEXT:
        if (ev->errortext)
          value = ev->errortext;
        else
          kivev_systext(ev->syserror, text, sizeof text);
        break;
      case KIVEV_F_UNTIL:
        localtext(ev->until, text, sizeof text);
        break;
      case KIVEV_F_COUNT:
        kind = SIGNED, number = ev->count;
        break;
      case KIVEV_F_PERIOD:
        kind = SIGNED, number = ev->period;
        break;
      case KIVEV_F_SIZE:
        kind = UNSIGNED, unsignednumber = ev->size;
        break;
      case KIVEV_F_TEXT:
        value = ev->text;
        break;
      case KIVEV_F_VALUE:
        value = ev->value;
        break;
      case KIVEV_F_CODE:
        kind = SIGNED, number = ev->code;
        break;
      case KIVEV_F_AGENTS:
        kind = SIGNED, number = ev->agents;
        break;
      case KIVEV_F_PROGRAMS:
        kind = SIGNED, number = ev->programs;
        break;
      case KIVEV_F_GAP:
        kind = SIGNED, number = ev->gap;
        break;
    }
    if (kind == SIGNED)
      snprintf(text, sizeof text, "%ld", number);
    else if (kind == UNSIGNED)
      snprintf(text, sizeof text, "%lu", unsignednumber);
    else if (kind == HEX)
      snprintf(text, sizeof text, "0x%08lX", unsignednumber);
    if (!value) value = "";
    inserts[i] = at;
    if (room <= 0) {
      inserts[i] = "";
      continue;
    }
    size_t length = strlen(value);
    if (length > static_cast<size_t>(room - 1)) length = static_cast<size_t>(room - 1);
    memcpy(at, value, length);
    at[length] = '\0';
    at += length + 1;
    room -= static_cast<int>(length) + 1;
  }
  return d->nfields;
}

namespace {

const struct {
  const char *name;
  kivev_kind kind;
} fielddefs[] = {
#define KIVEV_FIELD_DEFINE(name, text, kind) {text, kind},
    KIVEV_FIELDS(KIVEV_FIELD_DEFINE)
#undef KIVEV_FIELD_DEFINE
};

}  // namespace

const char *kivev_fieldname(kivev_field field) { return fielddefs[field].name; }

kivev_kind kivev_fieldkind(kivev_field field) { return fielddefs[field].kind; }

int kivev_fieldof(const char *name) {
  for (size_t i = 0; i < sizeof fielddefs / sizeof fielddefs[0]; i++)
    if (strcmp(fielddefs[i].name, name) == 0) return static_cast<int>(i);
  return -1;
}

namespace {

// Appends text to the line at *at, tabs and line ends turned into spaces unless it is the
// line's own separator; stops at the end.
void append(char *buffer, int size, int *at, const char *text, bool separator = false) {
  for (; *text && *at < size - 1; text++) {
    char c = *text;
    buffer[(*at)++] = !separator && (c == '\t' || c == '\r' || c == '\n') ? ' ' : c;
  }
  buffer[*at] = '\0';
}

}  // namespace

int kivev_line(const kivev_event *ev, const char *text, char *buffer, int size) {
  static const char *const severities[] = {"info", "warning", "error"};
  int severity = kivev_severity(ev->id);
  char head[64];
  snprintf(head, sizeof head, "%d\t%lld\t%s\t", ev->id, static_cast<long long>(ev->time),
           severity >= 0 ? severities[severity] : "info");
  int at = 0;
  buffer[0] = '\0';
  append(buffer, size, &at, head, true);
  append(buffer, size, &at, text ? text : "");
  char values[KIVEV_MAXINSERTS * 128];
  const char *inserts[KIVEV_MAXINSERTS];
  const kivev_field *fields = nullptr;
  int n = kivev_inserts(ev, values, sizeof values, inserts);
  kivev_fields(ev->id, &fields);
  for (int i = 0; i < n; i++) {
    char number[24];
    // The reader formats the time of a rest in its own zone.
    if (fields[i] == KIVEV_F_UNTIL) {
      snprintf(number, sizeof number, "%lld", static_cast<long long>(ev->until));
      inserts[i] = number;
    }
    append(buffer, size, &at, "\t", true);
    append(buffer, size, &at, kivev_fieldname(fields[i]));
    append(buffer, size, &at, "=");
    append(buffer, size, &at, inserts[i]);
  }
  // The record an event names even where its message does not (a refused value names
  // it by the value's path), so that `why` finds the line by it.
  char port[16];
  snprintf(port, sizeof port, "%d", ev->port);
  const struct {
    kivev_field field;
    const char *value;
  } names[] = {{KIVEV_F_PORT, ev->port ? port : nullptr},
               {KIVEV_F_SERVICE, ev->service},
               {KIVEV_F_PROGRAM, ev->program}};
  const kivev_field *end = fields + (n < 0 ? 0 : n);
  for (const auto &name : names) {
    if (!name.value || std::find(fields, end, name.field) != end) continue;
    append(buffer, size, &at, "\t", true);
    append(buffer, size, &at, kivev_fieldname(name.field));
    append(buffer, size, &at, "=");
    append(buffer, size, &at, name.value);
  }
  return at;
}
