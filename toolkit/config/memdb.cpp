#include "toolkit/config/memdb.h"

#include <cstdint>
#include <cstring>

#include "lib/heap.h"
#include "lib/strcase.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/memory.h"

namespace {

const char TAG[] = "memdb.kiv_memdbfunc";

// Internal marks, never set by callers and kept across kiv_memdbopt.
// On the database: an entry other than the one being visited was marked deleted during
// the running walk, so the walk sweeps the table for marks when it ends.
constexpr uint32_t MEMDB_STRAYMARK = 0x8000;
constexpr uint32_t MEMDB_INTERNAL = MEMDB_WALKING | MEMDB_STRAYMARK;
// On an entry: the walk's callback is running on it.
constexpr uint32_t ENTRY_VISITING = 0x4000;
// On an entry: key and data were copied and their lengths are in bytes held. Disposal
// subtracts them whatever the options are by then, so that switching MEMDB_FREEFUNC on
// later cannot leave bytes held counting entries that are gone.
constexpr uint32_t ENTRY_COUNTED = 0x0800;

constexpr int32_t DEFAULT_BUCKETS = 64;
constexpr int32_t DEFAULT_LIFETIME = 600;
constexpr int32_t FIRST_SWEEP = 64;

uint32_t hash(const unsigned char *key, int32_t keylen, bool nocase) {
  uint32_t h = static_cast<uint32_t>(keylen);
  if (nocase) {
    for (int32_t i = 0; i < keylen; i++) h = 9 * h + xfoldtable.map[key[i]];
  } else {
    for (int32_t i = 0; i < keylen; i++) h = 9 * h + key[i];
  }
  return h;
}

bool samekey(const kiv_memdbrec &a, const unsigned char *key, int32_t keylen, bool nocase) {
  if (a.keylen != keylen) return false;
  const unsigned char *k = static_cast<const unsigned char *>(a.key);
  if (!nocase) return memcmp(k, key, static_cast<size_t>(keylen)) == 0;
  for (int32_t i = 0; i < keylen; i++)
    if (xfoldtable.map[k[i]] != xfoldtable.map[key[i]]) return false;
  return true;
}

uint32_t bucketof(const kiv_memdb *db, uint32_t h) {
  return h % static_cast<uint32_t>(db->nbuckets);
}

// The first equal entry of the chain. Entries marked deleted during a walk are skipped:
// once deleted, a key stays gone even while its entry waits to be unlinked.
kiv_memdbentry *find(const kiv_memdb *db, const kiv_memdbrec *rec, uint32_t bucket) {
  const unsigned char *key = static_cast<const unsigned char *>(rec->key);
  bool nocase = (db->flags & MEMDB_NOCASE) != 0;
  for (kiv_memdbentry *e = db->buckets[bucket]; e; e = e->next) {
    if (!(e->flags & ENTRY_DELETED) && samekey(e->rec, key, rec->keylen, nocase)) return e;
  }
  return nullptr;
}

void unlink(kiv_memdb *db, uint32_t bucket, kiv_memdbentry *e) {
  kiv_memdbentry **pp = &db->buckets[bucket];
  while (*pp != e) pp = &(*pp)->next;
  *pp = e->next;
}

void dispose(kiv_memdb *db, kiv_memdbentry *e) {
  db->count--;
  if (!(e->flags & ENTRY_FOREIGN)) {
    if (db->flags & MEMDB_FREEFUNC) {
      if (db->freefunc) db->freefunc(&e->rec);
    } else {
      xfree(e->rec.key);
      xfree(e->rec.data);
    }
    if (e->flags & ENTRY_COUNTED) db->bytes -= e->rec.keylen + e->rec.datalen;
  }
  xfree(e);
}

// The one removal of an entry by key (a delete, or a store that replaces): at once when
// idle; during a walk only marked, since the walk holds a pointer into the chain.
void removeentry(kiv_memdb *db, uint32_t bucket, kiv_memdbentry *e) {
  if (db->flags & MEMDB_WALKING) {
    e->flags |= ENTRY_DELETED;
    if (!(e->flags & ENTRY_VISITING)) db->flags |= MEMDB_STRAYMARK;
  } else {
    unlink(db, bucket, e);
    dispose(db, e);
  }
}

// In 64 bits: a stamp near the end of the 32-bit range plus a lifetime must not wrap.
bool expired(const kiv_memdb *db, const kiv_memdbentry *e, int32_t now) {
  return static_cast<int64_t>(e->stamp) + db->lifetime < now;
}

// Unlinks and disposes of every marked entry; run when a walk ends.
void sweepmarked(kiv_memdb *db) {
  for (int32_t b = 0; b < db->nbuckets; b++) {
    kiv_memdbentry **pp = &db->buckets[b];
    while (*pp) {
      kiv_memdbentry *e = *pp;
      if (e->flags & ENTRY_DELETED) {
        *pp = e->next;
        dispose(db, e);
      } else {
        pp = &e->next;
      }
    }
  }
}

// Disposes of the oldest entry of the first non-empty chain from start upwards.
void evictone(kiv_memdb *db, uint32_t start) {
  for (int32_t n = 0; n < db->nbuckets; n++) {
    uint32_t b = (start + static_cast<uint32_t>(n)) % static_cast<uint32_t>(db->nbuckets);
    kiv_memdbentry **pp = &db->buckets[b];
    if (!*pp) continue;
    while ((*pp)->next) pp = &(*pp)->next;
    kiv_memdbentry *last = *pp;
    *pp = nullptr;
    dispose(db, last);
    return;
  }
}

// The lifetime rule of GET and MATCH: 0 to go on, or KIV_ETIMEDOUT after a sweep.
int checklife(kiv_memdb *db, kiv_memdbentry *e) {
  if (db->lifetime == 0) return 0;
  int32_t now = static_cast<int32_t>(kiv_time());
  if (expired(db, e, now)) {
    kiv_memdbexpire(db, now);
    return KIV_ETIMEDOUT;
  }
  if (db->flags & MEMDB_TOUCH) e->stamp = static_cast<int32_t>(now);
  return 0;
}

int put(kiv_memdb *db, kiv_memdbrec *rec, uint32_t bucket) {
  if (rec->datalen < 0 || (rec->datalen > 0 && !rec->data)) return KIV_EINVAL;
  auto *e = static_cast<kiv_memdbentry *>(kiv_zalloc(sizeof(kiv_memdbentry), TAG));
  if (!e) return KIV_ENOMEM;
  e->rec.keylen = rec->keylen;
  e->rec.datalen = rec->datalen;
  if (db->flags & MEMDB_NOCOPYIN) {
    e->rec.key = rec->key;
    e->rec.data = rec->data;
    if (!(db->flags & MEMDB_FREEFUNC)) e->flags |= ENTRY_FOREIGN;
  } else {
    int64_t size = static_cast<int64_t>(rec->keylen) + rec->datalen;
    // Bytes held is a 32-bit count: a store that would carry it past that is refused
    // like one the heap refused.
    if (static_cast<int64_t>(db->bytes) + size > INT32_MAX) {
      xfree(e);
      return KIV_ENOMEM;
    }
    e->rec.key = kiv_alloc(static_cast<unsigned>(rec->keylen), TAG);
    if (e->rec.key && rec->datalen > 0)
      e->rec.data = kiv_alloc(static_cast<unsigned>(rec->datalen), TAG);
    if (!e->rec.key || (rec->datalen > 0 && !e->rec.data)) {
      xfree(e->rec.key);
      xfree(e);
      return KIV_ENOMEM;
    }
    memcpy(e->rec.key, rec->key, static_cast<size_t>(rec->keylen));
    if (rec->datalen > 0) memcpy(e->rec.data, rec->data, static_cast<size_t>(rec->datalen));
    e->flags |= ENTRY_COUNTED;
    db->bytes += static_cast<int32_t>(size);
  }
  e->stamp = static_cast<int32_t>(kiv_time());
  db->count++;

  if (kiv_memdbentry *old = find(db, rec, bucket)) removeentry(db, bucket, old);
  e->next = db->buckets[bucket];
  db->buckets[bucket] = e;

  if (db->lifetime == 0) return 0;
  db->sweep--;
  if (db->flags & MEMDB_WALKING) return 0;
  if (db->sweep <= 0) {
    kiv_memdbexpire(db, e->stamp);
  } else if (db->maxbytes != 0 && db->bytes >= db->maxbytes) {
    db->sweep--;
    evictone(db, static_cast<uint32_t>(e->stamp) % static_cast<uint32_t>(db->nbuckets));
  }
  return 0;
}

}  // namespace

