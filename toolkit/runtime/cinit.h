// The start-up wrapper that the service host calls.
#pragma once
#include "toolkit/runtime/init.h"

// Builds a record (copying the first four words of rec when given), marks the policy
// of the non-exportable flavour, calls kiv_init and copies the four words back with
// KIV_INIT_POLICY cleared. Returns kiv_init's result.
int kiv_cinit(kiv_initrec *rec);
