#include "process/server_assembly.h"

#include "convutils/CConvRegKey.h"
#include "support/test_env.h"

namespace tarn {
namespace {

class server_assembly_test : public test::sandboxed_test {};

// Other hosts are shut out unless the machine's policy lets them in; a user can't widen it.
TEST_F(server_assembly_test, OnlyTheMachinePolicyOpensThePortToOtherHosts) {
  constexpr const char* kPolicyKey = "Software\\Policies\\Vantu\\Tarn 5.0\\Gateway";
  EXPECT_FALSE(read_gateway_settings().allow_remote);
  for (const auto root : {reg_root::current_user, reg_root::local_machine})
    CConvRegKey(root, kPolicyKey, "AllowRemoteClients", DWORD{0}).write_number(7);
  EXPECT_TRUE(read_gateway_settings().allow_remote);
  CConvRegKey(reg_root::local_machine, kPolicyKey, "AllowRemoteClients", DWORD{0}).write_number(0);
  EXPECT_FALSE(read_gateway_settings().allow_remote);
}

}  // namespace
}  // namespace tarn
