// kivctl apply / export: the registry side. The file is read and checked by applycfg;
// the registry is read through the project's registry loader; the new configuration
// replaces the old one in a single rename.
//
// How a crash half-way is kept harmless: the port manager reads the three subkeys of
// Agents at separate moments, and no order of in-place writes keeps every intermediate
// state equal to the old or the new configuration (two services swapping programs has
// no safe order). So the new tree is written complete under the sibling key
// Agents.new, marked complete by the value "kivctl.apply", and only then swapped in:
// Agents is renamed to Agents.old, Agents.new to Agents, and Agents.old deleted. A crash
// before the swap leaves the old configuration untouched; after it, the new one. The
// one window between the two renames leaves no Agents key, which the port manager reads
// as no configuration at all (never as a mix); the next apply finds the complete
// Agents.new and finishes the swap first. Registry transactions would close that window
// on Windows, but Wine implements none (RegCreateKeyTransacted fails there), and a rename
// is a single operation on both.
#include "tools/kivctl/apply.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/heap.h"
#include "lib/wire.h"
#include "tools/kivctl/applycfg.h"
#include "tools/kivctl/client.h"
#include "toolkit/config/w32conf.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

const char PARENT[] = WIRE_ROOT_PARENT;
const char LIVE[] = WIRE_ROOT_KEY;
const char STAGING[] = WIRE_ROOT_KEY ".new";
const char RETIRED[] = WIRE_ROOT_KEY ".old";
const char LIVE_PATH[] = WIRE_ROOT;
const char MARKER[] = "kivctl.apply";  // in Agents.new: "complete" once every value is in
const char COMPLETE[] = "complete";

int registry_fail(const char *what, const std::string &name, LONG error) {
  fprintf(stderr, "kivctl: %s HKEY_LOCAL_MACHINE\\%s: error %ld\n", what, name.c_str(),
          static_cast<long>(error));
  return 2;
}

#ifdef KIVCTL_CRASH_STEPS
// The crash test's seam, in the test-only build of kivctl (tests/kivctl_apply) and never
// in the shipped one: KIVCTL_APPLY_CRASH_AFTER=k ends the process at once after step k of
// the write, as a crash there would. A separate build rather than a report the test acts
// on: the process ends exactly at the step, with nothing of the next one begun, and the
// shipped kivctl.exe has no code that an environment variable could set off.
void step_done(int step) {
  const char *crash = getenv("KIVCTL_APPLY_CRASH_AFTER");
  if (crash && atoi(crash) == step) TerminateProcess(GetCurrentProcess(), 99);
}
#else
void step_done(int) {}
#endif

applycfg *reading = nullptr;  // the model the loader's reports go to

int add_from_registry(const char *name, const char *value, const char *prefix, int) {
  // The prefix is a tree path (".tcp.s25"); the model's names have no leading dot.
  std::string dotted = prefix && prefix[0] == '.' ? std::string(prefix + 1) + "." + name : name;
  applycfg_add(reading, dotted.c_str(), value, 0);
  return 0;
}

bool key_exists(HKEY parent, const char *name) {
  scoped_key k;
  return RegOpenKeyExA(parent, name, 0, KEY_READ, k.put()) == ERROR_SUCCESS;
}

// The configuration under Agents, read the way the port manager reads it. A missing
// subkey is an empty part; one that exists and cannot be read is a failure (2).
int read_registry(applycfg *cfg) {
  cfg->keys.clear();
  reading = cfg;
  for (const char *part : {"global", "services", "tcp"}) {
    std::string regpath = std::string(LIVE_PATH) + "\\" + part;
    int rc = kivconf_readreg((std::string(".") + part).c_str(), regpath.c_str(), add_from_registry);
    if (rc && key_exists(HKEY_LOCAL_MACHINE, regpath.c_str() + strlen("HKEY_LOCAL_MACHINE\\"))) {
      reading = nullptr;
      fprintf(stderr, "kivctl: cannot read %s (code %d)\n", regpath.c_str(), rc);
      return 2;
    }
  }
  reading = nullptr;
  return 0;
}

using rename_fn = LONG(WINAPI *)(HKEY, LPCWSTR, LPCWSTR);

