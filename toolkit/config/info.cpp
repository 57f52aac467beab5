#include "toolkit/config/info.h"

#include <cstdint>
#include <cstring>

#include "lib/heap.h"
#include "lib/strcase.h"
#include "toolkit/config/conf.h"
#include "toolkit/config/memdb.h"
#include "toolkit/config/w32conf.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/context.h"
#include "toolkit/runtime/locks.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"

namespace {

// The tree: absent until kivinfo_init, then never destroyed. Used only under the lock.
kiv_memdb *tree;

constexpr int32_t TREE_BUCKETS = 512;
const char NODE[] = "n";  // data of a node: the letter and its NUL

// Holds the info lock for one scope; every way out of a public operation releases it.
class infolock {
 public:
  infolock() { kiv_lock(KIV_LOCK_INFO); }
  ~infolock() { kiv_unlock(KIV_LOCK_INFO); }
  infolock(const infolock &) = delete;
  infolock &operator=(const infolock &) = delete;
};

// A heap block for a text of size bytes.
char *textblock(size_t size, const char *tag) {
  return static_cast<char *>(kiv_allocsize(size, tag));
}

// A growable list of heap paths, released with release().
struct pathlist {
  char **items = nullptr;
  int count = 0;
  int capacity = 0;

  int append(const char *text, size_t length) {
    if (count == capacity) {
      int grown = capacity ? capacity * 2 : 8;
      auto *bigger = static_cast<char **>(
          kiv_alloc(static_cast<unsigned>(grown * sizeof(char *)), "info.findsources"));
      if (!bigger) return KIV_ENOMEM;
      if (count) memcpy(bigger, items, count * sizeof(char *));
      xfree(items);
      items = bigger;
      capacity = grown;
    }
    char *copy = kiv_copytext(text, length, "info.findsources");
    if (!copy) return KIV_ENOMEM;
    items[count++] = copy;
    return 0;
  }
  void release() {
    for (int i = 0; i < count; i++) xfree(items[i]);
    xfree(items);
    items = nullptr;
    count = capacity = 0;
  }
};

// A key record for a path text, its NUL included. KIV_EINVAL when too long for 32 bits.
int keyrec(const char *path, kiv_memdbrec *rec) {
  size_t n = strlen(path);
  if (n >= INT32_MAX) return KIV_EINVAL;
  rec->keylen = static_cast<int32_t>(n + 1);
  rec->key = const_cast<char *>(path);
  rec->datalen = 0;
  rec->data = nullptr;
  return 0;
}

// Fetches a copy of the data stored at path.
int fetch(const char *path, kiv_memdbrec *rec) {
  int rc = keyrec(path, rec);
  if (rc < 0) return rc;
  return kiv_memdbfunc(MEMDB_GET, rec, tree);
}

// Stores data (length counting its NUL) at the first keylen bytes of path, whose byte
// at keylen must be the NUL.
int store(const char *path, size_t pathlen, const void *data, size_t datalen) {
  if (pathlen >= INT32_MAX || datalen > INT32_MAX) return KIV_EINVAL;
  kiv_memdbrec rec{static_cast<int32_t>(pathlen + 1), const_cast<char *>(path),
                   static_cast<int32_t>(datalen), const_cast<void *>(data)};
  return kiv_memdbfunc(MEMDB_PUT, &rec, tree);
}

char letterof(const kiv_memdbrec *rec) {
  return rec->datalen > 0 ? static_cast<const char *>(rec->data)[0] : '\0';
}

// A heap copy of the text after the type letter, or null (KIV_ENOMEM).
char *textof(const kiv_memdbrec *rec, const char *tag) {
  const char *text = rec->datalen > 1 ? static_cast<const char *>(rec->data) + 1 : "";
  size_t n = rec->datalen > 1 ? strnlen(text, static_cast<size_t>(rec->datalen - 1)) : 0;
  return kiv_copytext(text, n, tag);
}

// a is b, or a lies above b; case-folded. .tcp covers .tcp.s25 but not .tcpx.
bool ispathprefix(const char *a, const char *b) {
  if (a[0] == '.' && a[1] == '\0') return true;
  size_t la = strlen(a);
  // Equal folded bytes up to la mean b has no NUL before la, so b[la] can be read.
  if (xstrncasecmp(a, b, la) != 0) return false;
  return b[la] == '\0' || b[la] == '.';
}

// The parent as a heap text: the path cut at its last "." after the first character,
// "." for a top-level path; null for the root (no parent) or when the heap refuses.
char *parentpath(const char *path, int *rc) {
  *rc = 0;
  if (path[0] == '.' && path[1] == '\0') {
    *rc = KIV_ENOPARENT;
    return nullptr;
  }
  const char *cut = path[0] ? strrchr(path + 1, '.') : nullptr;
  size_t n = cut ? static_cast<size_t>(cut - path) : 1;
  char *parent = kiv_copytext(cut ? path : ".", n, "info.parentpath");
  if (!parent) *rc = KIV_ENOMEM;
  return parent;
}

int removeone(kiv_memdb *db, kiv_memdbrec *rec, void *arg) {
  if (ispathprefix(static_cast<const char *>(arg), static_cast<const char *>(rec->key))) {
    kiv_memdbrec del{rec->keylen, rec->key, 0, nullptr};
    kiv_memdbfunc(MEMDB_DEL, &del, db);
  }
  return 0;
}

// Removes every entry at or below path. KIV_EBUSY inside a walk of the tree.
int removesubtree(const char *path) {
  return kiv_memdbwalk(tree, removeone, const_cast<char *>(path));
}

// Where findsources looks: the lists for at or above path and at or below it (either
// may be null). The path itself, when a source, goes into both.
struct collect {
  const char *path;
  pathlist *above;
  pathlist *below;
};

int collectone(kiv_memdb *, kiv_memdbrec *rec, void *arg) {
  auto *c = static_cast<collect *>(arg);
  char letter = letterof(rec);
  if (letter != 'x' && letter != 'y') return 0;
  const char *key = static_cast<const char *>(rec->key);
  size_t n = strnlen(key, static_cast<size_t>(rec->keylen));
  int rc = 0;
  if (c->above && ispathprefix(key, c->path)) rc = c->above->append(key, n);
  if (rc == 0 && c->below && ispathprefix(c->path, key)) rc = c->below->append(key, n);
  return rc;
}

// Appends the unread sources at or above path to above, and those at or below it to
// below, in walk order; one walk serves both. KIV_EBUSY inside a walk of the tree,
// KIV_ENOMEM.
int findsources(const char *path, pathlist *above, pathlist *below) {
  collect c{path, above, below};
  return kiv_memdbwalk(tree, collectone, &c);
}

int addfunc(const char *name, const char *value, const char *prefix, int letter);

// Reads every source of the list; each read one is stored again marked "r". A failed
// read returns the reader's code at once and leaves that source unread.
int loadsources(const pathlist &list) {
  if (list.count == 0) return KIV_ENOTFOUND;
  int rc = 0;
  for (int i = 0; i < list.count; i++) {
    const char *path = list.items[i];
    kiv_memdbrec rec;
    rc = fetch(path, &rec);
    if (rc < 0) return rc;
    char letter = letterof(&rec);
    // A source nested in one that this list read before may have been replaced by
    // what that read stored: nothing is left to read there.
    if (letter != 'x' && letter != 'y') {
      xfree(rec.data);
      continue;
    }
    char *text = textof(&rec, "info.loadsources");
    if (!text) {
      xfree(rec.data);
      return KIV_ENOMEM;
    }
    rc = letter == 'x' ? kivconf_readfile(path, text, addfunc)
                       : kivconf_readreg(path, text, addfunc);
    xfree(text);
    if (rc != 0) {
      xfree(rec.data);
      return rc;
    }
    static_cast<char *>(rec.data)[0] = 'r';
    rc = store(path, strlen(path), rec.data, static_cast<size_t>(rec.datalen));
    xfree(rec.data);
    if (rc < 0) return rc;
  }
  return rc;
}

int get(const char *path, char **out) {
  *out = nullptr;
  kiv_memdbrec rec;
  int rc = fetch(path, &rec);
  if (rc == KIV_ENOTFOUND) {
    pathlist list;
    rc = findsources(path, &list, nullptr);
    if (rc == 0) {
      rc = loadsources(list);
      if (rc != 0 && rc != KIV_ENOTFOUND) rc = KIV_EINTERNAL;
    } else if (rc == KIV_EBUSY) {
      rc = KIV_ENOTFOUND;  // inside a walk nothing can be collected, so nothing is read
    }
    list.release();
    if (rc < 0) return rc;
    rc = fetch(path, &rec);
  }
  if (rc < 0) return rc;
  switch (letterof(&rec)) {
    case 's':
    case 'd':
      *out = textof(&rec, "info.get");
      rc = *out ? 0 : KIV_ENOMEM;
      break;
    case 'n':
    case 'x':
    case 'y':
    case 'r':
      rc = KIV_ENODE;
      break;
    default:
      rc = KIV_EINTERNAL;
  }
  xfree(rec.data);
  return rc;
}

int getbypath(char **list, const char *name, char **out) {
  if (out) *out = nullptr;
  if (!name || name[0] == '.' || !out || !list || !list[0]) return KIV_EINVAL;
  size_t namelen = strlen(name);
  int rc = KIV_ENOTFOUND;
  for (char **prefix = list; *prefix; prefix++) {
    size_t plen = strlen(*prefix);
    char *path = textblock(plen + namelen + 2, "info.getbypath");
    if (!path) return KIV_ENOMEM;
    memcpy(path, *prefix, plen);
    path[plen] = '.';
    memcpy(path + plen + 1, name, namelen + 1);
    rc = get(path, out);
    xfree(path);
    if (rc == 0) break;
  }
  return rc;
}

// Stores data (letter, text, NUL) at path after removing the subtree there; the parent
// must be a node or a source. Null data only removes.
int setvalue(const char *path, const char *data, size_t datalen) {
  if (!path || path[0] != '.') return KIV_EINVAL;
  int rc = 0;
  char *parent = parentpath(path, &rc);
  if (!parent) return rc;  // the root is never replaced: it has no parent
  rc = removesubtree(path);
  if (rc == 0 && data) {
    char *copy = nullptr;
    rc = get(parent, &copy);
    if (rc == KIV_ENODE) {
      rc = store(path, strlen(path), data, datalen);
    } else if (rc == 0) {
      xfree(copy);
      KIV_LOG(2, "info.setvalue", "no parent for %s", path);
      rc = KIV_ENOPARENT;
    }
  }
  xfree(parent);
  return rc;
}

int setsource(const char *path, char letter, const char *source) {
  if (!path || path[0] != '.' || letter == '\0') return KIV_EINVAL;
  int rc = 0;
  char *parent = parentpath(path, &rc);
  if (!parent) return rc;
  char *copy = nullptr;
  rc = get(parent, &copy);
  xfree(parent);
  if (rc == 0) {
    xfree(copy);
    return KIV_ENOPARENT;
  }
  if (rc == KIV_ENOTFOUND) return KIV_ENOPARENT;
  if (rc != KIV_ENODE) return rc;
  size_t n = strlen(source);
  char *data = textblock(n + 2, "info.setsource");
  if (!data) return KIV_ENOMEM;
  data[0] = letter;
  memcpy(data + 1, source, n + 1);
  rc = setvalue(path, data, n + 2);
  xfree(data);
  return rc;
}

// The add function of the loaders: every component of prefix + "." + name becomes a
// node, the last one the value when there is one. Stores replace; nothing is removed.
int addfunc(const char *name, const char *value, const char *prefix, int letter) {
  if (!name) return KIV_EINVAL;
  // Only string and number values come from the loaders; any other letter could forge
  // a source or an unreadable entry.
  if (value && letter != 's' && letter != 'd') return KIV_EINVAL;
  const char *rest = name[0] == '.' ? name + 1 : name;
  size_t plen = prefix ? strlen(prefix) : 0;
  size_t rlen = strlen(rest);
  size_t total = plen + 1 + rlen;
  if (total >= INT32_MAX) return KIV_EINVAL;
  // Every path stored is a prefix of the whole one, cut at one of the name's dots.
  char *path = textblock(total + 1, "info.addfunc");
  if (!path) return KIV_ENOMEM;
  if (plen) memcpy(path, prefix, plen);
  path[plen] = '.';
  memcpy(path + plen + 1, rest, rlen + 1);
  int rc = 0;
  for (size_t i = plen + 1; i < total && rc == 0; i++) {
    if (path[i] != '.') continue;
    path[i] = '\0';
    rc = store(path, i, NODE, sizeof NODE);
    path[i] = '.';
  }
  if (rc == 0) {
    if (!value) {
      rc = store(path, total, NODE, sizeof NODE);
    } else {
      size_t vlen = strlen(value);
      char *data = textblock(vlen + 2, "info.addfunc");
      if (!data) {
        rc = KIV_ENOMEM;
      } else {
        data[0] = static_cast<char>(letter);
        memcpy(data + 1, value, vlen + 1);
        rc = store(path, total, data, vlen + 2);
        xfree(data);
      }
    }
  }
  xfree(path);
  return rc;
}

struct walkcall {
  const char *path;
  kivinfo_walkfunc fn;
  void *arg;
};

int walkone(kiv_memdb *, kiv_memdbrec *rec, void *arg) {
  auto *w = static_cast<walkcall *>(arg);
  const char *key = static_cast<const char *>(rec->key);
  if (!ispathprefix(w->path, key)) return 0;
  char *text = textof(rec, "info.kivinfo_walk");
  if (!text) return KIV_ENOMEM;
  int rc = w->fn(key, text, w->arg);
  xfree(text);
  return rc;
}

}  // namespace

