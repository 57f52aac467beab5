// Operation sequences on one database, checked against a reference model: a std::map
// keyed by the (case-folded) key. Walks delete the visited entry, delete other entries
// and store new ones; afterwards the database must hold exactly what the model holds.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "lib/heap.h"
#include "toolkit/config/memdb.h"
#include "toolkit/runtime/error.h"

namespace {

struct input {
  const uint8_t *p;
  size_t n;
  uint8_t byte() {
    if (!n) return 0;
    n--;
    return *p++;
  }
  bool empty() const { return n == 0; }
};

bool nocase;
std::string fold(const std::string &k) {
  if (!nocase) return k;
  std::string f = k;
  for (char &c : f)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return f;
}

// Short keys from a small alphabet, so that keys collide, differ only by case and
// share chains.
std::string makekey(input &in) {
  static const char alphabet[] = "aAbB.\xC4\xE4z";
  int len = 1 + in.byte() % 4;
  std::string k;
  for (int i = 0; i < len; i++) k += alphabet[in.byte() % 8];
  return k;
}
std::string makedata(input &in) {
  int len = in.byte() % 9;
  std::string d;
  for (int i = 0; i < len; i++) d += static_cast<char>(in.byte());
  return d;
}

using model = std::map<std::string, std::string>;  // folded key -> data

kiv_memdbrec rec(const std::string &k, const std::string *d = nullptr) {
  kiv_memdbrec r{static_cast<int32_t>(k.size()), const_cast<char *>(k.data()), 0, nullptr};
  if (d) {
    r.datalen = static_cast<int32_t>(d->size());
    r.data = const_cast<char *>(d->data());
  }
  return r;
}

void check(bool ok) {
  if (!ok) abort();
}

void consistent(kiv_memdb *db, const model &m) {
  check(db->count == static_cast<int32_t>(m.size()));
  int64_t bytes = 0;
  int linked = 0;
  for (int32_t b = 0; b < db->nbuckets; b++)
    for (kiv_memdbentry *e = db->buckets[b]; e; e = e->next) {
      check(!(e->flags & ENTRY_DELETED));
      bytes += e->rec.keylen + e->rec.datalen;
      linked++;
    }
  check(linked == db->count);
  check(bytes == db->bytes);
}

struct walkstate {
  kiv_memdb *db;
  model *m;
  input *in;
  std::set<std::string> visited;  // folded keys
  std::set<std::string> gone;     // deleted during the walk before a visit
  std::set<std::string> stored;   // stored during the walk: visited or not, either is right
  int stopafter;
};

int walker(kiv_memdb *db, kiv_memdbrec *r, void *arg) {
  auto *st = static_cast<walkstate *>(arg);
  std::string key(static_cast<char *>(r->key), static_cast<size_t>(r->keylen));
  std::string f = fold(key);
  check(st->m->count(f) == 1);              // only live entries are visited
  check(st->visited.insert(f).second);      // and each once
  check(st->gone.count(f) == 0);
  check(kiv_memdbwalk(db, walker, arg) == KIV_EBUSY);
  check(kiv_memdbfree(db) == KIV_EBUSY);
  switch (st->in->byte() % 5) {
    case 0: {  // delete the visited entry
      kiv_memdbrec self{r->keylen, r->key, 0, nullptr};
      check(kiv_memdbfunc(MEMDB_DEL, &self, db) == 0);
      st->m->erase(f);
      kiv_memdbrec again = rec(key);
      check(kiv_memdbfunc(MEMDB_GET, &again, db) == KIV_ENOTFOUND);
      break;
    }
    case 1: {  // delete some other key
      std::string k = makekey(*st->in);
      kiv_memdbrec d = rec(k);
      bool there = st->m->erase(fold(k)) == 1;
      check(kiv_memdbfunc(MEMDB_DEL, &d, db) == (there ? 0 : KIV_ENOTFOUND));
      if (there && !st->visited.count(fold(k))) st->gone.insert(fold(k));
      break;
    }
    case 2: {  // store (maybe replacing, maybe a key not yet visited)
      std::string k = makekey(*st->in), d = makedata(*st->in);
      kiv_memdbrec p = rec(k, &d);
      check(kiv_memdbfunc(MEMDB_PUT, &p, db) == 0);
      (*st->m)[fold(k)] = d;
      st->stored.insert(fold(k));
      st->gone.erase(fold(k));
      break;
    }
    default:
      break;
  }
  return --st->stopafter == 0 ? 7 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  input in{data, size};
  uint8_t setup = in.byte();
  nocase = setup & 1;
  kiv_memdb *db = nullptr;
  check(kiv_memdbnew(1 + (setup >> 1) % 8, 0, &db) == 0);
  if (nocase) kiv_memdbopt(db, MEMDB_NOCASE, 0);
  model m;
  while (!in.empty()) {
    uint8_t op = in.byte() % 6;
    std::string k = makekey(in);
    std::string f = fold(k);
    switch (op) {
      case 0:
      case 1: {
        std::string d = makedata(in);
        kiv_memdbrec r = rec(k, &d);
        check(kiv_memdbfunc(MEMDB_PUT, &r, db) == 0);
        m[f] = d;
        break;
      }
      case 2: {
        kiv_memdbrec r = rec(k);
        int rc = kiv_memdbfunc(MEMDB_GET, &r, db);
        auto it = m.find(f);
        if (it == m.end()) {
          check(rc == KIV_ENOTFOUND && r.data == nullptr);
        } else {
          check(rc == 0 && r.datalen == static_cast<int32_t>(it->second.size()));
          check(r.datalen == 0 || memcmp(r.data, it->second.data(), it->second.size()) == 0);
          xfree(r.data);
        }
        break;
      }
      case 3: {
        kiv_memdbrec r = rec(k);
        check(kiv_memdbfunc(MEMDB_DEL, &r, db) == (m.erase(f) ? 0 : KIV_ENOTFOUND));
        break;
      }
      case 4: {
        std::string d = makedata(in);
        kiv_memdbrec r = rec(k, &d);
        int rc = kiv_memdbfunc(MEMDB_MATCH, &r, db);
        auto it = m.find(f);
        if (it == m.end())
          check(rc == KIV_ENOTFOUND);
        else if (d.empty() || d == it->second)
          check(rc == static_cast<int>(it->second.size()));
        else
          check(rc == KIV_EBUSY);
        break;
      }
      default: {
        model before = m;
        walkstate st{db, &m, &in, {}, {}, {}, 1 + in.byte() % 16};
        int rc = kiv_memdbwalk(db, walker, &st);
        // A walk that ran to its end saw every entry that lived at its start and was
        // not deleted before its turn.
        if (rc == 0)
          for (auto &e : before)
            check(st.visited.count(e.first) || st.gone.count(e.first) || st.stored.count(e.first));
        check(kiv_memdbopt(db, -1, 0) == (nocase ? MEMDB_NOCASE : 0));
        break;
      }
    }
    consistent(db, m);
  }
  check(kiv_memdbfree(db) == 0);
  return 0;
}
