#include "toolkit/runtime/platform.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

long kiv_processid() { return static_cast<long>(getpid()); }

unsigned long kiv_threadid() {
  return static_cast<unsigned long>(std::hash<std::thread::id>{}(std::this_thread::get_id()));
}

uint32_t kiv_systicks() {
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
  return static_cast<uint32_t>(ms.count());
}

bool kiv_localtime(time_t t, struct tm *out) { return localtime_r(&t, out) != nullptr; }

// A manual-reset event: stays signalled until reset, wakes every waiter.
struct kiv_event {
  std::mutex mutex;
  std::condition_variable cond;
  bool signalled = false;
};

kiv_event *kiv_event_create() { return new kiv_event; }

void kiv_event_set(kiv_event *ev) {
  std::lock_guard<std::mutex> hold(ev->mutex);
  ev->signalled = true;
  ev->cond.notify_all();
}

void kiv_event_reset(kiv_event *ev) {
  std::lock_guard<std::mutex> hold(ev->mutex);
  ev->signalled = false;
}

void kiv_event_wait(kiv_event *ev) {
  std::unique_lock<std::mutex> hold(ev->mutex);
  ev->cond.wait(hold, [ev] { return ev->signalled; });
}

bool kiv_netstart() { return true; }

FILE *kiv_fopen_append(const char *name) {
  return fopen(name, "ae");  // "e": close-on-exec.
}
