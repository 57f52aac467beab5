// The rings `why` lists: a record's, allocated at its first event and freed with it, and
// kivd's own, which keeps beside each line the record its event names.
#include <cstdio>
#include <cstring>

#include "lib/heap.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/memory.h"

void kivev_keep(kivev_ring **ring, const kivev_event *ev, const char *text) {
  if (!*ring) *ring = static_cast<kivev_ring *>(kiv_zalloc(sizeof(kivev_ring), "kivev_keep"));
  kivev_ring *r = *ring;
  if (!r) return;
  kivev_line(ev, text, r->lines[r->next], KIVEV_LINE_SIZE);
  r->next = (r->next + 1) % KIVEV_RING;
  if (r->count < KIVEV_RING) r->count++;
}

void kivev_keep_line(kivev_ring **ring, const char *line) {
  if (!*ring) *ring = static_cast<kivev_ring *>(kiv_zalloc(sizeof(kivev_ring), "kivev_keep"));
  kivev_ring *r = *ring;
  if (!r) return;
  snprintf(r->lines[r->next], KIVEV_LINE_SIZE, "%s", line);
  r->next = (r->next + 1) % KIVEV_RING;
  if (r->count < KIVEV_RING) r->count++;
}

void kivev_forget(kivev_ring **ring) {
  xfree(*ring);
  *ring = nullptr;
}

const char *kivev_kept(const kivev_ring *ring, int i) {
  if (!ring || i < 0 || i >= ring->count) return nullptr;
  return ring->lines[(ring->next - ring->count + i + KIVEV_RING) % KIVEV_RING];
}

namespace {

// The record each of the own ring's lines names, in the ring's slot order; both under the
// events lock.
struct named {
  int port;
  char service[KIVEV_NAME_SIZE];
  char program[KIVEV_NAME_SIZE];
};
kivev_ring own_ring;
named own_names[KIVEV_RING];

void lock() {
  if (!kiv_locks_ready()) kiv_locks_init();
  kiv_lock(KIV_LOCK_EVENTS);
}

}  // namespace

void kivev_keep_own(const kivev_event *ev, const char *text) {
  lock();
  named &n = own_names[own_ring.next];
  n.port = ev->port;
  snprintf(n.service, sizeof n.service, "%s", ev->service ? ev->service : "");
  snprintf(n.program, sizeof n.program, "%s", ev->program ? ev->program : "");
  kivev_ring *ring = &own_ring;
  kivev_keep(&ring, ev, text);
  kiv_unlock(KIV_LOCK_EVENTS);
}

bool kivev_own_line(int i, char *buffer, int size) {
  lock();
  const char *line = kivev_kept(&own_ring, i);
  if (line) snprintf(buffer, static_cast<size_t>(size), "%s", line);
  kiv_unlock(KIV_LOCK_EVENTS);
  return line != nullptr;
}

int kivev_own_named(kivev_field field, int port, const char *name, kivev_ring *out) {
  memset(out, 0, sizeof *out);
  lock();
  for (int i = 0; i < own_ring.count; i++) {
    int slot = (own_ring.next - own_ring.count + i + KIVEV_RING) % KIVEV_RING;
    const named &n = own_names[slot];
    bool match = field == KIVEV_F_PORT ? port != 0 && n.port == port
                 : field == KIVEV_F_SERVICE
                     ? *n.service && strcmp(n.service, name) == 0
                     : field == KIVEV_F_PROGRAM && *n.program && strcmp(n.program, name) == 0;
    if (!match) continue;
    memcpy(out->lines[out->count++], own_ring.lines[slot], KIVEV_LINE_SIZE);
  }
  kiv_unlock(KIV_LOCK_EVENTS);
  out->next = out->count % KIVEV_RING;
  return out->count;
}

void kivev_forget_own() {
  lock();
  memset(&own_ring, 0, sizeof own_ring);
  memset(own_names, 0, sizeof own_names);
  kiv_unlock(KIV_LOCK_EVENTS);
}
