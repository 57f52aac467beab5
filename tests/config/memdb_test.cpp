#include "toolkit/config/memdb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lib/heap.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"

namespace {

time_t fakenow;
time_t fakeclock() { return fakenow; }
void quietsink(const char *) {}

class Memdb : public ::testing::Test {
 protected:
  void SetUp() override {
    fakenow = 1000000;
    kiv_setclock(fakeclock, nullptr);
  }
  void TearDown() override {
    for (kiv_memdb *db : dbs) EXPECT_EQ(kiv_memdbfree(db), 0);
    kiv_setclock(nullptr, nullptr);
    xheap_failafter(-1);
  }
  kiv_memdb *make(int nbuckets, int lifetime, int flags = 0) {
    kiv_memdb *db = nullptr;
    EXPECT_EQ(kiv_memdbnew(nbuckets, lifetime, &db), 0);
    if (db && flags) kiv_memdbopt(db, flags, 0);
    dbs.push_back(db);
    return db;
  }
  std::vector<kiv_memdb *> dbs;
};

// Points into key and data: both must outlive the record.
kiv_memdbrec rec(const std::string &key, const std::string *data = nullptr) {
  kiv_memdbrec r{};
  r.keylen = static_cast<int32_t>(key.size());
  r.key = const_cast<char *>(key.data());
  if (data) {
    r.datalen = static_cast<int32_t>(data->size());
    r.data = const_cast<char *>(data->data());
  }
  return r;
}

int put(kiv_memdb *db, const std::string &key, const std::string &data) {
  kiv_memdbrec r = rec(key, &data);
  return kiv_memdbfunc(MEMDB_PUT, &r, db);
}

// The data as text, or "#<code>" on failure.
std::string get(kiv_memdb *db, const std::string &key) {
  kiv_memdbrec r = rec(key);
  int rc = kiv_memdbfunc(MEMDB_GET, &r, db);
  if (rc != 0) return "#" + std::to_string(rc);
  std::string s(static_cast<char *>(r.data), static_cast<size_t>(r.datalen));
  if (!(kiv_memdbopt(db, -1, 0) & MEMDB_NOCOPYOUT)) xfree(r.data);
  return s;
}

int del(kiv_memdb *db, const std::string &key) {
  kiv_memdbrec r = rec(key);
  return kiv_memdbfunc(MEMDB_DEL, &r, db);
}

// The hash as the table defines it, for checking where entries land.
uint32_t refhash(const std::string &key, bool nocase) {
  uint32_t h = static_cast<uint32_t>(key.size());
  for (unsigned char c : key) h = 9 * h + (nocase && c >= 'A' && c <= 'Z' ? c + 32 : c);
  return h;
}

bool inbucket(kiv_memdb *db, uint32_t bucket, const std::string &key) {
  for (kiv_memdbentry *e = db->buckets[bucket]; e; e = e->next)
    if (e->rec.keylen == static_cast<int32_t>(key.size()) && memcmp(e->rec.key, key.data(), key.size()) == 0)
      return true;
  return false;
}

TEST_F(Memdb, CaseFoldingAgainstExactKeys) {
  struct {
    int flags;
    int count;
    const char *lower;  // what "abc" finds after storing ABC=1 then abc=2
    const char *upper;
  } cases[] = {{MEMDB_NOCASE, 1, "2", "2"}, {0, 2, "2", "1"}};
  for (auto &c : cases) {
    kiv_memdb *db = make(512, 0, c.flags);
    ASSERT_EQ(put(db, "ABC", "1"), 0);
    ASSERT_EQ(put(db, "abc", "2"), 0);
    EXPECT_EQ(db->count, c.count) << "flags " << c.flags;
    EXPECT_EQ(get(db, "abc"), c.lower) << "flags " << c.flags;
    EXPECT_EQ(get(db, "ABC"), c.upper) << "flags " << c.flags;
    bool nocase = c.flags != 0;
    EXPECT_TRUE(inbucket(db, refhash("abc", nocase) % 512, "abc"));
    EXPECT_EQ(refhash("ABC", nocase) % 512 == refhash("abc", nocase) % 512, nocase);
  }
}

TEST_F(Memdb, ReplacementKeepsOneEntryAndCountsBytes) {
  kiv_memdb *db = make(0, 0);
  EXPECT_EQ(db->nbuckets, 64);
  EXPECT_EQ(db->sweep, 64);
  ASSERT_EQ(put(db, "key", "first"), 0);
  ASSERT_EQ(put(db, "key", "second!"), 0);
  EXPECT_EQ(db->count, 1);
  EXPECT_EQ(db->bytes, 3 + 7);
  EXPECT_EQ(get(db, "key"), "second!");
  ASSERT_EQ(put(db, "empty", ""), 0);
  EXPECT_EQ(get(db, "empty"), "");
  EXPECT_EQ(del(db, "key"), 0);
  EXPECT_EQ(del(db, "key"), KIV_ENOTFOUND);
  EXPECT_EQ(db->count, 1);
  EXPECT_EQ(db->bytes, 5);
}

TEST_F(Memdb, MatchTestsExistenceAndCompares) {
  kiv_memdb *db = make(16, 0);
  ASSERT_EQ(put(db, "k", "value"), 0);
  struct {
    const char *key;
    const char *data;  // null: length 0
    int expect;
  } cases[] = {{"k", nullptr, 5}, {"k", "value", 5}, {"k", "valuE", KIV_EBUSY},
               {"k", "val", KIV_EBUSY}, {"k", "values", KIV_EBUSY}, {"x", nullptr, KIV_ENOTFOUND}};
  for (auto &c : cases) {
    std::string key = c.key, data = c.data ? c.data : "";
    kiv_memdbrec r = rec(key, c.data ? &data : nullptr);
    EXPECT_EQ(kiv_memdbfunc(MEMDB_MATCH, &r, db), c.expect) << c.key << " " << data;
  }
  ASSERT_EQ(put(db, "none", ""), 0);
  std::string none = "none";
  kiv_memdbrec r = rec(none);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_MATCH, &r, db), 0);
}

