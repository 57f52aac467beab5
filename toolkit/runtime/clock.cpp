#include "toolkit/runtime/clock.h"

#include "toolkit/runtime/platform.h"

namespace {
time_t systime() { return time(nullptr); }
kiv_timefunc timefn = systime;
kiv_tickfunc tickfn = kiv_systicks;
}  // namespace

time_t kiv_time() { return timefn(); }
uint32_t kiv_ticks() { return tickfn(); }

void kiv_setclock(kiv_timefunc time, kiv_tickfunc ticks) {
  timefn = time ? time : systime;
  tickfn = ticks ? ticks : kiv_systicks;
}
