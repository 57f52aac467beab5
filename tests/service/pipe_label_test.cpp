// kivd's control pipe carries a mandatory label: nothing below high integrity opens it,
// for reading or writing, whatever its access list grants (a restricted agent runs as
// kivd's own user). Wine reads the label back but checks no access: that the open is
// refused below the label shows on Windows only.
#include <gtest/gtest.h>
#include <aclapi.h>
#include <sddl.h>

#include "tests/support/support.h"
#include "tests/testagent/report.h"

namespace {

// The label kivd can give: high, or its own integrity where that is lower (a console kivd
// of a user who is not elevated). kivd runs with the token of this test.
std::string expected_label() {
  HANDLE token = nullptr;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
  std::vector<char> label = report_detail::token_info(token, TokenIntegrityLevel);
  CloseHandle(token);
  if (label.empty()) return "?";
  PSID sid = reinterpret_cast<TOKEN_MANDATORY_LABEL *>(label.data())->Label.Sid;
  DWORD level = *GetSidSubAuthority(sid, *GetSidSubAuthorityCount(sid) - 1);
  return level >= SECURITY_MANDATORY_HIGH_RID ? "S-1-16-12288" : report_detail::sid_text(sid);
}

TEST(PipeSecurity, TheLabelKeepsLowerIntegrityOut) {
  kt::registry reg;
  kt::kivd daemon("-D3");
  kt::client c;
  ASSERT_NE(c.h, INVALID_HANDLE_VALUE);
  PACL sacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  ASSERT_EQ(GetSecurityInfo(c.h, SE_KERNEL_OBJECT, LABEL_SECURITY_INFORMATION, nullptr, nullptr,
                            nullptr, &sacl, &sd),
            static_cast<DWORD>(ERROR_SUCCESS));
  ASSERT_NE(sacl, nullptr);
  ASSERT_EQ(sacl->AceCount, 1u);
  SYSTEM_MANDATORY_LABEL_ACE *ace = nullptr;
  ASSERT_TRUE(GetAce(sacl, 0, reinterpret_cast<void **>(&ace)));
  EXPECT_EQ(ace->Header.AceType, SYSTEM_MANDATORY_LABEL_ACE_TYPE);
  EXPECT_EQ(ace->Mask, static_cast<DWORD>(SYSTEM_MANDATORY_LABEL_NO_WRITE_UP |
                                          SYSTEM_MANDATORY_LABEL_NO_READ_UP));
  EXPECT_EQ(report_detail::sid_text(&ace->SidStart), expected_label());
  LocalFree(sd);
}

}  // namespace