TEST_F(Memdb, RefusesBadArguments) {
  kiv_memdb *db = make(8, 0);
  std::string k = "k", d = "d";
  kiv_memdbrec good = rec(k, &d);
  kiv_memdbrec nokey = good, zerokey = good, negdata = good, nulldata = good;
  nokey.key = nullptr;
  zerokey.keylen = 0;
  negdata.datalen = -1;
  nulldata.data = nullptr;
  EXPECT_EQ(kiv_memdbfunc(MEMDB_PUT, &good, nullptr), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_PUT, nullptr, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_PUT, &nokey, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_GET, &zerokey, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(0, &good, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(5, &good, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_PUT, &negdata, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_PUT, &nulldata, db), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_MATCH, &nulldata, db), KIV_EINVAL);
  EXPECT_EQ(db->count, 0);
  EXPECT_EQ(kiv_memdbnew(8, 0, nullptr), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbopt(nullptr, 0, 0), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbfree(nullptr), KIV_EINVAL);
  // A ceiling beyond what the 32-bit byte count can hold is refused, options unchanged.
  EXPECT_EQ(kiv_memdbopt(db, MEMDB_TOUCH, 0), 0);
  EXPECT_EQ(kiv_memdbopt(db, MEMDB_MAXBYTES, -5), KIV_EINVAL);
  EXPECT_EQ(kiv_memdbopt(db, -1, 0), MEMDB_TOUCH);
  EXPECT_EQ(kiv_memdbopt(db, MEMDB_MAXBYTES, 100), MEMDB_TOUCH);
  EXPECT_EQ(db->maxbytes, 100);
}