int kivinfo_init(int) {
  // The tree is meant to be created after toolkit initialisation set up the locks;
  // setting them up here too (a no-op when done) keeps an early caller from taking an
  // uninitialised lock.
  if (!kiv_locks_ready()) kiv_locks_init();
  infolock lock;
  if (tree) return KIV_EBUSY;
  kiv_memdb *db = nullptr;
  int rc = kiv_memdbnew(TREE_BUCKETS, 0, &db);
  if (rc < 0) return rc;
  kiv_memdbopt(db, MEMDB_NOCASE, 0);
  kiv_memdbrec root{2, const_cast<char *>("."), sizeof NODE, const_cast<char *>(NODE)};
  rc = kiv_memdbfunc(MEMDB_PUT, &root, db);
  if (rc < 0) {
    kiv_memdbfree(db);
    return rc;
  }
  tree = db;
  return 0;
}

int kivinfo_set(const char *path, const char *source, int kind) {
  if (!kiv_locks_ready()) return KIV_ENOTREADY;  // no tree can exist yet
  infolock lock;
  if (!path || path[0] != '.' || !source) return KIV_EINVAL;
  if (!tree) return KIV_ENOTREADY;
  // The root has no parent, so no source can be attached there: refuse before the
  // removal, which would take the root node with it.
  if (path[1] == '\0') return KIV_ENOPARENT;
  // Inside a walk callback the removal walk is refused (KIV_EBUSY) and nothing changes.
  int rc = removesubtree(path);
  if (rc != 0) return rc;
  switch (kind) {
    case KIVINFO_FILE: {
      const char *dot = strrchr(source, '.');
      if (dot && strcmp(dot, ".cfg") == 0) return setsource(path, 'x', source);
      size_t n = strlen(source);
      char *file = textblock(n + 5, "info.kivinfo_set");
      if (!file) return KIV_ENOMEM;
      memcpy(file, source, n);
      memcpy(file + n, ".cfg", 5);
      rc = setsource(path, 'x', file);
      xfree(file);
      return rc;
    }
    case KIVINFO_RESERVED:
      return KIV_ENOTSUPP;
    case KIVINFO_REGISTRY:
      return setsource(path, 'y', source);
    default:
      return KIV_EINVAL;
  }
}

