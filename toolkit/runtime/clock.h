// The toolkit's one clock: calendar seconds (as time()) and a millisecond tick (as
// GetTickCount()). Tests replace it to move time without waiting.
#pragma once
#include <cstdint>
#include <ctime>

using kiv_timefunc = time_t (*)();
using kiv_tickfunc = uint32_t (*)();

time_t kiv_time();
uint32_t kiv_ticks();
// Replaces the clock; a null function restores the system's own.
void kiv_setclock(kiv_timefunc time, kiv_tickfunc ticks);