int kiv_memdbnew(int nbuckets, int lifetime, kiv_memdb **out) {
  if (!out) return KIV_EINVAL;
  *out = nullptr;
  if (nbuckets < 1) nbuckets = DEFAULT_BUCKETS;
  if (lifetime < 0) lifetime = DEFAULT_LIFETIME;
  size_t arraysize = static_cast<size_t>(nbuckets) * sizeof(kiv_memdbentry *);
  auto *db = static_cast<kiv_memdb *>(kiv_zalloc(sizeof(kiv_memdb), TAG));
  if (!db) return KIV_ENOMEM;
  db->buckets = static_cast<kiv_memdbentry **>(kiv_allocsize(arraysize, TAG));
  if (!db->buckets) {
    xfree(db);
    return KIV_ENOMEM;
  }
  memset(db->buckets, 0, arraysize);
  db->nbuckets = nbuckets;
  db->lifetime = lifetime;
  db->sweep = nbuckets < FIRST_SWEEP ? nbuckets : FIRST_SWEEP;
  *out = db;
  return 0;
}

int kiv_memdbopt(kiv_memdb *db, int flags, intptr_t arg) {
  if (!db) return KIV_EINVAL;
  int old = static_cast<int>(db->flags);
  if (flags < 0) return old;
  if (!(flags & MEMDB_FREEFUNC) && (flags & MEMDB_MAXBYTES) && (arg < 0 || arg > INT32_MAX))
    return KIV_EINVAL;  // bytes held is 32-bit; a ceiling it cannot reach means nothing
  // The internal marks belong to a running walk: callers can neither set nor clear them.
  db->flags = (static_cast<uint32_t>(flags) & ~MEMDB_INTERNAL) | (db->flags & MEMDB_INTERNAL);
  if (flags & MEMDB_FREEFUNC)
    db->freefunc = reinterpret_cast<kiv_memdbfreefunc>(arg);
  else if (flags & MEMDB_MAXBYTES)
    db->maxbytes = static_cast<int32_t>(arg);
  return old;
}

