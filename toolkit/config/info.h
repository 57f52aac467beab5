// The info tree: the process-wide configuration store of dotted paths (".tcp.s25.service"),
// compared without regard to ASCII case, with file and registry sources read lazily on
// first need. Every public operation except kivinfo_fixname holds the info lock (slot 10).
#pragma once

struct kiv_context;

constexpr int KIVINFO_FILE = 0;      // kivinfo_set kinds
constexpr int KIVINFO_RESERVED = 1;  // always refused with KIV_ENOTSUPP
constexpr int KIVINFO_REGISTRY = 2;

using kivinfo_walkfunc = int (*)(const char *path, const char *text, void *arg);

// Creates the tree (the root "." as a node). 0, KIV_EBUSY, KIV_ENOMEM. The other
// operations return KIV_ENOTREADY before it.
int kivinfo_init(int unused);
// Attaches an unread source at path, replacing the subtree at path. The root is refused
// with KIV_ENOPARENT, a call from a walk callback with KIV_EBUSY, both changing nothing.
int kivinfo_set(const char *path, const char *source, int kind);
// A heap copy of the value at name in *out (caller frees with xfree). A relative name
// needs ctx's search list.
int kivinfo_get(kiv_context *ctx, const char *name, char **out);
// Calls fn(path, text, arg) for every entry at or below path, after reading the sources
// that cover it. The path is the stored one; the text copy lives for the call only.
int kivinfo_walk(const char *path, kivinfo_walkfunc fn, void *arg);
// In place: "." becomes "_", ASCII upper case becomes lower case. Returns text.
char *kivinfo_fixname(char *text);