// RegRenameKey is exported by advapi32 from Windows Vista on but not declared by every
// SDK: it is looked up once.
LONG rename_key(HKEY parent, const char *from, const char *to) {
  static rename_fn rename = reinterpret_cast<rename_fn>(reinterpret_cast<void (*)()>(
      GetProcAddress(GetModuleHandleA("advapi32.dll"), "RegRenameKey")));
  if (!rename) return ERROR_CALL_NOT_IMPLEMENTED;
  std::wstring wfrom(from, from + strlen(from)), wto(to, to + strlen(to));
  return rename(parent, wfrom.c_str(), wto.c_str());
}

LONG delete_tree(HKEY parent, const char *name) {
  LONG rc = RegDeleteTreeA(parent, name);
  if (rc == ERROR_SUCCESS) rc = RegDeleteKeyA(parent, name);
  return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : rc;
}

bool staging_complete(HKEY parent) {
  char text[16] = {0};
  DWORD size = sizeof text - 1, type = 0;
  scoped_key k;
  if (RegOpenKeyExA(parent, STAGING, 0, KEY_READ, k.put()) != ERROR_SUCCESS) return false;
  return RegQueryValueExA(k.get(), MARKER, nullptr, &type, reinterpret_cast<BYTE *>(text), &size) ==
             ERROR_SUCCESS &&
         type == REG_SZ && strcmp(text, COMPLETE) == 0;
}

// Puts right what an interrupted apply left: a missing Agents is restored from the
// complete Agents.new (the swap is finished) or else from Agents.old; then the sibling
// keys are removed. *restored tells whether Agents was put back.
int recover(HKEY parent, bool *restored) {
  *restored = false;
  if (!key_exists(parent, LIVE)) {
    const char *from = staging_complete(parent)      ? STAGING
                       : key_exists(parent, RETIRED) ? RETIRED
                                                     : nullptr;
    if (from) {
      LONG rc = rename_key(parent, from, LIVE);
      if (rc != ERROR_SUCCESS)
        return registry_fail("cannot restore", std::string(PARENT) + "\\" + LIVE, rc);
      *restored = true;
      fprintf(stderr, "kivctl: finished an interrupted apply (from %s)\n", from);
    }
  }
  for (const char *name : {STAGING, RETIRED}) {
    LONG rc = delete_tree(parent, name);
    if (rc != ERROR_SUCCESS)
      return registry_fail("cannot delete", std::string(PARENT) + "\\" + name, rc);
  }
  return 0;
}

int write_staging(HKEY parent, const applycfg &cfg) {
  scoped_key staging;
  LONG rc = RegCreateKeyExA(parent, STAGING, 0, nullptr, REG_OPTION_NON_VOLATILE,
                            KEY_READ | KEY_WRITE, nullptr, staging.put(), nullptr);
  if (rc != ERROR_SUCCESS)
    return registry_fail("cannot create", std::string(PARENT) + "\\" + STAGING, rc);
  for (const auto &entry : cfg.keys) {
    const applycfg_key &key = entry.second;
    if (key.values.empty()) continue;
    std::string sub = key.name;
    for (char &c : sub)
      if (c == '.') c = '\\';
    scoped_key k;
    rc = RegCreateKeyExA(staging.get(), sub.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE,
                         nullptr, k.put(), nullptr);
    if (rc != ERROR_SUCCESS)
      return registry_fail("cannot create", std::string(PARENT) + "\\" + STAGING + "\\" + sub, rc);
    for (const auto &v : key.values) {
      rc = RegSetValueExA(k.get(), v.second.name.c_str(), 0, REG_SZ,
                          reinterpret_cast<const BYTE *>(v.second.text.c_str()),
                          static_cast<DWORD>(v.second.text.size() + 1));
      if (rc != ERROR_SUCCESS)
        return registry_fail(
            "cannot write", std::string(PARENT) + "\\" + STAGING + "\\" + sub + " " + v.second.name,
            rc);
    }
  }
  step_done(1);
  rc = RegSetValueExA(staging.get(), MARKER, 0, REG_SZ, reinterpret_cast<const BYTE *>(COMPLETE),
                      sizeof COMPLETE);
  if (rc != ERROR_SUCCESS)
    return registry_fail("cannot mark", std::string(PARENT) + "\\" + STAGING, rc);
  step_done(2);
  return 0;
}