TEST_F(Memdb, NegativeLifetimeKeepsEntriesSixHundredSeconds) {
  kiv_memdb *db = make(64, -1);
  EXPECT_EQ(db->lifetime, 600);
  ASSERT_EQ(put(db, "a", "1"), 0);
  ASSERT_EQ(put(db, "b", "2"), 0);
  fakenow += 600;
  EXPECT_EQ(get(db, "a"), "1");
  fakenow += 1;
  // The expired lookup sweeps every expired entry, "b" included.
  EXPECT_EQ(get(db, "a"), "#" + std::to_string(KIV_ETIMEDOUT));
  EXPECT_EQ(db->count, 0);
  EXPECT_EQ(get(db, "a"), "#" + std::to_string(KIV_ENOTFOUND));
  EXPECT_EQ(db->sweep, 64);
}

TEST_F(Memdb, TouchRenewsOnGet) {
  kiv_memdb *db = make(64, 100, MEMDB_TOUCH);
  ASSERT_EQ(put(db, "a", "1"), 0);
  fakenow += 90;
  EXPECT_EQ(get(db, "a"), "1");
  fakenow += 90;
  std::string a = "a";
  kiv_memdbrec r = rec(a);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_MATCH, &r, db), 1);
  fakenow += 101;
  EXPECT_EQ(kiv_memdbfunc(MEMDB_MATCH, &r, db), KIV_ETIMEDOUT);
}

TEST_F(Memdb, SweepCountdownRunsExpiry) {
  kiv_memdb *db = make(512, 10);
  EXPECT_EQ(db->sweep, 64);
  for (int i = 0; i < 63; i++) ASSERT_EQ(put(db, "old" + std::to_string(i), "x"), 0);
  EXPECT_EQ(db->sweep, 1);
  EXPECT_EQ(db->count, 63);
  fakenow += 11;
  ASSERT_EQ(put(db, "new", "x"), 0);  // the 64th store sweeps the 63 expired ones
  EXPECT_EQ(db->count, 1);
  EXPECT_EQ(db->sweep, 512);
  EXPECT_EQ(get(db, "new"), "x");
  EXPECT_EQ(kiv_memdbexpire(db, static_cast<int32_t>(fakenow + 11)), 1);
}

TEST_F(Memdb, LifetimeZeroNeverExpiresNorEvicts) {
  kiv_memdb *db = make(8, 0);
  kiv_memdbopt(db, MEMDB_MAXBYTES, 10);
  for (int i = 0; i < 100; i++) ASSERT_EQ(put(db, "key" + std::to_string(i), "0123456789"), 0);
  EXPECT_EQ(db->count, 100);
  EXPECT_EQ(db->sweep, 8);
  EXPECT_EQ(kiv_memdbexpire(db, INT32_MAX), 0);
  EXPECT_EQ(db->count, 100);
}

TEST_F(Memdb, CeilingEvictsOldestOfFirstChainFromStampBucket) {
  kiv_memdb *db = make(64, 1000);
  kiv_memdbopt(db, MEMDB_MAXBYTES, 100);
  for (int i = 0; i < 20; i++) {
    std::string key = "k" + std::to_string(100 + i);  // 4 + 6 = 10 bytes each
    // Predict the victim: the oldest entry of the first chain, from the stamp's bucket
    // upwards, counting the new entry in its own chain.
    std::string victim;
    if (db->bytes + 10 >= 100) {
      uint32_t mine = refhash(key, false) % 64;
      for (uint32_t n = 0; n < 64 && victim.empty(); n++) {
        uint32_t b = (static_cast<uint32_t>(fakenow) + n) % 64;
        kiv_memdbentry *last = db->buckets[b];
        if (!last && b != mine) continue;
        if (!last) {
          victim = key;
          break;
        }
        while (last->next) last = last->next;
        victim.assign(static_cast<char *>(last->rec.key), static_cast<size_t>(last->rec.keylen));
      }
    }
    ASSERT_EQ(put(db, key, "012345"), 0);
    if (!victim.empty()) {
      EXPECT_EQ(get(db, victim), "#" + std::to_string(KIV_ENOTFOUND)) << victim;
    }
    EXPECT_LT(db->bytes, 100);
    fakenow += 7;
  }
  EXPECT_EQ(db->count, 9);
  EXPECT_EQ(db->bytes, 90);
  EXPECT_EQ(db->sweep, 64 - 20 - 11);  // two per evicting store
}

