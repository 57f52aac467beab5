// The restricted token's containment as the launcher gets it: write restricted to
// RESTRICTED and a logon SID of its own, a default access list that lets it write what it
// creates through that SID, at low integrity. Wine reads back the default access list and
// the groups but neither the restricting SIDs nor the integrity set, and checks no access:
// those rows are Windows only.
#include <windows.h>
#include <sddl.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ports/util.h"
#include "tests/testagent/report.h"

namespace {

const bool wine = GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;

std::string sid_text(PSID sid) { return report_detail::sid_text(sid); }

// "SID:mask" for each entry of an access list of allowed entries.
std::vector<std::string> entries(PACL acl) {
  std::vector<std::string> out;
  for (DWORD i = 0; acl && i < acl->AceCount; i++) {
    ACCESS_ALLOWED_ACE *ace = nullptr;
    if (!GetAce(acl, i, reinterpret_cast<void **>(&ace))) break;
    char mask[16];
    snprintf(mask, sizeof mask, "%#lx", static_cast<unsigned long>(ace->Mask));
    out.push_back((ace->Header.AceType == ACCESS_ALLOWED_ACE_TYPE ? "" : "?") +
                  sid_text(&ace->SidStart) + ":" + mask);
  }
  return out;
}

std::string own_user() {
  HANDLE token = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  std::vector<char> user = report_detail::token_info(token, TokenUser);
  CloseHandle(token);
  return user.empty() ? "?" : sid_text(reinterpret_cast<TOKEN_USER *>(user.data())->User.Sid);
}

constexpr const char *SYSTEM = "S-1-5-18";
constexpr const char *FULL = ":0x10000000";          // GENERIC_ALL
constexpr const char *READ_EXECUTE = ":0xa0000000";  // GENERIC_READ | GENERIC_EXECUTE

// What the agent's own objects grant: kivd's user and the logon SID in full (the two
// passes of a write), the system account in full, the administrators reading.
std::vector<std::string> expected_dacl(const std::string &user, const std::string &logon) {
  std::vector<std::string> want = {user + FULL, logon + FULL};
  if (user != SYSTEM) want.push_back(std::string(SYSTEM) + FULL);
  want.push_back(std::string("S-1-5-32-544") + READ_EXECUTE);
  return want;
}

TEST(RestrictedToken, WritesPassOnlyForItsOwnSids) {
  std::string user = own_user(), logons[2];
  for (std::string &logon : logons) {
    HANDLE token = nullptr;
    DWORD error = 0;
    ASSERT_EQ(0, account_token(ACCOUNT_RESTRICTED, &token, "test", &error)) << error;
    std::vector<char> dacl = report_detail::token_info(token, TokenDefaultDacl);
    ASSERT_FALSE(dacl.empty());
    std::vector<std::string> got =
        entries(reinterpret_cast<TOKEN_DEFAULT_DACL *>(dacl.data())->DefaultDacl);
    ASSERT_GE(got.size(), 2u);
    logon = got[1].substr(0, got[1].find(':'));
    EXPECT_EQ(logon.rfind("S-1-5-5-", 0), 0u) << logon;
    EXPECT_EQ(got, expected_dacl(user, logon));
    // Wine keeps the integrity of the token it filters and cannot list restricting SIDs.
    if (!wine) {
      std::vector<char> label = report_detail::token_info(token, TokenIntegrityLevel);
      ASSERT_FALSE(label.empty());
      EXPECT_EQ("S-1-16-4096",
                sid_text(reinterpret_cast<TOKEN_MANDATORY_LABEL *>(label.data())->Label.Sid));
      EXPECT_TRUE(IsTokenRestricted(token));
      std::vector<char> access = report_detail::token_info(token, TokenAccessInformation);
      ASSERT_FALSE(access.empty());
      constexpr DWORD WRITE_RESTRICTED_FLAG = 0x8;  // the kernel's token flag of that name
      EXPECT_NE(reinterpret_cast<TOKEN_ACCESS_INFORMATION *>(access.data())->Flags &
                    WRITE_RESTRICTED_FLAG,
                0u);
      std::vector<char> restricting = report_detail::token_info(token, TokenRestrictedSids);
      ASSERT_FALSE(restricting.empty());
      auto *groups = reinterpret_cast<TOKEN_GROUPS *>(restricting.data());
      std::vector<std::string> sids;
      for (DWORD i = 0; i < groups->GroupCount; i++)
        sids.push_back(sid_text(groups->Groups[i].Sid));
      EXPECT_EQ(sids, (std::vector<std::string>{"S-1-5-12", logon}));
    }
    CloseHandle(token);
  }
  // One agent's objects are not another's: each token has a logon SID of its own.
  EXPECT_NE(logons[0], logons[1]);
}

// The restricting SIDs and the default access list for kivd's user as a service (the
// system account, granted once) and in a console (another user, and the system account).
TEST(RestrictedToken, ContainmentOfEachUser) {
  alignas(8) BYTE system[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof system;
  ASSERT_TRUE(CreateWellKnownSid(WinLocalSystemSid, nullptr, system, &size));
  HANDLE token = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  std::vector<char> own = report_detail::token_info(token, TokenUser);
  CloseHandle(token);
  ASSERT_FALSE(own.empty());
  for (PSID user :
       {static_cast<PSID>(system), reinterpret_cast<TOKEN_USER *>(own.data())->User.Sid}) {
    SCOPED_TRACE(sid_text(user));
    containment c;
    ASSERT_EQ(0, containment_build(user, &c));
    std::string logon = sid_text(c.restricting[1].Sid);
    EXPECT_EQ(logon.rfind("S-1-5-5-", 0), 0u) << logon;
    EXPECT_EQ(sid_text(c.restricting[0].Sid), "S-1-5-12");
    EXPECT_EQ(c.restricting[0].Attributes | c.restricting[1].Attributes, 0u);
    EXPECT_EQ(entries(reinterpret_cast<PACL>(c.dacl)), expected_dacl(sid_text(user), logon));
  }
}

}  // namespace