int kivinfo_get(kiv_context *ctx, const char *name, char **out) {
  int rc;
  if (out) *out = nullptr;
  if (!kiv_locks_ready()) {
    rc = KIV_ENOTREADY;  // no tree can exist yet
  } else {
    infolock lock;
    if (!out || !name)
      rc = KIV_EINVAL;
    else if (!tree)
      rc = KIV_ENOTREADY;
    else if (name[0] == '.')
      rc = get(name, out);
    else if (ctx)
      rc = getbypath(ctx->searchlist, name, out);
    else
      rc = KIV_EINVAL;
  }
  if (kiv_loglevel >= 5) {
    const char *shown = name ? name : "(null)";
    if (rc < 0)
      kiv_log(ctx, "info.kivinfo_get", "not found: \"%s\"", shown);
    else if (strlen(*out) <= 20)
      kiv_log(nullptr, "info.kivinfo_get", "\"%s\" == \"%s\"", shown, *out);
    else
      kiv_log(nullptr, "info.kivinfo_get", "\"%s\" == \"%.20s\" ...", shown, *out);
  }
  return rc;
}

int kivinfo_walk(const char *path, kivinfo_walkfunc fn, void *arg) {
  if (!kiv_locks_ready()) return KIV_ENOTREADY;
  infolock lock;
  if (!path || path[0] != '.' || !fn) return KIV_EINVAL;
  if (!tree) return KIV_ENOTREADY;
  // The sources below are read only when none lies at or above the path.
  pathlist above, below;
  int rc = findsources(path, &above, &below);
  if (rc == 0) {
    const pathlist &list = above.count ? above : below;
    if (list.count) rc = loadsources(list);
  }
  above.release();
  below.release();
  if (rc != 0) return rc;  // KIV_EBUSY here: a walk inside a walk
  walkcall w{path, fn, arg};
  return kiv_memdbwalk(tree, walkone, &w);
}

char *kivinfo_fixname(char *text) {
  if (!text) return nullptr;
  for (char *p = text; *p; p++)
    *p = *p == '.' ? '_' : static_cast<char>(xfoldtable.map[static_cast<unsigned char>(*p)]);
  return text;
}
