#include "toolkit/runtime/platform.h"

#include <winsock2.h>
#include <windows.h>

long kiv_processid() { return static_cast<long>(GetCurrentProcessId()); }
unsigned long kiv_threadid() { return GetCurrentThreadId(); }
uint32_t kiv_systicks() { return GetTickCount(); }
bool kiv_localtime(time_t t, struct tm *out) { return localtime_s(out, &t) == 0; }

struct kiv_event {
  HANDLE handle;
};

kiv_event *kiv_event_create() {
  HANDLE h = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  if (!h) return nullptr;
  return new kiv_event{h};
}
void kiv_event_set(kiv_event *ev) { SetEvent(ev->handle); }
void kiv_event_reset(kiv_event *ev) { ResetEvent(ev->handle); }
void kiv_event_wait(kiv_event *ev) { WaitForSingleObject(ev->handle, INFINITE); }

bool kiv_netstart() {
  WSADATA data;
  return WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

FILE *kiv_fopen_append(const char *name) {
  return fopen(name, "aN");  // "N": the C runtime opens the handle not inheritable.
}
