// kiv_memdb: a hash table with chained buckets mapping byte-string keys to byte-string
// data, with optional ASCII case-insensitive keys, expiry after a lifetime, a ceiling on
// the bytes held, and walks that tolerate deletions from inside the walk. No lock of its
// own: callers serialise access.
#pragma once
#include <cstdint>

// Keys and data as callers pass them.
struct kiv_memdbrec {
  int32_t keylen;   // at least 1
  void *key;        // not necessarily zero-terminated
  int32_t datalen;  // 0 or more
  void *data;       // may be null only when datalen is 0
};

struct kiv_memdbentry {
  uint32_t flags;  // ENTRY_FOREIGN, ENTRY_DELETED
  kiv_memdbrec rec;
  kiv_memdbentry *next;  // next entry of the same chain, newest first
  int32_t stamp;         // seconds since 1970 when stored or last renewed
};

using kiv_memdbfreefunc = void (*)(kiv_memdbrec *rec);

struct kiv_memdb {
  int32_t nbuckets;  // fixed at creation
  int32_t count;     // entries currently linked
  int32_t bytes;     // key + data bytes of the entries whose key and data were copied
  int32_t maxbytes;  // byte ceiling, 0 for none
  uint32_t flags;    // MEMDB_* options, plus MEMDB_WALKING (and internal marks) during a walk
  kiv_memdbfreefunc freefunc;
  kiv_memdbentry **buckets;
  int32_t lifetime;  // seconds; 0: entries never expire
  int32_t sweep;     // stores left until the next expiry sweep
};

// Options (kiv_memdbopt).
constexpr int MEMDB_TOUCH = 1;         // a successful GET renews the time stamp
constexpr int MEMDB_NOCOPYOUT = 2;     // GET hands out the stored data pointer
constexpr int MEMDB_NOCOPYIN = 4;      // PUT keeps the caller's pointers
constexpr int MEMDB_FREEFUNC = 8;      // disposal calls the free function
constexpr int MEMDB_NOCASE = 16;       // keys hash and compare with ASCII case folding
constexpr int MEMDB_MAXBYTES = 32;     // the option argument is the byte ceiling
constexpr int MEMDB_WALKING = 0x4000;  // internal: a walk is running

constexpr uint32_t ENTRY_FOREIGN = 0x1000;  // key and data belong to the caller
constexpr uint32_t ENTRY_DELETED = 0x2000;  // deleted during a walk, unlinked by it

// Operations of kiv_memdbfunc.
constexpr int MEMDB_PUT = 1;
constexpr int MEMDB_GET = 2;
constexpr int MEMDB_DEL = 3;
constexpr int MEMDB_MATCH = 4;

using kiv_memdbwalkfunc = int (*)(kiv_memdb *db, kiv_memdbrec *rec, void *arg);

// Bucket count below 1 becomes 64; a negative lifetime becomes 600 s. 0, KIV_EINVAL,
// KIV_ENOMEM.
int kiv_memdbnew(int nbuckets, int lifetime, kiv_memdb **out);
// Replaces the options (flags < 0: only reads them); returns the previous options.
// With MEMDB_FREEFUNC, arg is the free function; else with MEMDB_MAXBYTES, the ceiling
// (KIV_EINVAL, nothing changed, when it lies outside 0..INT32_MAX).
int kiv_memdbopt(kiv_memdb *db, int flags, intptr_t arg);
// PUT: 0; GET: 0, the data (a heap copy owned by the caller unless MEMDB_NOCOPYOUT) and
// its length in rec; DEL: 0; MATCH: the stored data length, or KIV_EBUSY when rec's data
// differs (rec->datalen <= 0 only tests existence). KIV_ENOTFOUND, KIV_ETIMEDOUT,
// KIV_ENOMEM, KIV_EINVAL as they apply. An entry deleted during a walk is gone for every
// lookup at once, though the walk unlinks it later.
int kiv_memdbfunc(int op, kiv_memdbrec *rec, kiv_memdb *db);
// Calls fn for every entry; a non-zero result ends the walk and is returned. KIV_EBUSY
// without a callback or inside a walk of the same database. Entries deleted during the
// walk are not visited and are all unlinked by the time it returns.
int kiv_memdbwalk(kiv_memdb *db, kiv_memdbwalkfunc fn, void *arg);
// Removes every entry older than the lifetime at now; returns how many. 0 during a walk.
int kiv_memdbexpire(kiv_memdb *db, int32_t now);
// 0, KIV_EINVAL, KIV_EBUSY (during a walk).
int kiv_memdbfree(kiv_memdb *db);