int kiv_memdbfunc(int op, kiv_memdbrec *rec, kiv_memdb *db) {
  if (!db || !rec || !rec->key || rec->keylen < 1 || op < MEMDB_PUT || op > MEMDB_MATCH)
    return KIV_EINVAL;
  uint32_t bucket = bucketof(db, hash(static_cast<const unsigned char *>(rec->key), rec->keylen,
                                      (db->flags & MEMDB_NOCASE) != 0));
  if (op == MEMDB_PUT) return put(db, rec, bucket);
  if (op == MEMDB_MATCH && rec->datalen > 0 && !rec->data) return KIV_EINVAL;
  kiv_memdbentry *e = find(db, rec, bucket);
  if (op == MEMDB_GET) {
    // A walk callback holds a stored record itself; fetching into it would overwrite an
    // entry's own data pointer. Such a record hashes to this very chain.
    for (kiv_memdbentry *s = db->buckets[bucket]; s; s = s->next)
      if (rec == &s->rec) return KIV_EINVAL;
    rec->data = nullptr;
    rec->datalen = 0;
  }
  if (!e) return KIV_ENOTFOUND;

  switch (op) {
    case MEMDB_GET: {
      if (int r = checklife(db, e)) return r;
      if (db->flags & MEMDB_NOCOPYOUT) {
        rec->data = e->rec.data;
      } else if (e->rec.datalen > 0) {
        rec->data = kiv_alloc(static_cast<unsigned>(e->rec.datalen), TAG);
        if (!rec->data) return KIV_ENOMEM;
        memcpy(rec->data, e->rec.data, static_cast<size_t>(e->rec.datalen));
      }
      rec->datalen = e->rec.datalen;
      return 0;
    }
    case MEMDB_DEL:
      removeentry(db, bucket, e);
      return 0;
    default: {  // MEMDB_MATCH
      if (int r = checklife(db, e)) return r;
      if (rec->datalen <= 0) return e->rec.datalen;
      if (rec->datalen != e->rec.datalen ||
          memcmp(rec->data, e->rec.data, static_cast<size_t>(rec->datalen)) != 0)
        return KIV_EBUSY;
      return e->rec.datalen;
    }
  }
}

