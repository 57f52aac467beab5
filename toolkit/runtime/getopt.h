// Single-letter option scanner over an argument vector. Prints nothing.
#pragma once

// Process-wide scan state. Set kiv_optind to a value below 1 to start a new scan.
extern int kiv_optind;    // index of the next word; after the scan, the first non-option
extern char *kiv_optarg;  // argument of the option just returned (points into argv)
extern int kiv_optopt;    // the option letter just examined

// Accessors for code outside the toolkit.
int *kiv_optindp();
char **kiv_optargp();

// Returns the next option letter, -1 when the options have ended, '?' for a letter not in
// optstring (or a word "--x"), ':' for an option whose argument is missing.
int kiv_getopt(int argc, char *const argv[], const char *optstring);
