// The monitoring file: kivd's counters in the text exposition format that monitoring
// collectors read from a folder, written every METRICS_SECONDS and at stop to the file the
// global key's `metrics` value names. The loop gathers the stats lines (lib/wire.h) and
// hands the text on; a writer thread of its own writes it beside the file and renames it
// over the file, so the loop never waits for the disk and a reader never sees half a file.
#pragma once
#include <windows.h>

#include <cstdint>
#include <string>

constexpr int METRICS_SECONDS = 15;
constexpr DWORD METRICS_DRAIN_MS = 2000;  // what metrics_stop waits for the last write at most
// A rename refused while a reader holds the file open (Windows refuses it then) is tried
// again this many times, this far apart, before the write counts as failed.
constexpr int METRICS_RENAME_TRIES = 20;
constexpr DWORD METRICS_RENAME_PAUSE_MS = 50;
#define METRICS_TEMP ".tmp"  // the temporary file: the file's path with this behind it

// The exposition text of stats lines (one per line, "\n" or "\r\n" between them). Names
// are "kivd_" and the rows' metric names, labelled port, service and program as the line
// says and with the row's own label; each family with its HELP and TYPE once, all its
// samples together whatever the order of the lines. A port's launch items become the
// histogram kivd_port_launch_seconds (cumulative buckets in seconds, +Inf, sum, count) and
// its state the gauge kivd_port_state, 1 for its state word and 0 for the others. Items
// that are no row of their line's kind, values that are no whole number and a line that
// repeats an earlier one's labels are left out.
std::string metrics_text(const std::string &lines);

// Starts the writer; the first write is due at the first metrics_tick. 0, or KIV_ESYS
// when the thread cannot start (kivd then writes no file and runs on).
int metrics_start();
// Called by the loop before each wait: when the write is due, reads the file's value (so a
// reconfiguration's takes effect at the next write), gathers the stats lines and hands
// them to the writer, which makes the text. Returns the milliseconds until the next write
// is due.
DWORD metrics_tick();
// The last write: gathers, hands on, and waits up to METRICS_DRAIN_MS for the writer.
void metrics_stop();

// The writer's half, for the loop and tests: queues text for path ("" writes nothing),
// replacing any text not yet written. A failed write is one event (KIVEV_METRICS_FAILED)
// until a write succeeds again (KIVEV_METRICS_RESUMED). metrics_flush waits up to ms for
// what was queued to be written: true when it was.
void metrics_post(std::string path, std::string text);
bool metrics_flush(DWORD ms);
// Writes text to path as the writer does: to path METRICS_TEMP, flushed, then renamed over
// path. 0, or the system's error (the temporary file is removed).
DWORD metrics_write(const std::string &path, const std::string &text);
