#include "toolkit/runtime/cinit.h"

int kiv_cinit(kiv_initrec *rec) {
  kiv_initrec full{};
  if (rec) {
    full.first = rec->first;
    full.flags = rec->flags;
    full.version = rec->version;
    full.revision = rec->revision;
  }
  full.flags |= KIV_INIT_POLICY;
  full.policymarker = KIV_POLICY_MARKER;
  full.policyhook = KIV_POLICY_NONEXPORTABLE;
  int result = kiv_init(&full);
  if (rec) {
    rec->first = full.first;
    rec->flags = full.flags & ~KIV_INIT_POLICY;
    rec->version = full.version;
    rec->revision = full.revision;
  }
  return result;
}
