// The accounts agents and global programs run as, and the jobs that hold them.
#include <cstring>

#include "ports/util.h"
#include "toolkit/runtime/error.h"
#include "toolkit/runtime/log.h"
#include "toolkit/runtime/scoped_win.h"

namespace {

// A well-known SID in a buffer of the largest SID's size.
struct known_sid {
  alignas(8) BYTE sid[SECURITY_MAX_SID_SIZE];
  explicit known_sid(WELL_KNOWN_SID_TYPE type) {
    DWORD size = sizeof sid;
    if (!CreateWellKnownSid(type, nullptr, sid, &size)) memset(sid, 0, sizeof sid);
  }
  PSID get() { return sid; }
};

// A service logon of the built-in account: no password, the system keeps the account's
// secret. The names are looked up from the account's SID, since systems in other
// languages name them differently.
HANDLE service_logon(int kind, WELL_KNOWN_SID_TYPE type, const char *tag, DWORD *error) {
  known_sid account(type);
  wchar_t user[64], domain[64];
  DWORD user_size = 64, domain_size = 64;
  SID_NAME_USE use;
  if (!LookupAccountSidW(nullptr, account.get(), user, &user_size, domain, &domain_size, &use)) {
    const char *name = ACCOUNT_NAMES[kind];  // ASCII
    for (size_t i = 0; i <= strlen(name); i++) user[i] = static_cast<wchar_t>(name[i]);
    wcscpy(domain, L"NT AUTHORITY");
  }
  HANDLE token = nullptr;
  TOKEN_TYPE token_type;
  DWORD size = 0;
  // A logon that succeeds with a handle that is no token (a stub of the logon) starts
  // nothing; such a handle is not closed either, since it may name nothing at all.
  if (!LogonUserW(user, domain, nullptr, LOGON32_LOGON_SERVICE, LOGON32_PROVIDER_DEFAULT, &token) ||
      !GetTokenInformation(token, TokenType, &token_type, sizeof token_type, &size)) {
    *error = GetLastError();
    kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ESYS, "LogonUser(%s) failed %d",
                 ACCOUNT_NAMES[kind], static_cast<int>(*error));
    return nullptr;
  }
  return token;
}

// kivd's own token, contained: the administrators group for deny only (it can refuse
// access, never grant it), no privilege but SeChangeNotifyPrivilege, low integrity, and
// write restricted to the containment's SIDs, with its default access list. The user
// stays kivd's own. The privileges go by name, read from kivd's token, rather than by
// DISABLE_MAX_PRIVILEGE: the same token results, and every system honours the list.
// Low, not medium: restricting SIDs guard only the rights a type counts as generic write,
// not WRITE_DAC, WRITE_OWNER or DELETE, which kivd's user holds on most of the registry
// and the system's files; unlabelled objects count as medium, which closes all of them.
HANDLE restricted_token(const char *tag, DWORD *error) {
  scoped_handle own, restricted;
  known_sid admins(WinBuiltinAdministratorsSid), low(WinLowLabelSid);
  SID_AND_ATTRIBUTES deny = {admins.get(), 0};
  TOKEN_MANDATORY_LABEL label = {{low.get(), SE_GROUP_INTEGRITY}};
  alignas(8) BYTE buffer[4096];  // a token holds some 36 privileges at most: 12 bytes each
  alignas(8) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  auto *privileges = reinterpret_cast<TOKEN_PRIVILEGES *>(buffer);
  containment contained;
  LUID notify = {};
  DWORD size = 0, removed = 0;
  const char *step = "OpenProcessToken";
  bool ok = OpenProcessToken(
      GetCurrentProcess(),
      TOKEN_DUPLICATE | TOKEN_QUERY | TOKEN_ASSIGN_PRIMARY | TOKEN_ADJUST_DEFAULT, own.put());
  if (ok) {
    step = "GetTokenInformation";
    ok = GetTokenInformation(own.get(), TokenPrivileges, buffer, sizeof buffer, &size) &&
         GetTokenInformation(own.get(), TokenUser, user, sizeof user, &size) &&
         LookupPrivilegeValueA(nullptr, "SeChangeNotifyPrivilege", &notify);
  }
  if (ok) {
    step = "containment_build";
    ok = containment_build(reinterpret_cast<TOKEN_USER *>(user)->User.Sid, &contained) == 0;
  }
  if (ok) {
    // The list is compacted in place to the privileges that go.
    for (DWORD i = 0; i < privileges->PrivilegeCount; i++) {
      const LUID &luid = privileges->Privileges[i].Luid;
      if (luid.LowPart != notify.LowPart || luid.HighPart != notify.HighPart)
        privileges->Privileges[removed++] = privileges->Privileges[i];
    }
    step = "CreateRestrictedToken";
    ok = CreateRestrictedToken(own.get(), WRITE_RESTRICTED, 1, &deny, removed,
                               privileges->Privileges, 2, contained.restricting, restricted.put());
  }
  if (ok) {
    step = "SetTokenInformation";
    TOKEN_DEFAULT_DACL dacl = {reinterpret_cast<PACL>(contained.dacl)};
    ok = SetTokenInformation(restricted.get(), TokenIntegrityLevel, &label,
                             sizeof label + GetLengthSid(low.get())) &&
         SetTokenInformation(restricted.get(), TokenDefaultDacl, &dacl, sizeof dacl);
  }
  if (!ok) {
    *error = GetLastError();
    kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ESYS, "%s() failed %d", step,
                 static_cast<int>(*error));
    return nullptr;
  }
  return restricted.release();
}

}  // namespace

