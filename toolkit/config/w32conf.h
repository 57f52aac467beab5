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

// Opens the key at path ("w" in mode asks for write access too); *out receives the key,
// owned by the caller and released with kivconf_closekey. 0; KIV_EINVAL (null argument,
// bad root); KIV_EACCES (cannot open); KIV_ENOMEM.
int kivconf_openkey(const char *path, const char *mode, kivconf_key **out);
// Closes the handle and releases the key; null is ignored.
void kivconf_closekey(kivconf_key *key);
// Splits "ROOT\rest" into the root key and a heap copy of rest (*subkey, owned by the
// caller). 0; KIV_EINVAL for a null argument, an unknown or lower-case root name, or a
// bare root name; KIV_ENOMEM. Both outputs are null on failure.
int kivconf_splitkey(const char *path, void **root, char **subkey);
// The access rights for mode: read and write when it holds "w", else read. 0 or
// KIV_EINVAL (null argument; *access then 0).
int kivconf_keyaccess(const char *mode, unsigned long *access);
// The name of subkey number index into name (size bytes, terminator included). 0;
// KIV_ENOMORE past the last one; KIV_EACCES when it cannot be read (or does not fit);
// KIV_EINVAL for a null key or name.
int kivconf_enumkey(kivconf_key *key, unsigned long index, char *name, unsigned long size);
// Value number index: its name into name (size bytes), its type into *type and its data
// into data (datasize bytes; data may be null). *length (when given) receives the bytes
// of data stored; the data is zero-terminated after them when datasize leaves room,
// since string data need not carry a terminator. 0; KIV_ENOMORE past the last value;
// KIV_EACCES when it cannot be read or does not fit; KIV_EINVAL for a null key.
int kivconf_enumvalue(kivconf_key *key, unsigned long index, char *name, unsigned long size,
                      unsigned char *data, unsigned long datasize, unsigned long *type,
                      unsigned long *length = nullptr);
#endif
