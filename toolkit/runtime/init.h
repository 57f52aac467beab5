// Toolkit initialisation: runs once per process at start-up.
#pragma once
#include <cstdint>
#include "toolkit/runtime/context.h"  // kiv_context, for the callers that took it from here

// Six 32-bit words in this order.
struct kiv_initrec {
  uint32_t first;         // carried through by kiv_cinit, not read by kiv_init
  uint32_t flags;         // KIV_INIT_NOSUB1, KIV_INIT_NOSUB2, KIV_INIT_POLICY
  uint32_t version;       // requested interface version, 0 for any; 5 on return
  uint32_t revision;      // requested revision; 0 on return
  uint32_t policymarker;  // must equal KIV_POLICY_MARKER for policyhook to be taken
  uint32_t policyhook;    // which policy function: KIV_POLICY_NONEXPORTABLE
};
// A 32-bit word cannot carry a 64-bit function pointer, so the record names the policy
// function by number and kiv_init looks the function up.
static_assert(sizeof(kiv_initrec) == 24, "kiv_initrec is six 32-bit words");

constexpr uint32_t KIV_INIT_NOSUB1 = 0x1;  // suppress an optional subsystem (none here)
constexpr uint32_t KIV_INIT_NOSUB2 = 0x2;
constexpr uint32_t KIV_INIT_POLICY = 0x8000;  // policymarker and policyhook are present
constexpr uint32_t KIV_POLICY_NONEXPORTABLE = 1;
// Fixed constant shared by kiv_cinit and kiv_init: the policy hook is taken only when
// the record's marker equals it. The value is arbitrary.
constexpr uint32_t KIV_POLICY_MARKER = 0x4B495650;  // "KIVP"
constexpr int KIV_INTERFACE_VERSION = 5;  // the toolkit's, not the product's (kiv_version.h)
constexpr int KIV_INTERFACE_REVISION = 0;

// The toolkit's out-of-memory report: "failed to allocate %d bytes" (FATAL, ENOMEM) under
// tag, and the OUT_OF_MEMORY event. kiv_init installs it in the allocator.
void kiv_allocreport(const char *tag, unsigned size);
// 0; KIV_EBUSY (reported as a warning) when called before; KIV_ENOTFOUND when the
// record asks for a version that is not provided (the toolkit stays uninitialised).
int kiv_init(kiv_initrec *rec);
// Starts the socket library once (under lock slot 5). 0 or KIV_ESYS.
int kiv_net_init();
// "exportable" or "non-exportable", as recorded by the last successful kiv_init.
const char *kiv_flavour();
