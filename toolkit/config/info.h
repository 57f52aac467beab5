// The info tree: the process-wide configuration store of dotted paths (".tcp.s25.service"),
// compared without regard to ASCII case, with file and registry sources read lazily on
// first need. Every public operation except kivinfo_fixname holds the info lock (slot 10).
#pragma once

struct kiv_context;

constexpr int KIVINFO_FILE = 0;      // kivinfo_set kinds
constexpr int KIVINFO_RESERVED = 1;  // always refused with KIV_ENOTSUPP
constexpr int KIVINFO_REGISTRY = 2;

using kivinfo_walkfunc = int (*)(const char *path, const char *text, void *arg);

// Creates the tree (the root "." as a node). 0, KIV_EBUSY, KIV_ENOMEM (the tree stays
// absent and a later call may try again). The other operations return KIV_ENOTREADY
// before it.
int kivinfo_init(int unused);
// Attaches an unread source at path, replacing the subtree at path; nothing is read now.
// A file source's name gets ".cfg" appended unless its text from the last "." on is
// exactly ".cfg". 0; KIV_EINVAL (path not absolute, null source, unknown kind);
// KIV_ENOTSUPP (kind 1); KIV_ENOPARENT (parent missing or a value); KIV_ENOMEM. Kinds 1
// and unknown still remove the subtree. The root is refused with KIV_ENOPARENT, a call
// from a walk callback with KIV_EBUSY, both changing nothing.
int kivinfo_set(const char *path, const char *source, int kind);
// A heap copy of the value at name in *out (caller frees with xfree; *out is null on
// failure). An absolute name is looked up, after reading the unread sources above it;
// a relative one is tried under each prefix of ctx's search list in turn, the first
// success winning. 0; KIV_EINVAL (null name or out, relative name without a context or
// with an empty list); KIV_ENOTFOUND; KIV_ENODE (a node or a source); KIV_EINTERNAL (a
// covering source failed to read and stays unread, or an entry has an unknown letter);
// KIV_ENOMEM.
int kivinfo_get(kiv_context *ctx, const char *name, char **out);
// Calls fn(path, text, arg) for every entry at or below path, after reading the sources
// that cover it. The path is the stored one; the text copy lives for the call only.
// 0, or fn's first non-zero result, which ends the walk; KIV_EINVAL; the reader's code
// when a source fails to read (KIV_EFTYPE for a file that fails to parse, KIV_EACCES for
// one that cannot be opened or a registry key that cannot), with no callback made;
// KIV_EBUSY inside another walk; KIV_ENOMEM.
int kivinfo_walk(const char *path, kivinfo_walkfunc fn, void *arg);
// In place: "." becomes "_", ASCII upper case becomes lower case. Returns text.
char *kivinfo_fixname(char *text);