int swap_in(HKEY parent) {
  LONG rc = ERROR_SUCCESS;
  if (key_exists(parent, LIVE)) {
    rc = rename_key(parent, LIVE, RETIRED);
    if (rc != ERROR_SUCCESS)
      return registry_fail("cannot rename", std::string(PARENT) + "\\" + LIVE, rc);
  }
  step_done(3);
  rc = rename_key(parent, STAGING, LIVE);
  if (rc != ERROR_SUCCESS)
    return registry_fail("cannot rename", std::string(PARENT) + "\\" + STAGING, rc);
  step_done(4);
  rc = delete_tree(parent, RETIRED);
  if (rc != ERROR_SUCCESS)
    return registry_fail("cannot delete", std::string(PARENT) + "\\" + RETIRED, rc);
  scoped_key live;
  if (RegOpenKeyExA(parent, LIVE, 0, KEY_WRITE, live.put()) == ERROR_SUCCESS)
    RegDeleteValueA(live.get(), MARKER);
  step_done(5);
  return 0;
}

// Tells a running kivd to read the registry again. 0 when it answered "+" or when no kivd
// runs (its pipe does not exist); 2 on any other failure (reported).
int reconfig_kivd() {
  scoped_handle pipe;
  int code = client_open(pipe.put(), if_absent::pass);
  if (code) return code < 0 ? 0 : code;
  std::vector<std::string> reply;
  code = client_exchange(pipe.get(), WIRE_RECONFIG, sizeof WIRE_RECONFIG - 1, &reply);
  if (code != 1) return code;
  fprintf(stderr, "kivctl: reconfig: %s\n", reply.front().c_str());
  return 2;
}

int usage() {
  fprintf(stderr, "usage: kivctl apply [--dry-run] FILE.cfg\n");
  return 1;
}

}  // namespace

int kivctl_apply(int argc, char **argv) {
  bool dry = false;
  const char *file = nullptr;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--dry-run") == 0 && !dry)
      dry = true;
    else if (!file)
      file = argv[i];
    else
      return usage();
  }
  if (!file) return usage();
  // Binary mode: the checker turns stream offsets into line numbers. A carriage return
  // before a line feed is whitespace to the parser, so CR LF files read the same.
  FILE *stream = fopen(file, "rb");
  if (!stream) {
    fprintf(stderr, "kivctl: cannot open %s\n", file);
    return 1;
  }
  applycfg next, old;
  char *error = nullptr;
  int rc = applycfg_read(stream, &next, &error);
  fclose(stream);
  if (rc) {
    fprintf(stderr, "kivctl: %s: %s\n", file, error ? error : "out of memory");
    xfree(error);
    return 1;
  }
  scoped_key parent;
  bool restored = false;
  if (!dry) {
    LONG err = RegCreateKeyExA(HKEY_LOCAL_MACHINE, PARENT, 0, nullptr, REG_OPTION_NON_VOLATILE,
                               KEY_READ | KEY_WRITE, nullptr, parent.put(), nullptr);
    if (err != ERROR_SUCCESS) return registry_fail("cannot open", PARENT, err);
    // What an interrupted apply left is put right first, so that the changes printed
    // are the ones made.
    if ((rc = recover(parent.get(), &restored))) return rc;
  }
  if (read_registry(&old)) return 2;
  std::vector<std::string> changes = applycfg_diff(old, next);
  for (const std::string &line : changes) printf("%s\n", line.c_str());
  fflush(stdout);
  if (dry) return changes.empty() ? 0 : KIVCTL_CHANGED;
  // kivd may have read the registry while Agents was missing: a restore is told to it.
  if (changes.empty() && !restored) return 0;
  if (!changes.empty() &&
      ((rc = write_staging(parent.get(), next)) || (rc = swap_in(parent.get()))))
    return rc;
  rc = reconfig_kivd();
  return rc ? rc : KIVCTL_CHANGED;
}

int kivctl_export(int argc, char **) {
  if (argc != 1) {
    fprintf(stderr, "usage: kivctl export\n");
    return 1;
  }
  applycfg cfg;
  if (read_registry(&cfg)) return 2;
  std::vector<std::string> skipped;
  std::string text = applycfg_export(cfg, &skipped);
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
  for (const std::string &name : skipped)
    fprintf(stderr, "kivctl: not exported: %s\n", name.c_str());
  return 0;
}
