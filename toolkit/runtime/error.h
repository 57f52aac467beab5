// The toolkit's result codes: 0 for success, one of these negative codes for failure.
// The constants carry the KIV_ prefix because the C runtime already defines EINVAL,
// EAGAIN, EACCES, EOF and others as macros with other values; the printed names
// (kiv_errname) are the unprefixed ones.
#pragma once

enum kiv_code : int {
  KIV_OK = 0,
  KIV_EINTERNAL = -1,
  KIV_ENOMEM = -2,
  KIV_ENOMORE = -3,
  KIV_ENOTFOUND = -4,
  KIV_EAGAIN = -5,
  KIV_EOF = -6,
  KIV_EINVAL = -7,
  KIV_EBUSY = -8,
  KIV_ENOTSUPP = -9,
  KIV_EOVERFLOW = -10,
  KIV_ETIMEDOUT = -11,
  KIV_ESYS = -12,
  KIV_ECONNREFUSED = -13,
  KIV_EACCES = -14,
  KIV_EFTYPE = -15,
  KIV_ECRYPT = -16,
  KIV_EPASSWD = -17,
  KIV_ECERTEXPIRED = -18,
  KIV_ECERTINVALID = -19,
  KIV_EINPROGRESS = -20,
  KIV_EBADADDR = -21,
  KIV_EPROTO = -22,
  KIV_ENOTREADY = -23,
  KIV_ECONFIG = -24,
  KIV_ECERTCRITICAL = -25,
  KIV_ECERTREVOKED = -26,
  KIV_EISSUERUNKNOWN = -27,
  KIV_ECERTBADSIGNATURE = -28,
  KIV_ECERTBADKEYUSAGE = -29,
  KIV_ENODE = -30,
  KIV_ENOPARENT = -31,
};
constexpr int KIV_NCODES = 32;  // codes 0 .. -31, no gaps

// The message and the symbolic name of any int; codes outside 0..-31 give
// "Unknown error code" and "UNKNOWN". The texts are constants.
const char *kiv_strerror(int code);
const char *kiv_errname(int code);
