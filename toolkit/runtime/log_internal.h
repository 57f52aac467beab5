// The log's three rooms share little: the debug spec's parser hands the line template to
// the formatter and the file to the sink, and each forgets its part at kiv_logreset.
#pragma once
#include <cstddef>

// Takes over text (allocated) as the line template; null returns to KIV_LOGPREFIX.
void kiv_logtemplate(char *text);
// Takes over name (allocated) as the log file, rotated at rotatesize bytes (0: never); the
// file open until now is closed.
void kiv_logfile(char *name, long rotatesize);
// Each part back to its state at process start.
void kiv_logspec_reset();
void kiv_logfile_reset();
