// kivd.exe's own message table, as the event log reads it: every event's number, with
// its severity's bits, formats from kivd.exe loaded as a data file into a whole sentence
// with its inserts.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "service/evlog.h"
#include "toolkit/runtime/clock.h"
#include "tests/support/support.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/platform.h"

namespace {

// The sentence of ev from module, its note (the event log's last insert) behind it.
std::string sentence(HMODULE module, const kivev_event &ev, const char *note = "") {
  char text[1536];
  const char *inserts[KIVEV_MAXINSERTS + 1];
  int n = kivev_inserts(&ev, text, sizeof text, inserts);
  if (n < 0) return "(no event)";
  inserts[n] = note;
  char out[2048];
  DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module,
                                evlog_msgid(ev.id), 0, out, sizeof out,
                                reinterpret_cast<va_list *>(const_cast<char **>(inserts)));
  if (length == 0) return "(no message: error " + std::to_string(GetLastError()) + ")";
  std::string s(out, length);
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

TEST(Messages, EveryEventFormatsFromKivdsOwnTable) {
  HMODULE module = LoadLibraryExA(kt::kivd_exe().c_str(), nullptr,
                                  LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
  ASSERT_NE(module, nullptr) << GetLastError();
  const time_t until = 1700000000;
  struct tm local;
  ASSERT_TRUE(kiv_localtime(until, &local));
  char when[32];
  strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
  const unsigned long EXCEPTION = 0xC0000005;
  const WORD I = EVENTLOG_INFORMATION_TYPE, W = EVENTLOG_WARNING_TYPE, E = EVENTLOG_ERROR_TYPE;
  struct {
    int id;
    WORD type;
    unsigned long exitcode;
    const char *text, *expected;  // "@" stands for the until time
  } rows[] = {
      {KIVEV_SERVICE_STARTED, I, 0, "", "kivd started and serves its configured ports."},
      {KIVEV_SERVICE_STOPPED, I, 0, "", "kivd stopped with code -12."},
      {KIVEV_PORT_LISTEN_FAILED, E, 0, "",
       "Port 8080 of service echo could not be listened on: Address in use (system error "
       "10048). It rests until @."},
      {KIVEV_PORT_THROTTLED, W, 0, "",
       "The agent of service echo was started 8 times within 60 seconds: port 8080 rests until "
       "@."},
      {KIVEV_PORT_START_FAILED, E, 0, "",
       "The agent of service echo could not be started for port 8080: Address in use (system "
       "error 10048). The port rests until @."},
      {KIVEV_PORT_EXCEPTION, W, EXCEPTION, "",
       "The agent of service echo (process 4242) on port 8080 ended by exception 0xC0000005. "
       "The port rests until @."},
      {KIVEV_PORT_NO_PROGRAM, W, 0, "",
       "Service echo has no program configured: port 8080 is not served until one is "
       "configured."},
      {KIVEV_CONFIG_REFUSED, W, 0, ".tcp.s8080.start",
       "The configuration value .tcp.s8080.start = \"sometimes\" is refused: what it configures "
       "is not served until it is corrected."},
      {KIVEV_PORT_DISABLED, I, 0, "",
       "Port 8080 of service echo was disabled by command: it rests until enabled."},
      {KIVEV_PORT_ENABLED, I, 0, "",
       "Port 8080 of service echo was enabled by command: it is served again."},
      {KIVEV_AGENT_ENDED, W, 3, "",
       "The agent of service echo (process 4242) ended with exit code 3: its ports are listened "
       "on anew."},
      {KIVEV_PROG_ENDED, W, 3, "",
       "The global program sweeper (process 4242) ended with exit code 3: it is started "
       "again."},
      {KIVEV_PROG_EXCEPTION, W, EXCEPTION, "",
       "The global program sweeper (process 4242) ended by exception 0xC0000005: it rests until "
       "@."},
      {KIVEV_PROG_THROTTLED, W, 0, "",
       "The global program sweeper was started 8 times within 60 seconds: it rests until @."},
      {KIVEV_PROG_START_FAILED, E, 0, "",
       "The global program sweeper could not be started: Address in use (system error 10048). "
       "It rests until @."},
      {KIVEV_PIPE_CLIENT_HUNG_UP, W, 0, "",
       "A control client was hung up on: it did not read its replies (8 messages, 65536 bytes "
       "waiting)."},
      {KIVEV_WAIT_FAILED, E, 0, "",
       "The wait on 8 handles failed: Address in use (system error 10048). Only stop and the "
       "control pipe are served until it succeeds again."},
      {KIVEV_OUT_OF_MEMORY, E, 0, "ssock.start_agent",
       "Out of memory: 65536 bytes could not be allocated for ssock.start_agent."},
      {KIVEV_TRACE_FAILED, W, 0, "c:/kivd.txt",
       "The trace file c:/kivd.txt cannot be written: Address in use (error 10048). Its lines go "
       "to standard error until it can be written again."},
      {KIVEV_TRACE_RESUMED, I, 0, "c:/kivd.txt", "The trace file c:/kivd.txt is written again."},
      {KIVEV_METRICS_FAILED, W, 0, "c:/kivd.prom",
       "The monitoring file c:/kivd.prom cannot be written: Address in use (system error 10048). "
       "It is tried again at each write, every 15 seconds."},
      {KIVEV_METRICS_RESUMED, I, 0, "c:/kivd.prom",
       "The monitoring file c:/kivd.prom is written again."},
      {KIVEV_HANDOVER_BEGUN, I, 0, "",
       "kivd handed its 8 ports, 2 running agents and 1 global programs to the holder, process "
       "4242, and ends: its successor claims them from the holder, and no agent notices."},
      {KIVEV_HANDOVER_COMPLETED, I, 0, "",
       "kivd took over 8 ports, 2 running agents and 1 global programs from process 4242, and "
       "serves them: the service was 412 ms between processes."},
      {KIVEV_HANDOVER_EXPIRED, W, 0, "",
       "No successor claimed what the holder, process 4242, held for 60 seconds: its 2 agents "
       "were told to exit, its 8 ports closed and its 1 global programs ended, as a stop does."},
      {KIVEV_HANDOVER_FAILED, E, 0, "the holder's start",
       "The hand-over failed at the holder's start: Address in use (system error 10048). kivd "
       "serves on and handed nothing over."},
  };
  ASSERT_EQ(sizeof rows / sizeof rows[0], static_cast<size_t>(KIVEV_NEVENTS));
  int i = 0;
  for (const auto &row : rows) {
    EXPECT_EQ(kivev_at(i++), row.id) << "one row per event, in number order";
    EXPECT_EQ(evlog_type(row.id), row.type) << kivev_name(row.id);
    kivev_event ev{};
    ev.id = row.id;
    ev.port = 8080;
    ev.service = "echo";
    ev.program = "sweeper";
    ev.pid = 4242;
    ev.exitcode = row.exitcode;
    ev.syserror = 10048;
    ev.errortext = "Address in use";
    ev.until = until;
    ev.count = 8;
    ev.period = 60;
    ev.size = 65536;
    ev.text = row.text;
    ev.value = "sometimes";
    ev.code = -12;
    ev.agents = 2;
    ev.programs = 1;
    ev.gap = 412;
    std::string expected = row.expected;
    for (size_t at; (at = expected.find('@')) != std::string::npos;) expected.replace(at, 1, when);
    EXPECT_EQ(sentence(module, ev), expected) << kivev_name(row.id);
  }
  // The note: what the repeat limit held back and the full queue dropped.
  kivev_event ev{};
  ev.id = KIVEV_TRACE_RESUMED;
  ev.text = "c:/kivd.txt";
  char note[192];
  evlog_note(3, 2, note, sizeof note);
  EXPECT_EQ(sentence(module, ev, note),
            "The trace file c:/kivd.txt is written again. 3 identical events before this one were "
            "held back. 2 events before this one were dropped: the event log did not keep up.");
  FreeLibrary(module);
}

}  // namespace

namespace {

std::vector<std::string> notes;  // "id|last insert" of each event written
BOOL report(HANDLE, WORD, DWORD id, WORD count, const char **inserts) {
  notes.push_back(std::to_string(id & 0xFFFF) + "|" + inserts[count - 1]);
  return TRUE;
}
time_t clock_now;
time_t test_clock() { return clock_now; }

// The note says what the repeat limit held back and the full queue dropped, one as well
// as many; through the outlet, a port disabled twice within a minute says it held one back
// with its next event of the same kind.
TEST(EventLogOutlet, TheNoteCountsOneAsWellAsMany) {
  struct {
    int held;
    long dropped;
    const char *note;
  } rows[] = {
      {0, 0, ""},
      {1, 0, " 1 identical event before this one was held back."},
      {2, 0, " 2 identical events before this one were held back."},
      {0, 1, " 1 event before this one was dropped: the event log did not keep up."},
      {1, 5,
       " 1 identical event before this one was held back. 5 events before this one were "
       "dropped: the event log did not keep up."},
  };
  for (const auto &r : rows) {
    char note[192];
    evlog_note(r.held, r.dropped, note, sizeof note);
    EXPECT_STREQ(note, r.note) << r.held << " " << r.dropped;
  }
  kivev_reset();
  notes.clear();
  kiv_setclock(test_clock, nullptr);
  ASSERT_EQ(evlog_start(report), 0);
  for (time_t t : {1000, 1030, 1060}) {
    clock_now = t;
    kivev_event ev{};
    ev.id = KIVEV_PORT_DISABLED;
    ev.port = 8080;
    ev.service = "echo";
    kivev_emit(&ev);
  }
  evlog_stop(0);
  kivev_reset();
  kiv_setclock(nullptr, nullptr);
  EXPECT_EQ(notes, (std::vector<std::string>{
                       "107|", "107| 1 identical event before this one was held back.", "2|"}));
}

HANDLE go;                         // the event log "answers" once set
std::vector<std::string> written;  // "id|last insert" of each event written
volatile LONG reported;
BOOL held_report(HANDLE, WORD, DWORD id, WORD count, const char **inserts) {
  WaitForSingleObject(go, INFINITE);
  written.push_back(std::to_string(id & 0xFFFF) + "|" + inserts[count - 1]);
  InterlockedIncrement(&reported);
  return TRUE;
}

// An event log that does not answer never holds up the emitter: the queue takes what it
// can, counts what it cannot, and the next event queued says how many were dropped.
TEST(EventLogOutlet, AFullQueueDropsAndTheNextEventSaysSo) {
  go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  kivev_reset();
  ASSERT_EQ(evlog_start(held_report), 0);
  constexpr int DROPPED = 6;
  for (int port = 1; port <= EVLOG_QUEUE + DROPPED; port++) {  // one is being written
    kivev_event ev{};
    ev.id = KIVEV_PORT_LISTEN_FAILED;
    ev.port = port;
    kivev_emit(&ev);
  }
  SetEvent(go);
  ASSERT_TRUE(kt::poll([] { return InterlockedCompareExchange(&reported, 0, 0) == EVLOG_QUEUE; }));
  kivev_event ev{};
  ev.id = KIVEV_PORT_ENABLED;
  kivev_emit(&ev);
  evlog_stop(0);
  kivev_reset();
  ASSERT_EQ(written.size(), static_cast<size_t>(EVLOG_QUEUE + 2));
  EXPECT_EQ(written[EVLOG_QUEUE - 1], "101|");
  EXPECT_EQ(written[EVLOG_QUEUE],
            "108| 6 events before this one were dropped: the event log did not keep up.");
  EXPECT_EQ(written[EVLOG_QUEUE + 1], "2|");
}

}  // namespace
