// String vectors: a heap array of heap texts ended by a null pointer. Null is empty.
#pragma once

// Appends a copy of text. Returns the (possibly moved) vector, or null when it cannot
// grow; the old vector is then left as it was.
char **vecapp(char **vec, const char *text);
// Releases every text and the vector; null is ignored.
void vecfree(char **vec);
