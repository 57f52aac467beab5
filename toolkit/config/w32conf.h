// The registry loader: copies a registry key, its values and, recursively, its subkeys
// into the info tree through an add function. Windows only; the portable build links a
// stand-in that refuses with KIV_ENOTSUPP.
#pragma once
#include "toolkit/config/addfunc.h"

// regpath: "HKEY_LOCAL_MACHINE\..." or "HKEY_CURRENT_USER\..." (root name case-sensitive).
// 0 or a toolkit code: KIV_EINVAL (bad root), KIV_EACCES (cannot open or query),
// KIV_ENOMEM, or the add function's non-zero result.
int kivconf_readreg(const char *prefix, const char *regpath, kiv_addfunc add);

#ifdef _WIN32
// One opened key, owned by the loader for one call. Raw handles as void * keep
// <windows.h> out of this header (HKEY is a pointer type).
struct kivconf_key {
  void *handle;  // the open HKEY
  char *subkey;  // registry path after the root name (a copy)
  void *root;    // HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER
};

int kivconf_openkey(const char *path, const char *mode, kivconf_key **out);
void kivconf_closekey(kivconf_key *key);
int kivconf_splitkey(const char *path, void **root, char **subkey);
int kivconf_keyaccess(const char *mode, unsigned long *access);
int kivconf_enumkey(kivconf_key *key, unsigned long index, char *name, unsigned long size);
// *length (when given) receives the bytes of data stored; the data is zero-terminated
// after them when datasize leaves room, since string data need not carry a terminator.
int kivconf_enumvalue(kivconf_key *key, unsigned long index, char *name, unsigned long size,
                      unsigned char *data, unsigned long datasize, unsigned long *type,
                      unsigned long *length = nullptr);
#endif
