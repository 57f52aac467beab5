// Configuration text files (".cfg"): sections "name:" and indented assignments
// "name = value", reported to an add function under a tree path.
#pragma once
#include <cstdio>
#include "lib/printf.h"
#include "toolkit/config/addfunc.h"

// 0, KIV_EACCES (cannot open), KIV_EFTYPE (does not parse).
int kivconf_readfile(const char *prefix, const char *filename, kiv_addfunc add);
// 0, or -1 with *error (when error is not null) a heap text "<line>: <message>".
int kivconf_parse(FILE *stream, kiv_addfunc add, const char *prefix, char **error);
// Checks and rewrites name in place; *length receives its new length. 0 or -1.
int conf_checkname(char *name, int *length, int line, char **error);
// Stores "<line>: <message>" (at most 255 characters) as a heap text in *error when error
// is not null. Always -1.
int conf_error(char **error, int line, const char *format, ...) KIV_PRINTF(3, 4);
