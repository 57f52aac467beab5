// How a control message becomes words: the one splitter of the server and of the client
// that wants to know what the server will make of a line.
#pragma once

constexpr int CMD_LINE = 512;     // longest command message in bytes
constexpr int CMD_MAXWORDS = 20;  // entries of the word vector

// Splits line in place into words (blanks and tabs separate; a backslash protects the
// next character; double quotes group and are removed). vector has CMD_MAXWORDS
// entries. Returns the word count, at least 1 (one empty word for an empty line), or
// CMD_MAXWORDS + 1 when the line has more words: the vector then holds the first
// CMD_MAXWORDS and the rest of the line is left unsplit.
int cmd_split(char *line, char **vector);
