// The start-up wrapper that the service host calls.
#pragma once
#include "toolkit/runtime/init.h"

// Fixed constant shared by kiv_cinit and kiv_init: the policy hook is taken only when
// the record's marker equals it. The value is arbitrary.
constexpr uint32_t KIV_POLICY_MARKER = 0x4B495650;  // "KIVP"

// Builds a record (copying the first four words of rec when given), marks the policy
// of the non-exportable flavour, calls kiv_init and copies the four words back with
// KIV_INIT_POLICY cleared. Returns kiv_init's result.
int kiv_cinit(kiv_initrec *rec);
