// Configuration text files: section lines "name:" and indented assignments
// "name = value", reported line by line to an add function.
#include "toolkit/config/conf.h"

#include <cstdarg>
#include <cstring>

#include "lib/dfgets.h"
#include "lib/dstr.h"
#include "lib/heap.h"
#include "lib/unescape.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/memory.h"

namespace {

constexpr int ERROR_BUFFER = 256;  // an error text holds at most 255 characters

// The locale plays no part: these are the six whitespace bytes of the file format.
bool iswhite(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v' || c == '\n';
}

bool isnamechar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         (c != 0 && strchr("._- /@%&:+~*", c) != nullptr);
}

char *skipwhite(char *p) {
  while (iswhite(*p)) p++;
  return p;
}

// Cuts the whitespace off the end of the text that runs from start to end.
char *trimend(char *start, char *end) {
  while (end > start && iswhite(end[-1])) end--;
  *end = 0;
  return end;
}

// Both growable texts of one parse, released on every way out.
struct parsestate {
  dstr line{};
  dstr name{};               // "<section>.<name>" for an assignment inside a section
  size_t sectionlength = 0;  // the current section and its dot at the start of name
  ~parsestate() {
    dstr_free(&line, 0);
    dstr_free(&name, 0);
  }
};

// Where a parse reports what it reads.
struct sink {
  kivconf_linefunc add;
  void *context;
};

// The section line in line (first character not whitespace, "#" or the end).
int section(parsestate &st, char *line, int lineno, const sink &add, const char *prefix,
            char **error) {
  char *colon = strchr(line, ':');
  if (!colon) return conf_error(error, lineno, "\":\" expected");
  if (colon == line) return conf_error(error, lineno, "syntax error");
  *colon = 0;
  int length;
  if (conf_checkname(line, &length, lineno, error)) return -1;
  // A store failure does not stop the file.
  add.add(add.context, lineno, line, nullptr, prefix, 0);
  if (dstr_truncate(&st.name, 0) < 0 || dstr_append(&st.name, line, length) < 0 ||
      dstr_append(&st.name, ".", 1) < 0)
    return conf_error(error, lineno, "out of memory");
  st.sectionlength = static_cast<size_t>(length) + 1;
  return 0;
}

// The assignment line in line (starting with whitespace).
int assignment(parsestate &st, char *line, int lineno, const sink &add, const char *prefix,
               char **error) {
  char *name = skipwhite(line);
  if (*name == 0 || *name == '#') return 0;
  char *equals = strchr(name, '=');
  if (!equals) return conf_error(error, lineno, "\"=\" expected");
  char *value = skipwhite(equals + 1);
  char *end = trimend(value, value + strlen(value));
  trimend(name, equals);
  // An empty name would put the value at the section's path followed by a lone "." (or
  // at the attach point and "."), a path no lookup can name component by component:
  // such lines are refused as the empty component they are.
  if (*name == 0) return conf_error(error, lineno, "zero length name");
  int length;
  if (conf_checkname(name, &length, lineno, error)) return -1;
  if (*value == '"') {
    // A lone double quote is both the opening and the closing quote: the empty value.
    if (end - value > 1 && end[-1] != '"') return conf_error(error, lineno, "missing end quote");
    end[-1] = 0;
    value++;
    unescape(value);
  }
  if (dstr_truncate(&st.name, static_cast<int>(st.sectionlength)) < 0 ||
      dstr_append(&st.name, name, length) < 0)
    return conf_error(error, lineno, "out of memory");
  add.add(add.context, lineno, st.name.buffer, value, prefix, 's');  // failures do not stop it
  return 0;
}

// The public add function, called through the line-aware form; the context is the
// address of the function.
int plain_add(void *context, int, const char *name, const char *value, const char *prefix,
              int letter) {
  return (*static_cast<kiv_addfunc *>(context))(name, value, prefix, letter);
}

}  // namespace

int kivconf_readfile(const char *prefix, const char *filename, kiv_addfunc add) {
  if (!filename) return KIV_EACCES;
  FILE *stream = fopen(filename, "r");
  if (!stream) return KIV_EACCES;
  int rc = kivconf_parse(stream, add, prefix, nullptr);
  fclose(stream);
  return rc ? KIV_EFTYPE : 0;
}

int kivconf_parse(FILE *stream, kiv_addfunc add, const char *prefix, char **error) {
  if (!add) {
    if (error) *error = nullptr;
    return KIV_EINTERNAL;
  }
  return kivconf_parse_lines(stream, plain_add, &add, prefix, error);
}

int kivconf_parse_lines(FILE *stream, kivconf_linefunc function, void *context, const char *prefix,
                        char **error) {
  if (error) *error = nullptr;
  if (!stream || !function) return KIV_EINTERNAL;
  const sink add{function, context};
  parsestate st;
  if (!dstr_init(&st.line) || !dstr_init(&st.name)) return conf_error(error, 0, "out of memory");
  // A line is taken up to its first zero byte, if it holds one: the rest of it cannot
  // be part of a name or a value.
  int lineno = 1;
  for (; dfgets(stream, &st.line); lineno++) {
    char *line = st.line.buffer;
    int rc = 0;
    if (iswhite(line[0]))
      rc = assignment(st, line, lineno, add, prefix, error);
    else if (line[0] != 0 && line[0] != '#')
      rc = section(st, line, lineno, add, prefix, error);
    if (rc) return rc;
    if (dstr_truncate(&st.line, 0) != 0) return conf_error(error, lineno, "out of memory");
  }
  // dfgets also stops when the heap refuses to grow the line; the file is then refused
  // rather than taken as ending early.
  if (!feof(stream) && !ferror(stream)) return conf_error(error, lineno, "out of memory");
  return 0;
}

int conf_checkname(char *name, int *length, int line, char **error) {
  if (length) *length = 0;
  if (!name) return conf_error(error, line, "zero length name");
  char *r = name, *w = name;
  while (*r) {
    char c = *r;
    if (c == ' ' || c == '\t') {
      // A run of whitespace led by a blank or a tab keeps its first character, unless
      // the run ends the name or comes before a dot.
      char *next = skipwhite(r + 1);
      if (*next != 0 && *next != '.') *w++ = c;
      r = next;
    } else if (c == '.') {
      if (w == name || w[-1] == '.') return conf_error(error, line, "zero length name");
      *w++ = '.';
      r = skipwhite(r + 1);
    } else if (isnamechar(c)) {
      *w++ = c;
      r++;
    } else {
      return conf_error(error, line, "bad char (%c) in name.", static_cast<unsigned char>(c));
    }
  }
  if (w > name && w[-1] == '.') return conf_error(error, line, "zero length name");
  *w = 0;
  if (length) *length = static_cast<int>(w - name);
  return 0;
}

int conf_error(char **error, int line, const char *format, ...) {
  if (!error) return -1;
  char buffer[ERROR_BUFFER];
  int used = xsnprintf(buffer, sizeof buffer, "%d: ", line);
  if (used > ERROR_BUFFER - 1) used = ERROR_BUFFER - 1;
  if (format) {
    va_list args;
    va_start(args, format);
    xvsnprintf(buffer + used, sizeof buffer - used, format, args);
    va_end(args);
  }
  buffer[ERROR_BUFFER - 1] = 0;
  *error = kiv_copytext(buffer, strlen(buffer), "conf.conf_error");
  return -1;
}