int containment_build(PSID user, containment *c) {
  PSID restricted = c->sids[0], logon = c->sids[1], system = c->sids[2], admins = c->sids[3];
  SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
  DWORD sizes[3] = {SECURITY_MAX_SID_SIZE, SECURITY_MAX_SID_SIZE, SECURITY_MAX_SID_SIZE};
  LUID unique = {};
  auto *acl = reinterpret_cast<PACL>(c->dacl);
  bool ok = CreateWellKnownSid(WinRestrictedCodeSid, nullptr, restricted, &sizes[0]) &&
            CreateWellKnownSid(WinLocalSystemSid, nullptr, system, &sizes[1]) &&
            CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &sizes[2]) &&
            AllocateLocallyUniqueId(&unique) &&
            InitializeSid(logon, &nt, SECURITY_LOGON_IDS_RID_COUNT);
  if (ok) {
    // A logon SID of no logon session: only what this token creates grants it.
    *GetSidSubAuthority(logon, 0) = SECURITY_LOGON_IDS_RID;
    *GetSidSubAuthority(logon, 1) = static_cast<DWORD>(unique.HighPart);
    *GetSidSubAuthority(logon, 2) = unique.LowPart;
    ok = InitializeAcl(acl, sizeof c->dacl, ACL_REVISION) &&
         AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, user) &&
         AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, logon) &&
         (EqualSid(user, system) || AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, system)) &&
         AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_READ | GENERIC_EXECUTE, admins);
  }
  c->restricting[0] = {restricted, 0};
  c->restricting[1] = {logon, 0};
  return ok ? 0 : KIV_ESYS;
}

int account_parse(const char *text, int *kind) {
  int k = text ? kivschema_judge(schema_values[SCHEMA_SERVICE_ACCOUNT], text) : -1;
  *kind = k < 0 ? ACCOUNT_SYSTEM : k;
  return k < 0 ? KIV_EINVAL : 0;
}

int account_token(int kind, HANDLE *token, const char *tag, DWORD *error) {
  *token = nullptr;
  switch (kind) {
    case ACCOUNT_SYSTEM:
      return 0;
    case ACCOUNT_LOCALSERVICE:
      *token = service_logon(kind, WinLocalServiceSid, tag, error);
      break;
    case ACCOUNT_NETWORKSERVICE:
      *token = service_logon(kind, WinNetworkServiceSid, tag, error);
      break;
    case ACCOUNT_RESTRICTED:
      *token = restricted_token(tag, error);
      break;
    default:
      return KIV_EINVAL;
  }
  return *token ? 0 : KIV_ESYS;
}

int job_create(const job_limits &limits, HANDLE *job, const char *tag, DWORD *error) {
  *job = nullptr;
  scoped_handle j(CreateJobObjectA(nullptr, nullptr));
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION extended = {};
  JOBOBJECT_BASIC_LIMIT_INFORMATION &basic = extended.BasicLimitInformation;
  basic.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (limits.memory) {
    basic.LimitFlags |= JOB_OBJECT_LIMIT_JOB_MEMORY;
    extended.JobMemoryLimit = static_cast<SIZE_T>(limits.memory) << 20;
  }
  if (limits.processes) {
    basic.LimitFlags |= JOB_OBJECT_LIMIT_ACTIVE_PROCESS;
    basic.ActiveProcessLimit = limits.processes;
  }
  JOBOBJECT_CPU_RATE_CONTROL_INFORMATION rate = {};
  rate.ControlFlags = JOB_OBJECT_CPU_RATE_CONTROL_ENABLE | JOB_OBJECT_CPU_RATE_CONTROL_HARD_CAP;
  rate.CpuRate = limits.cpu * 100;  // in hundredths of a percent
  const char *step = "CreateJobObject";
  bool ok = j.valid();
  if (ok) {
    step = "SetInformationJobObject";
    ok = SetInformationJobObject(j.get(), JobObjectExtendedLimitInformation, &extended,
                                 sizeof extended) &&
         (!limits.cpu ||
          SetInformationJobObject(j.get(), JobObjectCpuRateControlInformation, &rate, sizeof rate));
  }
  if (!ok) {
    *error = GetLastError();
    kiv_logerror(nullptr, tag, KIV_SEV_ERROR, KIV_ESYS, "%s() failed %d", step,
                 static_cast<int>(*error));
    return KIV_ESYS;
  }
  *job = j.release();
  return 0;
}
