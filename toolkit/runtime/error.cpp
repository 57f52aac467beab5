#include "toolkit/runtime/error.h"

namespace {

struct entry {
  const char *name;
  const char *message;
};

// Indexed by the negated code.
constexpr entry table[] = {
    {"OK", "OK"},
    {"EINTERNAL", "Internal toolkit error"},
    {"ENOMEM", "Out of memory"},
    {"ENOMORE", "No more entries"},
    {"ENOTFOUND", "Not found"},
    {"EAGAIN", "Retryable error"},
    {"EOF", "End of data stream"},
    {"EINVAL", "Invalid argument"},
    {"EBUSY", "Object in use"},
    {"ENOTSUPP", "Not supported by implementation"},
    {"EOVERFLOW", "Value out of range"},
    {"ETIMEDOUT", "Timeout"},
    {"ESYS", "System error"},
    {"ECONNREFUSED", "Connection refused"},
    {"EACCES", "Permission denied"},
    {"EFTYPE", "Invalid data type or file format"},
    {"ECRYPT", "Cryptographic operation failed"},
    {"EPASSWD", "Password incorrect"},
    {"ECERTEXPIRED", "Certificate expired"},
    {"ECERTINVALID", "Certificate invalid"},
    {"EINPROGRESS", "Connection in progress"},
    {"EBADADDR", "Invalid network address"},
    {"EPROTO", "Protocol error"},
    {"ENOTREADY", "Not ready"},
    {"ECONFIG", "Configuration error"},
    {"ECERTCRITICAL", "Critical extension not supported"},
    {"ECERTREVOKED", "Certificate revoked"},
    {"EISSUERUNKNOWN", "Certificate issuer not trusted"},
    {"ECERTBADSIGNATURE", "Invalid certificate signature"},
    {"ECERTBADKEYUSAGE", "Invalid certificate keyusage"},
    {"ENODE", "Info node referenced as value"},
    {"ENOPARENT", "Info node or value has no parent"},
};
static_assert(sizeof(table) / sizeof(table[0]) == KIV_NCODES, "the code table has 32 entries");

const entry *lookup(int code) {
  // Compare before negating: -INT_MIN would overflow.
  if (code > 0 || code <= -KIV_NCODES) return nullptr;
  return &table[-code];
}

}  // namespace

const char *kiv_strerror(int code) {
  const entry *e = lookup(code);
  return e ? e->message : "Unknown error code";
}

const char *kiv_errname(int code) {
  const entry *e = lookup(code);
  return e ? e->name : "UNKNOWN";
}
