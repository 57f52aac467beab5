// Restart and upgrade that refuse nothing and cut nothing: the running kivd gives its
// listening sockets, running agents and global programs to a holder, kivd.exe run from a
// copy of its own outside the install folder, and the holder gives them on to the
// successor. The holder touches nothing meanwhile: connections to idle ports wait in their
// backlog, agents serve on. The channel between the processes admits kivd's own account
// alone, and the holder gives only to the process it expects (the service's new process,
// or the console successor it started), checked by id and token.
#pragma once
#include <winsock2.h>
#include <windows.h>

constexpr DWORD HANDOVER_REPLY_MS = 30000;  // what either end waits for the other's answer

// The hand-over asked for on control pipe `pipe`: `restart` has the successor started (by
// the service manager, or by the holder in the same console); without it an installer
// starts it. The reply: "+Handed over to holder H: ports=N agents=N programs=N kivd=P"
// (P this process), or a "-" text when nothing was handed over (kivd serves on). After
// the "+", handed_over() is true and the loop must end at once, without a stop's shutdown.
void handover_begin(int pipe, bool restart, int bound);
bool handed_over();
// Closes this process's share of what it handed over (its records, without a word to any
// agent) once the loop has ended.
void handover_release();

// At start-up, before the configuration is read: claims what a holder holds for this
// process, if a holder waits. True when something was adopted (then the configuration's
// reading makes it agree, as a reconfiguration does).
bool handover_claim();
// After the configuration was read: the completed hand-over's event, with the gap measured
// from the predecessor's end to now. Nothing when handover_claim adopted nothing.
void handover_completed();

// kivd -H<in>,<out>: the holder's whole life, reading the hand-over from handle `in` and
// answering on `out` (hexadecimal handle values it inherited). Returns its exit code.
int holder_main(const char *handles);

// kivd -R<pid>: after holder pid ended unclaimed, removes its copy and folder (the
// holder cannot delete its own running file). Returns the exit code.
int holder_remover(const char *pid);

// Removes the folders of holders that no longer run (their copy can be deleted), and the
// holders' root when it is empty. At every start and stop. True when the root is gone.
bool handover_sweep();
