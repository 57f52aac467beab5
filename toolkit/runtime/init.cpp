#include "toolkit/runtime/init.h"

#include "toolkit/runtime/error.h"
#include "toolkit/runtime/events.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"
#include "toolkit/runtime/platform.h"

namespace {

const char TAG[] = "misc.kiv_init";

int initcount;
bool netstarted;
const char *flavour = "exportable";

// The cryptographic policy of the non-exportable flavour belongs to the crypto engine,
// which this system does not contain: the hook is recorded and never called.
void nonexportable_policy() {}
using policyfunc = void (*)();
policyfunc policyhook;

// Maps the hook number carried in the record to its function; unknown numbers give none.
policyfunc lookup_policy(uint32_t number) {
  return number == KIV_POLICY_NONEXPORTABLE ? nonexportable_policy : nullptr;
}

// The toolkit's context registry: nothing in this system adds a context, so only its
// event exists (manual reset, not signalled).
kiv_event *registry_event;

}  // namespace

void kiv_allocreport(const char *tag, unsigned size) {
  // %d as the report gives it: a size of 2^31 or more prints negative.
  kiv_logerror(nullptr, tag, KIV_SEV_FATAL, KIV_ENOMEM, "failed to allocate %d bytes",
               static_cast<int>(size));
  kivev_event ev{};
  ev.id = KIVEV_OUT_OF_MEMORY;
  ev.size = size;
  ev.text = tag;
  kivev_emit(&ev);
}

int kiv_init(kiv_initrec *rec) {
  if (initcount != 0) {
    kiv_logerror(nullptr, TAG, KIV_SEV_WARNING, KIV_EBUSY, "called more than once");
    return KIV_EBUSY;
  }
  kiv_logsetpid(kiv_processid());
  kiv_setallocreporter(kiv_allocreport);
  if (rec) {
    int32_t version = static_cast<int32_t>(rec->version);
    int32_t revision = static_cast<int32_t>(rec->revision);
    bool accepted =
        version == 0 || (version == KIV_INTERFACE_VERSION && revision <= KIV_INTERFACE_REVISION);
    rec->version = KIV_INTERFACE_VERSION;
    rec->revision = KIV_INTERFACE_REVISION;
    if (!accepted) return KIV_ENOTFOUND;
  }
  kiv_locks_init();
  // Flags KIV_INIT_NOSUB1 and KIV_INIT_NOSUB2 would suppress subsystems that this
  // system does not contain; there is nothing to start either way.
  kiv_net_init();

  flavour = "exportable";
  if (rec && (rec->flags & KIV_INIT_POLICY) && rec->policymarker == KIV_POLICY_MARKER) {
    policyhook = lookup_policy(rec->policyhook);
    flavour = "non-exportable";
  }
  initcount++;
  KIV_LOG(1, TAG, "%s", flavour);
  return 0;
}

int kiv_net_init() {
  if (!kiv_locks_ready()) kiv_locks_init();
  // The whole start-up runs under the lock, so two first callers cannot both start it.
  kiv_lock(KIV_LOCK_NET);
  if (netstarted) {
    kiv_unlock(KIV_LOCK_NET);
    return 0;
  }
  if (!kiv_netstart()) {
    kiv_unlock(KIV_LOCK_NET);
    return KIV_ESYS;
  }
  if (!registry_event) registry_event = kiv_event_create();
  netstarted = true;
  kiv_unlock(KIV_LOCK_NET);
  return 0;
}

const char *kiv_flavour() { return flavour; }
