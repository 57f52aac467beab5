// The Windows event log outlet of kivd's events (toolkit/runtime/events.h), and the
// registration of kivd as an event source of the Application log.
#pragma once
#include <windows.h>

#include "toolkit/runtime/events.h"

// Under HKEY_LOCAL_MACHINE: the source's key, named as the service (WIRE_SERVICE).
extern const char EVLOG_KEY[];
constexpr DWORD EVLOG_TYPES =
    EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;  // TypesSupported
constexpr int EVLOG_QUEUE = 64;         // events waiting for the writer at most
constexpr DWORD EVLOG_DRAIN_MS = 2000;  // what evlog_stop waits for the queue at most

// An event's message id in kivd.exe's message table: its number with its severity's
// bits. The event log's type for its severity.
DWORD evlog_msgid(int id);
WORD evlog_type(int id);
// The event log's last insert of each message: how many identical events were held back
// before it and how many the full queue dropped; empty when both are 0.
void evlog_note(int held, long dropped, char *buffer, int size);
// The event's sentence from the message table of the running executable (kivd.exe), with
// its inserts and without the note; its name ("PORT_THROTTLED") where no table has it.
void evlog_text(const kivev_event *ev, char *buffer, int size);

// Writes one event: ReportEventA with these arguments (no category, no user, no data).
using evlog_report = BOOL (*)(HANDLE source, WORD type, DWORD id, WORD count, const char **inserts);
// Registers the event source, starts the writer and adds the outlet with the repeat
// limit; report null means ReportEventA. 0, or KIV_ESYS when the writer cannot start
// (events then go nowhere; kivd runs on).
int evlog_start(evlog_report report);
// Emits KIVEV_SERVICE_STOPPED with code, waits up to EVLOG_DRAIN_MS for the queue to be
// written and stops the writer. Later events are dropped.
void evlog_stop(int code);

// `kivd -I` and `kivd -U`: the source's key with EventMessageFile (exe, the file that
// holds the message table) and TypesSupported; removed whole. 0 or the registry's error
// (a key already gone is 0).
long evlog_register(const char *exe);
long evlog_unregister();
