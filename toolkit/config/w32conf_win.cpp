// The registry loader: one registry key, its values and its subkeys, depth-first, reported
// to an add function under tree paths.
#include "toolkit/config/w32conf.h"

#include <windows.h>

#include <cstring>

#include "lib/heap.h"
#include "lib/printf.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/memory.h"

static_assert(sizeof(unsigned long) == sizeof(DWORD),
              "the key operations pass DWORDs as unsigned long");

namespace {

constexpr unsigned long ACCESS_READ = 0x20019;       // KEY_READ
constexpr unsigned long ACCESS_READWRITE = 0x2001f;  // KEY_READ | KEY_WRITE
static_assert(ACCESS_READ == KEY_READ && ACCESS_READWRITE == (KEY_READ | KEY_WRITE),
              "access rights as the platform defines them");
constexpr size_t ROOTNAME_MAX = 99;

const char READREG_TAG[] = "conf.kivconf_readreg";

// What one call of kivconf_readreg holds, released on every way out.
struct readstate {
  kivconf_key *key = nullptr;
  char *subkeyname = nullptr;
  char *valuename = nullptr;
  unsigned char *data = nullptr;
  ~readstate() {
    kivconf_closekey(key);
    xfree(subkeyname);
    xfree(valuename);
    xfree(data);
  }
};

void dots_to_underscores(char *name) {
  for (; *name; name++)
    if (*name == '.') *name = '_';
}

// A zeroed buffer of size + 1 bytes, or null for size 0. *failed tells a refusal apart.
void *sizedbuffer(DWORD size, bool *failed) {
  if (size == 0) return nullptr;
  size_t bytes = static_cast<size_t>(size) + 1;
  void *block = kiv_allocsize(bytes, READREG_TAG);
  if (block)
    memset(block, 0, bytes);
  else
    *failed = true;
  return block;
}

// "<a><sep><b>" on the heap, or null when the heap refuses (reported).
char *joined(const char *a, char sep, const char *b) {
  size_t la = strlen(a), lb = strlen(b);
  char *text = static_cast<char *>(kiv_allocsize(la + lb + 2, READREG_TAG));
  if (!text) return nullptr;
  memcpy(text, a, la);
  text[la] = sep;
  memcpy(text + la + 1, b, lb + 1);
  return text;
}

}  // namespace

int kivconf_keyaccess(const char *mode, unsigned long *access) {
  if (access) *access = 0;
  if (!mode || !access) return KIV_EINVAL;
  *access = strchr(mode, 'w') ? ACCESS_READWRITE : ACCESS_READ;
  return 0;
}

int kivconf_splitkey(const char *path, void **root, char **subkey) {
  if (root) *root = nullptr;
  if (subkey) *subkey = nullptr;
  if (!path || !root || !subkey) return KIV_EINVAL;
  const char *slash = strchr(path, '\\');
  size_t rootlen = slash ? static_cast<size_t>(slash - path) : strlen(path);
  if (rootlen > ROOTNAME_MAX) return KIV_EINVAL;
  HKEY rootkey;
  if (rootlen == 18 && memcmp(path, "HKEY_LOCAL_MACHINE", 18) == 0)
    rootkey = HKEY_LOCAL_MACHINE;
  else if (rootlen == 17 && memcmp(path, "HKEY_CURRENT_USER", 17) == 0)
    rootkey = HKEY_CURRENT_USER;
  else
    return KIV_EINVAL;
  // A bare root name (or a root name and a lone backslash) is refused: it would copy a
  // whole hive into the tree, which no configuration source means to do.
  if (!slash || slash[1] == 0) return KIV_EINVAL;
  // Out of memory is reported as such rather than folded into EINVAL, so the caller
  // can tell a bad path from a passing shortage.
  char *copy = kiv_copytext(slash + 1, strlen(slash + 1), "conf.kivconf_splitkey");
  if (!copy) return KIV_ENOMEM;
  *root = rootkey;
  *subkey = copy;
  return 0;
}

int kivconf_openkey(const char *path, const char *mode, kivconf_key **out) {
  if (out) *out = nullptr;
  if (!path || !mode || !out) return KIV_EINVAL;
  unsigned long access;
  int rc = kivconf_keyaccess(mode, &access);
  if (rc) return rc;
  auto *key = static_cast<kivconf_key *>(kiv_zalloc(sizeof(kivconf_key), "conf.kivconf_openkey"));
  if (!key) return KIV_ENOMEM;
  rc = kivconf_splitkey(path, &key->root, &key->subkey);
  if (rc) {
    kivconf_closekey(key);
    return rc;
  }
  HKEY handle;
  if (RegOpenKeyExA(static_cast<HKEY>(key->root), key->subkey, 0, access, &handle) !=
      ERROR_SUCCESS) {
    kivconf_closekey(key);
    return KIV_EACCES;
  }
  key->handle = handle;
  *out = key;
  return 0;
}

void kivconf_closekey(kivconf_key *key) {
  if (!key) return;
  if (key->handle) RegCloseKey(static_cast<HKEY>(key->handle));
  xfree(key->subkey);
  xfree(key);
}

