// Stand-in for the registry loader in the portable build, which has no registry.
// It is never part of kivd.exe.
#include "toolkit/config/w32conf.h"

#include "toolkit/runtime/error.h"

int kivconf_readreg(const char *, const char *, kiv_addfunc) { return KIV_ENOTSUPP; }
