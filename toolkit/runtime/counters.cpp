#include "toolkit/runtime/counters.h"

#include <atomic>
#include <cstdio>

#include "toolkit/runtime/clock.h"

#define KIV_STAT_ITEM_OF(id, kind, item, ...) item,
const char *const KIV_STAT_ITEM[WIRE_STAT_COUNT] = {WIRE_STATS_ROWS(KIV_STAT_ITEM_OF)};
#undef KIV_STAT_ITEM_OF

namespace {

constexpr int KIVD_FIRST = kiv_stats_first(WIRE_OF_KIVD);
constexpr int KIVD_ROWS = kiv_stats_rows(WIRE_OF_KIVD);
std::atomic<uint64_t> own[KIVD_ROWS];
std::atomic<long long> began{0};  // kiv_time of the counts' start; 0: not begun

bool is_kivd(wire_stat id) { return id >= KIVD_FIRST && id < KIVD_FIRST + KIVD_ROWS; }

// Appends " name=value"; false, with nothing appended, when it does not fit whole.
bool append(char *buffer, int size, int *length, const char *name, uint64_t value) {
  if (*length >= size - 1) return false;
  int n = snprintf(buffer + *length, static_cast<size_t>(size - *length), " %s=%llu", name,
                   static_cast<unsigned long long>(value));
  if (n < 0 || n >= size - *length) {
    buffer[*length] = '\0';
    return false;
  }
  *length += n;
  return true;
}

}  // namespace

int kiv_launch_bucket(uint64_t microseconds) {
  for (int i = 0; i < WIRE_LAUNCH_BUCKETS; i++)
    if (microseconds <= static_cast<uint64_t>(WIRE_LAUNCH_BUCKETS_MS[i]) * 1000)
      return KIV_LAUNCH_FIRST + i;
  return KIV_LAUNCH_MORE;
}

void kiv_count_launch(uint64_t *counts, uint64_t microseconds) {
  counts[kiv_launch_bucket(microseconds)]++;
  counts[KIV_LAUNCH_SUM] += microseconds;
}

void kiv_stats_items(char *buffer, int size, int *length, wire_stats_kind kind,
                     const uint64_t *counts) {
  // The items stop at the first that does not fit: a line never skips one.
  int first = kiv_stats_first(kind);
  for (int i = 0; i < kiv_stats_rows(kind); i++)
    if (!append(buffer, size, length, KIV_STAT_ITEM[first + i], counts[i])) return;
  if (kind != WIRE_OF_PORT) return;
  for (int i = 0; i < WIRE_LAUNCH_BUCKETS; i++) {
    char name[24];
    snprintf(name, sizeof name, "Launch%dms", WIRE_LAUNCH_BUCKETS_MS[i]);
    if (!append(buffer, size, length, name, counts[KIV_LAUNCH_FIRST + i])) return;
  }
  if (append(buffer, size, length, WIRE_LAUNCH_MORE, counts[KIV_LAUNCH_MORE]))
    append(buffer, size, length, WIRE_LAUNCH_SUM, counts[KIV_LAUNCH_SUM]);
}

void kiv_count(wire_stat id) {
  if (is_kivd(id)) own[id - KIVD_FIRST].fetch_add(1, std::memory_order_relaxed);
}

uint64_t kiv_counter(wire_stat id) {
  if (!is_kivd(id)) return 0;
  if (id == WIRE_STAT_KIVD_UPTIME) {
    long long start = began.load(), now = kiv_time();
    // A clock set back before the start reads as no time gone by.
    return start == 0 || now < start ? 0 : static_cast<uint64_t>(now - start);
  }
  return own[id - KIVD_FIRST].load(std::memory_order_relaxed);
}

void kiv_counter_set(wire_stat id, uint64_t value) {
  if (!is_kivd(id)) return;
  if (id == WIRE_STAT_KIVD_UPTIME)
    began = static_cast<long long>(kiv_time()) - static_cast<long long>(value);
  else
    own[id - KIVD_FIRST] = value;
}

void kiv_counters_begin() {
  for (auto &count : own) count = 0;
  began = static_cast<long long>(kiv_time());
}

int kiv_counters_line(char *buffer, int size, unsigned long pid) {
  if (size <= 0) return 0;
  int length = snprintf(buffer, static_cast<size_t>(size), WIRE_STATS_KIVD "=%lu", pid);
  if (length < 0 || length >= size) {
    buffer[0] = '\0';
    return 0;
  }
  uint64_t counts[KIVD_ROWS];
  for (int i = 0; i < KIVD_ROWS; i++)
    counts[i] = kiv_counter(static_cast<wire_stat>(KIVD_FIRST + i));
  kiv_stats_items(buffer, size, &length, WIRE_OF_KIVD, counts);
  return length;
}
