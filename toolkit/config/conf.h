// Configuration text files (".cfg"): sections "name:" and indented assignments
// "name = value", reported to an add function under a tree path.
#pragma once
#include <cstdio>
#include "lib/printf.h"
#include "toolkit/config/addfunc.h"

// Reads the file (text mode) through kivconf_parse. 0; KIV_EACCES when the file (or a
// null name) cannot be opened; KIV_EFTYPE when the parse fails, for a syntax error and
// for a heap refusal alike (the parser reports the latter as "out of memory").
int kivconf_readfile(const char *prefix, const char *filename, kiv_addfunc add);
// Reports every section and assignment of stream to add, which may fail without stopping
// the parse. 0; -1 at the first bad line (nothing after it is read) or heap refusal, with
// *error (when error is not null) a heap text "<line>: <message>" owned by the caller,
// or null when that copy was refused too; KIV_EINTERNAL for a null stream or add, with
// *error null.
int kivconf_parse(FILE *stream, kiv_addfunc add, const char *prefix, char **error);
// What kivconf_parse walks through: the add function of a reader with state of its own,
// given the caller's context and the line (from 1) of what it reports.
using kivconf_linefunc = int (*)(void *context, int line, const char *name, const char *value,
                                 const char *prefix, int letter);
// kivconf_parse with the line-aware add function; the same results.
int kivconf_parse_lines(FILE *stream, kivconf_linefunc add, void *context, const char *prefix,
                        char **error);
// Checks name and rewrites it in place (blanks around dots dropped, a run of blanks kept
// as its first character); *length, when given, receives its new length. 0, or -1 with
// *error set as by conf_error.
int conf_checkname(char *name, int *length, int line, char **error);
// Stores "<line>: <message>" (at most 255 characters) as a heap text in *error when error
// is not null. Always -1.
int conf_error(char **error, int line, const char *format, ...) KIV_PRINTF(3, 4);
