// Operation sequences on one database, checked against a std::map keyed by the
// (case-folded) key. Walks delete the visited entry, other entries, and store new ones.
#include <map>

#include "fuzz/fuzz.h"
#include "lib/heap.h"
#include "toolkit/config/memdb.h"
#include "toolkit/runtime/error.h"

namespace {

fuzzinput in;
bool nocase;
std::map<std::string, std::string> model;  // folded key -> data

std::string fold(std::string k) {
  for (char &c : k)
    if (nocase && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return k;
}
// Short keys of a small alphabet, so that keys collide and differ only by case.
std::string text(int base, int spread, const char *alphabet) {
  std::string s(base + in.byte() % spread, 0);
  for (char &c : s) c = alphabet[in.byte() % 8];
  return s;
}
std::string key() { return text(1, 4, "aAbB.\xC4\xE4z"); }
int call(kiv_memdb *db, int op, const std::string &k, const std::string &d, kiv_memdbrec *r) {
  *r = {int32_t(k.size()), const_cast<char *>(k.data()), int32_t(d.size()),
        const_cast<char *>(d.data())};
  return kiv_memdbfunc(op, r, db);
}

// One operation; inside a walk, op 0 deletes the visited entry.
void step(kiv_memdb *db, int op, std::string k) {
  std::string d = text(0, 9, "xy\0\xff\x01zZ."), f = fold(k);
  auto it = model.find(f);
  bool found = it != model.end();
  kiv_memdbrec r;
  switch (op) {
    case 0:
    case 3:
      check(call(db, MEMDB_DEL, k, "", &r) == (found ? 0 : KIV_ENOTFOUND));
      model.erase(f);
      break;
    case 1:
      check(call(db, MEMDB_PUT, k, d, &r) == 0);
      model[f] = d;
      break;
    case 2: {
      int rc = call(db, MEMDB_GET, k, "", &r);
      check(!found ? rc == KIV_ENOTFOUND
                   : rc == 0 && std::string(static_cast<char *>(r.data), r.datalen) == it->second);
      if (rc == 0) xfree(r.data);
      break;
    }
    default: {
      int rc = call(db, MEMDB_MATCH, k, d, &r);
      check(!found ? rc == KIV_ENOTFOUND
                   : rc == (d.empty() || d == it->second ? int(it->second.size()) : KIV_EBUSY));
    }
  }
}

int walker(kiv_memdb *db, kiv_memdbrec *r, void *arg) {
  std::string k(static_cast<char *>(r->key), r->keylen);
  check(model.count(fold(k)) == 1);  // only live entries are visited
  check(kiv_memdbwalk(db, walker, arg) == KIV_EBUSY && kiv_memdbfree(db) == KIV_EBUSY);
  int op = in.byte() % 5;
  step(db, op, op == 0 ? k : key());
  return --*static_cast<int *>(arg) == 0 ? 7 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  in.start(data, size);
  uint8_t setup = in.byte();
  nocase = setup & 1;
  kiv_memdb *db = nullptr;
  check(kiv_memdbnew(1 + (setup >> 1) % 8, 0, &db) == 0);
  if (nocase) kiv_memdbopt(db, MEMDB_NOCASE, 0);
  model.clear();
  while (in.more()) {
    int op = in.byte() % 6, stop = 1 + in.byte() % 16;
    if (op == 5)
      check(kiv_memdbwalk(db, walker, &stop) == (stop ? 0 : 7));
    else
      step(db, op, key());
    check(db->count == int32_t(model.size()));
  }
  check(kiv_memdbfree(db) == 0);
  return 0;
}
