#include "toolkit/config/memdb.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

#include "lib/heap.h"
#include "toolkit/runtime/clock.h"
#include "toolkit/runtime/error.h"
#include "tests/lib/testing.h"

namespace {

time_t fakenow;
time_t fakeclock() { return fakenow; }

class Memdb : public ::testing::Test {
 protected:
  void SetUp() override {
    fakenow = 1000000;
    kiv_setclock(fakeclock, nullptr);
  }
  void TearDown() override {
    for (kiv_memdb *db : dbs) EXPECT_EQ(kiv_memdbfree(db), 0);
    kiv_setclock(nullptr, nullptr);
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
  kiv_memdbrec r{static_cast<int32_t>(key.size()), const_cast<char *>(key.data()), 0, nullptr};
  if (data)
    r = {r.keylen, r.key, static_cast<int32_t>(data->size()), const_cast<char *>(data->data())};
  return r;
}
int op(kiv_memdb *db, int what, const std::string &key, const std::string *data = nullptr) {
  kiv_memdbrec r = rec(key, data);
  return kiv_memdbfunc(what, &r, db);
}
int put(kiv_memdb *db, const std::string &key, const std::string &data) {
  return op(db, MEMDB_PUT, key, &data);
}
// The data as text, or "#<code>" on failure.
std::string get(kiv_memdb *db, const std::string &key) {
  kiv_memdbrec r = rec(key);
  int rc = kiv_memdbfunc(MEMDB_GET, &r, db);
  if (rc != 0) return "#" + std::to_string(rc);
  std::string s(static_cast<char *>(r.data), static_cast<size_t>(r.datalen));
  xfree(r.data);
  return s;
}
std::string code(int rc) { return "#" + std::to_string(rc); }

// Defaults: 64 buckets for 0, and a negative lifetime keeps entries 600 seconds.
TEST_F(Memdb, DefaultsAndExpiry) {
  kiv_memdb *db = make(0, -1);
  EXPECT_EQ(db->nbuckets, 64);
  EXPECT_EQ(db->lifetime, 600);
  ASSERT_EQ(put(db, "a", "1"), 0);
  ASSERT_EQ(put(db, "b", "2"), 0);
  EXPECT_EQ(op(db, MEMDB_MATCH, "b"), 1);  // no data: the entry's existence, its length
  fakenow += 600;
  EXPECT_EQ(get(db, "a"), "1");
  fakenow += 1;
  EXPECT_EQ(get(db, "a"), code(KIV_ETIMEDOUT));  // sweeps every expired entry, "b" too
  EXPECT_EQ(db->count, 0);
  EXPECT_EQ(get(db, "a"), code(KIV_ENOTFOUND));
}

TEST_F(Memdb, CeilingEvictsOnlyWithALifetime) {
  kiv_memdb *db = make(64, 1000);
  kiv_memdbopt(db, MEMDB_MAXBYTES, 100);
  for (int i = 0; i < 20; i++, fakenow += 7) {
    std::string key = "k" + std::to_string(100 + i);  // 4 + 6 = 10 bytes each
    ASSERT_EQ(put(db, key, "012345"), 0);
    EXPECT_LT(db->bytes, 100) << key;
  }
  EXPECT_EQ(db->count, 9);
  EXPECT_EQ(db->bytes, 90);

  kiv_memdb *forever = make(8, 0);
  kiv_memdbopt(forever, MEMDB_MAXBYTES, 10);
  for (int i = 0; i < 100; i++) ASSERT_EQ(put(forever, "key" + std::to_string(i), "0123456789"), 0);
  EXPECT_EQ(forever->count, 100);
  EXPECT_EQ(kiv_memdbexpire(forever, INT32_MAX), 0);
  EXPECT_EQ(forever->count, 100);
}

// Each live entry is visited once (re-entry and freeing inside a walk: the fuzz target).
struct walkstate {
  int visits = 0;
  std::string victim;  // another entry deleted on the first visit
};
int walker(kiv_memdb *db, kiv_memdbrec *r, void *arg) {
  auto *st = static_cast<walkstate *>(arg);
  std::string key(static_cast<char *>(r->key), static_cast<size_t>(r->keylen));
  if (st->visits++ == 0) {
    st->victim = key == "e28" ? "e26" : "e28";
    EXPECT_EQ(op(db, MEMDB_DEL, st->victim), 0);  // gone at once, never visited
    EXPECT_EQ(get(db, st->victim), code(KIV_ENOTFOUND));
  }
  EXPECT_NE(key, st->victim);
  if (key[0] == 'o') {
    EXPECT_EQ(op(db, MEMDB_DEL, key), 0);  // odd keys delete themselves
  }
  return 0;
}

TEST_F(Memdb, WalkVisitsEachLiveEntryOnce) {
  kiv_memdb *db = make(8, 100);
  for (int i = 0; i < 20; i++)
    ASSERT_EQ(put(db, (i % 2 ? "o" : "e") + std::to_string(10 + i), "v"), 0);
  walkstate st;
  EXPECT_EQ(kiv_memdbwalk(db, walker, &st), 0);
  EXPECT_EQ(st.visits, 19);
  EXPECT_EQ(db->count, 9);
  EXPECT_EQ(db->bytes, 9 * 4);
  EXPECT_EQ(kiv_memdbwalk(db, nullptr, nullptr), KIV_EBUSY);
  EXPECT_EQ(kiv_memdbopt(db, -1, 0), 0);  // the walking mark is gone
}

// Without copies the entry holds the caller's pointers: it sees later changes, counts no
// bytes and frees nothing (the native build's checker would see a free of these buffers).
// NOCOPYOUT hands out the stored pointer itself.
TEST_F(Memdb, CallersPointersWithoutCopies) {
  kiv_memdb *db = make(8, 0, MEMDB_NOCOPYIN);
  std::string key = "k", data = "abc";
  ASSERT_EQ(put(db, key, data), 0);
  EXPECT_EQ(db->bytes, 0);
  data[0] = 'X';
  EXPECT_EQ(get(db, "k"), "Xbc");
  kiv_memdbopt(db, MEMDB_NOCOPYIN | MEMDB_NOCOPYOUT, 0);
  kiv_memdbrec r = rec(key);
  ASSERT_EQ(kiv_memdbfunc(MEMDB_GET, &r, db), 0);
  EXPECT_EQ(r.data, static_cast<void *>(&data[0]));
  EXPECT_EQ(r.datalen, 3);
  ASSERT_EQ(put(db, key, data), 0);  // replacing a foreign entry frees nothing either
  EXPECT_EQ(op(db, MEMDB_DEL, "k"), 0);
  EXPECT_EQ(db->count, 0);
  EXPECT_EQ(db->bytes, 0);
}

int freed;
void freer(kiv_memdbrec *r) {
  freed++;
  xfree(r->key);
  xfree(r->data);
}

// With a free function, disposal hands the record to it, and copied entries still leave
// bytes held when they go, also when the function was set after they were stored.
TEST_F(Memdb, FreeFunctionTakesDisposalAndBytesStayRight) {
  freed = 0;
  kiv_memdb *db = make(8, 0);
  ASSERT_EQ(put(db, "early", "1"), 0);  // 6 bytes, stored before the function was set
  kiv_memdbopt(db, MEMDB_FREEFUNC, reinterpret_cast<intptr_t>(freer));
  ASSERT_EQ(put(db, "a", "12"), 0);
  ASSERT_EQ(put(db, "bb", "345"), 0);
  EXPECT_EQ(db->bytes, 6 + 3 + 5);
  ASSERT_EQ(put(db, "a", "6"), 0);  // the replaced entry goes to the function
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(db->bytes, 6 + 2 + 5);
  EXPECT_EQ(op(db, MEMDB_DEL, "bb"), 0);
  EXPECT_EQ(op(db, MEMDB_DEL, "early"), 0);
  EXPECT_EQ(freed, 3);
  EXPECT_EQ(db->bytes, 2);
  // Without copies and with the function, the caller's blocks go to the function too.
  kiv_memdbopt(db, MEMDB_FREEFUNC | MEMDB_NOCOPYIN, reinterpret_cast<intptr_t>(freer));
  kiv_memdbrec own{1, xstrdup("z", nullptr), 2, xstrdup("9", nullptr)};
  ASSERT_EQ(kiv_memdbfunc(MEMDB_PUT, &own, db), 0);
  EXPECT_EQ(db->bytes, 2);
  EXPECT_EQ(op(db, MEMDB_DEL, "z"), 0);
  EXPECT_EQ(freed, 4);
  EXPECT_EQ(kiv_memdbfree(db), 0);  // "a" too
  dbs.clear();
  EXPECT_EQ(freed, 5);
}

// TOUCH renews an entry at every successful lookup; without it the first stamp counts.
TEST_F(Memdb, TouchRenewsOnLookup) {
  for (int flags : {MEMDB_TOUCH, 0}) {
    kiv_memdb *db = make(8, 100, flags);
    ASSERT_EQ(put(db, "k", "v"), 0);
    fakenow += 90;
    EXPECT_EQ(get(db, "k"), "v") << flags;
    fakenow += 90;  // 180 s after the store, 90 s after the first lookup
    EXPECT_EQ(get(db, "k"), flags ? "v" : code(KIV_ETIMEDOUT)) << flags;
  }
}

// The ceiling is a 32-bit count: values outside 0..INT32_MAX are refused and change
// nothing. With FREEFUNC the argument is the function and no ceiling is read.
TEST_F(Memdb, CeilingRange) {
  kiv_memdb *db = make(8, 100);
  struct {
    int flags;
    long long arg;
    bool refused;
    int32_t ceiling;
  } cases[] = {{MEMDB_MAXBYTES, -1, true, 0},
               {MEMDB_MAXBYTES, INT_MIN, true, 0},
               {MEMDB_MAXBYTES, static_cast<long long>(INT32_MAX) + 1, true, 0},
               {MEMDB_MAXBYTES, INT32_MAX, false, INT32_MAX},
               {MEMDB_MAXBYTES, 0, false, 0},
               {MEMDB_MAXBYTES, 77, false, 77},
               {MEMDB_MAXBYTES | MEMDB_FREEFUNC, -1, false, 77}};
  for (auto &c : cases) {
    int before = kiv_memdbopt(db, -1, 0);
    int rc = kiv_memdbopt(db, c.flags, static_cast<intptr_t>(c.arg));
    EXPECT_EQ(rc, c.refused ? KIV_EINVAL : before) << c.arg;
    EXPECT_EQ(kiv_memdbopt(db, -1, 0), c.refused ? before : c.flags) << c.arg;
    EXPECT_EQ(db->maxbytes, c.ceiling) << c.arg;
  }
  kiv_memdbopt(db, 0, 0);  // no free function for the teardown
}

// Deletes "b" (by another case) at the first visit, whichever entry that is.
int deleteb(kiv_memdb *db, kiv_memdbrec *, void *) {
  int rc = op(db, MEMDB_DEL, "B");
  EXPECT_TRUE(rc == 0 || rc == KIV_ENOTFOUND) << rc;
  return 0;
}

// Stores, replacements, lookups, a walk that deletes and a delete, with the heap failing
// at every point in turn: each call answers 0 or KIV_ENOMEM, a refused store leaves the
// old entry, and afterwards the database holds exactly what succeeded.
TEST(MemdbOutOfMemory, EveryCallLeavesAWholeDatabase) {
  int points = failpoints("memdb: new, stores, replace, lookups, walk, delete", [] {
    kiv_memdb *db = nullptr;
    int rc = kiv_memdbnew(8, 0, &db);
    if (rc != 0) {
      EXPECT_EQ(rc, KIV_ENOMEM);
      EXPECT_EQ(db, nullptr);
      return false;
    }
    kiv_memdbopt(db, MEMDB_NOCASE, 0);
    std::map<std::string, std::string> model;  // lower-case key -> data
    bool complete = true;
    auto store = [&](const std::string &key, const std::string &data) {
      int r = put(db, key, data);
      std::string folded = key;
      for (char &ch : folded) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
      if (r == 0) {
        model[folded] = data;
      } else {
        EXPECT_EQ(r, KIV_ENOMEM);
        complete = false;
      }
    };
    store("A", "1");
    store("b", "22");
    store("a", "333");
    store("long", std::string(1000, 'l'));
    std::string got = get(db, "B");
    EXPECT_TRUE(got == "22" || got == code(KIV_ENOMEM) || !model.count("b")) << got;
    if (got != "22") complete = false;
    EXPECT_EQ(kiv_memdbwalk(db, deleteb, nullptr), 0);
    model.erase("b");
    store("c", "4");
    xheap_failafter(-1);
    EXPECT_EQ(db->count, static_cast<int32_t>(model.size()));
    int32_t bytes = 0;
    for (auto &m : model) {
      EXPECT_EQ(get(db, m.first), m.second);
      bytes += static_cast<int32_t>(m.first.size() + m.second.size());
    }
    EXPECT_EQ(db->bytes, bytes);
    EXPECT_EQ(put(db, "after", "x"), 0);  // still usable
    EXPECT_EQ(kiv_memdbfree(db), 0);
    return complete;
  });
  EXPECT_GE(points, 10);
}

}  // namespace
