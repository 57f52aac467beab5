// Counters: the layout of a record's counts by the stats listing's rows (lib/wire.h), the
// launch histogram's buckets, the listing's " Name=value" items, and kivd's own counts,
// which the events module, the control pipe, the interpreter and the hand-over all move.
// kivd's own counts may be moved from any thread; a record's belong to the loop.
#pragma once
#include <cstdint>
#include <ctime>

#include "lib/wire.h"

#define KIV_STAT_KIND_OF(id, kind, ...) kind,
constexpr wire_stats_kind KIV_STAT_KIND[WIRE_STAT_COUNT] = {WIRE_STATS_ROWS(KIV_STAT_KIND_OF)};
#undef KIV_STAT_KIND_OF
extern const char *const KIV_STAT_ITEM[WIRE_STAT_COUNT];  // the rows' item names

// The first row of a kind and the number of its rows: a record keeps its counts in an
// array indexed by the row's id less its kind's first.
constexpr int kiv_stats_first(wire_stats_kind kind) {
  for (int i = 0; i < WIRE_STAT_COUNT; i++)
    if (KIV_STAT_KIND[i] == kind) return i;
  return WIRE_STAT_COUNT;
}
constexpr int kiv_stats_rows(wire_stats_kind kind) {
  int n = 0;
  for (int i = 0; i < WIRE_STAT_COUNT; i++) n += KIV_STAT_KIND[i] == kind;
  return n;
}
constexpr bool kiv_stats_adjacent() {
  for (int k = WIRE_OF_PORT; k <= WIRE_OF_KIVD; k++) {
    auto kind = static_cast<wire_stats_kind>(k);
    for (int i = kiv_stats_first(kind); i < kiv_stats_first(kind) + kiv_stats_rows(kind); i++)
      if (KIV_STAT_KIND[i] != kind) return false;
  }
  return true;
}
static_assert(kiv_stats_adjacent(), "a record's counts are one run of rows");

// A port record's counts: its rows, then the launch histogram (one count per bucket of
// WIRE_LAUNCH_BUCKETS_MS, one above the last) and the launches' sum in microseconds.
constexpr int KIV_LAUNCH_FIRST = kiv_stats_rows(WIRE_OF_PORT);
constexpr int KIV_LAUNCH_MORE = KIV_LAUNCH_FIRST + WIRE_LAUNCH_BUCKETS;
constexpr int KIV_LAUNCH_SUM = KIV_LAUNCH_MORE + 1;
constexpr int KIV_PORT_COUNTS = KIV_LAUNCH_SUM + 1;
constexpr int KIV_SERVICE_COUNTS = kiv_stats_rows(WIRE_OF_SERVICE);
constexpr int KIV_PROGRAM_COUNTS = kiv_stats_rows(WIRE_OF_PROGRAM);

// The index in a port's counts of the launch that took `microseconds`: the first bucket it
// fits, KIV_LAUNCH_MORE above the last.
int kiv_launch_bucket(uint64_t microseconds);
// Counts a launch of `microseconds` in a port's counts (its bucket and the sum).
void kiv_count_launch(uint64_t *counts, uint64_t microseconds);

// Appends the items of a kind's counts to buffer at *length (the port's histogram too):
// " Name=value" each, 0s included; they stop before the first that does not fit whole.
void kiv_stats_items(char *buffer, int size, int *length, wire_stats_kind kind,
                     const uint64_t *counts);

// A stats line's room: every item of a port at its largest, and a name of up to
// KIV_STATS_NAME_MAX characters (longer ones are cut).
constexpr int KIV_STATS_LINE = 1536;
constexpr int KIV_STATS_NAME_MAX = 256;

// kivd's own counts. kiv_counter of WIRE_STAT_KIVD_UPTIME is the seconds of kiv_time since
// the counts began (0 before), and setting it makes them begin that long ago, so a
// hand-over carries every row alike. Ids of other kinds are ignored (0).
void kiv_count(wire_stat id);
uint64_t kiv_counter(wire_stat id);
void kiv_counter_set(wire_stat id, uint64_t value);
// The counts begin now (kivd's start): every count 0, the uptime from kiv_time.
void kiv_counters_begin();
// kivd's stats line, "Kivd=<pid>" and its items; its length (cut to size - 1).
int kiv_counters_line(char *buffer, int size, unsigned long pid);