TEST_F(Memdb, HeapFailureLeavesTheOldEntry) {
  kiv_logsink = quietsink;  // the allocator reports each failure
  kiv_memdb *db = make(8, 0);
  ASSERT_EQ(put(db, "k", "old"), 0);
  for (long n : {0L, 1L, 2L}) {  // the entry, the key copy, the data copy
    xheap_failafter(n);
    EXPECT_EQ(put(db, "k", "new"), KIV_ENOMEM) << n;
    xheap_failafter(-1);
    EXPECT_EQ(db->count, 1) << n;
    EXPECT_EQ(db->bytes, 4) << n;
    EXPECT_EQ(get(db, "k"), "old") << n;
  }
  xheap_failafter(0);
  EXPECT_EQ(get(db, "k"), "#" + std::to_string(KIV_ENOMEM));
  xheap_failafter(-1);
  kiv_logreset();
}

struct walkstate {
  std::vector<std::string> seen;
  std::string remove;  // a key to delete on the first visit
  int nested = 0, freed = 0, expired = 0, refetch = 0;
};

int walker(kiv_memdb *db, kiv_memdbrec *r, void *arg) {
  auto *st = static_cast<walkstate *>(arg);
  std::string key(static_cast<char *>(r->key), static_cast<size_t>(r->keylen));
  if (st->seen.empty()) {
    st->nested = kiv_memdbwalk(db, walker, arg);
    st->freed = kiv_memdbfree(db);
    st->expired = kiv_memdbexpire(db, INT32_MAX);
    if (!st->remove.empty()) {
      EXPECT_EQ(del(db, st->remove), 0);
      EXPECT_EQ(get(db, st->remove), "#" + std::to_string(KIV_ENOTFOUND));
    }
  }
  st->seen.push_back(key);
  if (key[0] == 'o') {  // odd keys delete themselves
    kiv_memdbrec self = *r;
    EXPECT_EQ(kiv_memdbfunc(MEMDB_DEL, &self, db), 0);
    st->refetch = kiv_memdbfunc(MEMDB_GET, r, db);  // the stored record is no out place
  }
  return 0;
}

TEST_F(Memdb, WalkToleratesDeletionAndRefusesReentry) {
  kiv_memdb *db = make(8, 100);
  for (int i = 0; i < 20; i++) ASSERT_EQ(put(db, (i % 2 ? "o" : "e") + std::to_string(10 + i), "v"), 0);
  walkstate st;
  EXPECT_EQ(kiv_memdbwalk(db, walker, &st), 0);
  EXPECT_EQ(st.seen.size(), 20u);
  EXPECT_EQ(st.nested, KIV_EBUSY);
  EXPECT_EQ(st.freed, KIV_EBUSY);
  EXPECT_EQ(st.expired, 0);
  EXPECT_EQ(st.refetch, KIV_EINVAL);
  EXPECT_EQ(db->count, 10);
  EXPECT_EQ(get(db, "e10"), "v");
  EXPECT_EQ(get(db, "o11"), "#" + std::to_string(KIV_ENOTFOUND));
  EXPECT_EQ(kiv_memdbwalk(db, nullptr, nullptr), KIV_EBUSY);
  EXPECT_EQ(kiv_memdbopt(db, -1, 0), 0);  // the walking mark is gone

  // Deleting another entry: gone at once for lookups, never visited, unlinked by the end
  // of the walk wherever it lay.
  for (const char *victim : {"e10", "e28", "e20"}) {
    walkstate other;
    other.remove = victim;
    int before = db->count;
    EXPECT_EQ(kiv_memdbwalk(db, walker, &other), 0);
    EXPECT_EQ(db->count, before - 1) << victim;
    for (auto &k : other.seen)
      if (k == victim && &k != &other.seen.front()) ADD_FAILURE() << "visited deleted " << victim;
    EXPECT_EQ(db->bytes, db->count * 4);
  }
}