int kiv_memdbwalk(kiv_memdb *db, kiv_memdbwalkfunc fn, void *arg) {
  if (!db) return KIV_EINVAL;
  if (!fn || (db->flags & MEMDB_WALKING)) return KIV_EBUSY;
  db->flags |= MEMDB_WALKING;
  int result = 0;
  for (int32_t b = 0; b < db->nbuckets && result == 0; b++) {
    kiv_memdbentry *e = db->buckets[b];
    while (e) {
      // Only the walk unlinks while it runs (stores link at chain heads, deletions only
      // mark), so e->next stays valid across the callback.
      kiv_memdbentry *next;
      if (e->flags & ENTRY_DELETED) {
        // Deleted before the walk got here: it is gone for the caller, so no visit.
        next = e->next;
        unlink(db, static_cast<uint32_t>(b), e);
        dispose(db, e);
        e = next;
        continue;
      }
      e->flags |= ENTRY_VISITING;
      result = fn(db, &e->rec, arg);
      e->flags &= ~ENTRY_VISITING;
      next = e->next;
      if (e->flags & ENTRY_DELETED) {
        unlink(db, static_cast<uint32_t>(b), e);
        dispose(db, e);
      }
      if (result != 0) break;
      e = next;
    }
  }
  // Entries marked in the part already passed (or not reached after an early stop)
  // would otherwise stay linked until some later walk: remove them now.
  if (db->flags & MEMDB_STRAYMARK) sweepmarked(db);
  db->flags &= ~MEMDB_INTERNAL;
  return result;
}

int kiv_memdbexpire(kiv_memdb *db, int32_t now) {
  if (!db || (db->flags & MEMDB_WALKING)) return 0;
  int removed = 0;
  // Lifetime 0 means entries never expire, even when a caller asks for a sweep.
  if (db->lifetime != 0) {
    for (int32_t b = 0; b < db->nbuckets; b++) {
      kiv_memdbentry **pp = &db->buckets[b];
      while (*pp) {
        kiv_memdbentry *e = *pp;
        if (expired(db, e, now)) {
          *pp = e->next;
          dispose(db, e);
          removed++;
        } else {
          pp = &e->next;
        }
      }
    }
  }
  db->sweep = db->nbuckets;
  return removed;
}

int kiv_memdbfree(kiv_memdb *db) {
  if (!db) return KIV_EINVAL;
  if (db->flags & MEMDB_WALKING) return KIV_EBUSY;
  for (int32_t b = 0; b < db->nbuckets; b++) {
    kiv_memdbentry *e = db->buckets[b];
    while (e) {
      kiv_memdbentry *next = e->next;
      dispose(db, e);
      e = next;
    }
  }
  xfree(db->buckets);
  xfree(db);
  return 0;
}
