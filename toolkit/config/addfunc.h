// The add function through which the configuration readers report what they read.
#pragma once

// name: a dotted name relative to prefix; value: the text, or null for a node;
// prefix: an absolute tree path or null; letter: 's' or 'd' for a value, 0 for a node.
// Returns 0 to go on; a non-zero result is the reader's failure (the registry loader
// stops on it; the text parser ignores it).
using kiv_addfunc = int (*)(const char *name, const char *value, const char *prefix, int letter);
