// The few operating-system facilities the toolkit runtime needs, with one implementation
// for Windows (platform_win.cpp) and one for the portable build (platform_posix.cpp).
#pragma once
#include <cstdint>
#include <cstdio>
#include <ctime>

long kiv_processid();
unsigned long kiv_threadid();
uint32_t kiv_systicks();  // milliseconds since some fixed point, wrapping at 2^32
// The local calendar time of t in *out, thread-safe. False when t cannot be converted.
bool kiv_localtime(time_t t, struct tm *out);
// Opens a file for appending that no child process inherits (the log's file: a program
// started with inheritance on must not hold it open). Null when it cannot be opened.
FILE *kiv_fopen_append(const char *name);

// A manual-reset event, created not signalled, never destroyed.
struct kiv_event;
kiv_event *kiv_event_create();  // null when the system refuses
void kiv_event_set(kiv_event *ev);
void kiv_event_reset(kiv_event *ev);
void kiv_event_wait(kiv_event *ev);

// Starts the platform socket library (version 2.0). Returns true on success; the
// portable build has nothing to start.
bool kiv_netstart();