int stopat3(kiv_memdb *db, kiv_memdbrec *r, void *arg) {
  int *n = static_cast<int *>(arg);
  std::string k = "new" + std::to_string(*n);
  put(db, k, "x");  // stores work during a walk
  del(db, std::string(static_cast<char *>(r->key), static_cast<size_t>(r->keylen)));
  return ++*n == 3 ? 42 : 0;
}

TEST_F(Memdb, CallbackResultEndsTheWalk) {
  kiv_memdb *db = make(4, 0);
  for (int i = 0; i < 10; i++) ASSERT_EQ(put(db, "k" + std::to_string(i), "v"), 0);
  int n = 0;
  EXPECT_EQ(kiv_memdbwalk(db, stopat3, &n), 42);
  EXPECT_EQ(n, 3);
  EXPECT_EQ(db->count, 10 - 3 + 3);
  EXPECT_EQ(get(db, "new2"), "x");
}

int foreignfreed;
std::vector<std::string> freedkeys;
void countfree(kiv_memdbrec *r) {
  foreignfreed++;
  freedkeys.emplace_back(static_cast<char *>(r->key), static_cast<size_t>(r->keylen));
}

TEST_F(Memdb, ForeignEntriesAndFreeFunction) {
  // Stack buffers: freeing any of them would be caught by the address sanitizer.
  char k1[] = "one", k2[] = "two", d1[] = "data1", d2[] = "data2";
  kiv_memdbrec r1{3, k1, 5, d1}, r2{3, k2, 5, d2};

  kiv_memdb *db = make(8, 0, MEMDB_NOCOPYIN | MEMDB_NOCOPYOUT);
  ASSERT_EQ(kiv_memdbfunc(MEMDB_PUT, &r1, db), 0);
  kiv_memdbrec out{3, k1, 0, nullptr};
  ASSERT_EQ(kiv_memdbfunc(MEMDB_GET, &out, db), 0);
  EXPECT_EQ(out.data, static_cast<void *>(d1));
  EXPECT_EQ(db->buckets[refhash("one", false) % 8]->flags & ENTRY_FOREIGN, ENTRY_FOREIGN);
  EXPECT_EQ(db->bytes, 0);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_DEL, &r1, db), 0);

  foreignfreed = 0;
  freedkeys.clear();
  kiv_memdb *fdb = make(8, 0);
  kiv_memdbopt(fdb, MEMDB_NOCOPYIN | MEMDB_FREEFUNC, reinterpret_cast<intptr_t>(countfree));
  ASSERT_EQ(kiv_memdbfunc(MEMDB_PUT, &r1, fdb), 0);
  ASSERT_EQ(kiv_memdbfunc(MEMDB_PUT, &r2, fdb), 0);
  ASSERT_EQ(kiv_memdbfunc(MEMDB_PUT, &r1, fdb), 0);  // replacement disposes of the first
  EXPECT_EQ(foreignfreed, 1);
  EXPECT_EQ(kiv_memdbfunc(MEMDB_DEL, &r2, fdb), 0);
  EXPECT_EQ(foreignfreed, 2);
  EXPECT_EQ(fdb->bytes, 0);
  dbs.pop_back();
  EXPECT_EQ(kiv_memdbfree(fdb), 0);
  EXPECT_EQ(foreignfreed, 3);
  EXPECT_EQ(freedkeys, (std::vector<std::string>{"one", "two", "one"}));
}

}  // namespace