int kivconf_enumkey(kivconf_key *key, unsigned long index, char *name, unsigned long size) {
  if (!key || !name) return KIV_EINVAL;
  DWORD namesize = size;
  LONG rc = RegEnumKeyExA(static_cast<HKEY>(key->handle), index, name, &namesize, nullptr, nullptr,
                          nullptr, nullptr);
  if (rc == ERROR_NO_MORE_ITEMS) return KIV_ENOMORE;
  return rc == ERROR_SUCCESS ? 0 : KIV_EACCES;
}

int kivconf_enumvalue(kivconf_key *key, unsigned long index, char *name, unsigned long size,
                      unsigned char *data, unsigned long datasize, unsigned long *type,
                      unsigned long *length) {
  if (type) *type = REG_NONE;
  if (length) *length = 0;
  if (!key) return KIV_EINVAL;
  DWORD namesize = size, valuetype = REG_NONE, stored = datasize;
  LONG rc = RegEnumValueA(static_cast<HKEY>(key->handle), index, name, &namesize, nullptr,
                          &valuetype, data, data ? &stored : nullptr);
  if (rc == ERROR_NO_MORE_ITEMS) return KIV_ENOMORE;
  if (rc != ERROR_SUCCESS) return KIV_EACCES;
  if (!data) stored = 0;
  // String data need not carry its own terminator: end it at the stored length.
  if (data && stored < datasize) data[stored] = 0;
  if (type) *type = valuetype;
  if (length) *length = stored;
  return 0;
}

int kivconf_readreg(const char *prefix, const char *regpath, kiv_addfunc add) {
  if (!add) return KIV_EINVAL;
  if (!prefix) prefix = "";  // as the add function does, a missing prefix is the empty path
  readstate st;
  int rc = kivconf_openkey(regpath, "r", &st.key);
  if (rc) {
    KIV_LOG(2, READREG_TAG, "Cannot open key %s", regpath ? regpath : "");
    return rc;
  }
  KIV_LOG(4, READREG_TAG, "Adding values to %s", prefix);

  // Lengths in characters without the terminator for the names, in bytes for the data.
  DWORD maxsubkey = 0, maxvaluename = 0, maxdata = 0;
  if (RegQueryInfoKeyA(static_cast<HKEY>(st.key->handle), nullptr, nullptr, nullptr, nullptr,
                       &maxsubkey, nullptr, nullptr, &maxvaluename, &maxdata, nullptr,
                       nullptr) != ERROR_SUCCESS)
    return KIV_EACCES;
  bool failed = false;
  st.subkeyname = static_cast<char *>(sizedbuffer(maxsubkey, &failed));
  st.valuename = static_cast<char *>(sizedbuffer(maxvaluename, &failed));
  st.data = static_cast<unsigned char *>(sizedbuffer(maxdata, &failed));
  if (failed) return KIV_ENOMEM;
  unsigned long datasize = st.data ? maxdata + 1 : 0;

  // A lone default value gives a longest name of 0, and so reports no values at all.
  for (DWORD index = 0; maxvaluename != 0; index++) {
    unsigned long type, length;
    if (kivconf_enumvalue(st.key, index, st.valuename, maxvaluename + 1, st.data, datasize, &type,
                          &length))
      break;
    dots_to_underscores(st.valuename);
    char number[16];
    const char *text;
    int letter;
    if (type == REG_SZ || type == REG_EXPAND_SZ) {
      // An expandable string is stored as written, unexpanded: the tree holds what the
      // registry holds, and expanding would read this process's environment.
      text = st.data ? reinterpret_cast<const char *>(st.data) : "";
      letter = 's';
    } else if (type == REG_DWORD && length == 4) {
      DWORD value;
      memcpy(&value, st.data, 4);
      xsnprintf(number, sizeof number, "%d", static_cast<int>(value));
      text = number;
      letter = 'd';
    } else {
      // Multi-strings, binary data, big-endian and 64-bit numbers and a DWORD that is not
      // 4 bytes long have no text form here: they are skipped rather than guessed at.
      continue;
    }
    rc = add(st.valuename, text, prefix, letter);
    if (rc) return rc;
  }

  for (DWORD index = 0; maxsubkey != 0; index++) {
    if (kivconf_enumkey(st.key, index, st.subkeyname, maxsubkey + 1)) break;
    // The registry path keeps the real name; only the tree path has "." made into "_".
    char *childreg = joined(regpath, '\\', st.subkeyname);
    if (!childreg) return KIV_ENOMEM;
    dots_to_underscores(st.subkeyname);
    rc = add(st.subkeyname, nullptr, prefix, 0);
    char *childtree = rc ? nullptr : joined(prefix, '.', st.subkeyname);
    if (!rc && !childtree) rc = KIV_ENOMEM;
    if (!rc) rc = kivconf_readreg(childtree, childreg, add);
    xfree(childreg);
    xfree(childtree);
    if (rc) return rc;
  }
  return 0;
}
