#include "convutils/CConvRegKey.h"

#include "support/test_env.h"

namespace tarn {
namespace {

constexpr const char* kKey = "Software\\Vantu\\PDF\\V1\\TarnGateWay";

class CConvRegKey_test : public test::sandboxed_test {
 protected:
  void store_raw(reg_root root, const char* name, uint32_t type, const std::string& data) {
    auto store = registry_store::open(root, registry_store::access::write, nullptr);
    ASSERT_TRUE(store);
    ASSERT_TRUE(store->set(kKey, name, type, data, nullptr));
  }
};

TEST_F(CConvRegKey_test, MissingValueGivesTheDefaultAndAWriteOnlyItsOwnRoot) {
  CConvRegKey key(reg_root::current_user, kKey, "Tarn_GateWay_fetatures", 9);
  DWORD value = 0;
  EXPECT_EQ(key.read_number(&value), kErrorFileNotFound);
  EXPECT_EQ(value, 9u);

  EXPECT_EQ(CConvRegKey(reg_root::local_machine, kKey, "do_merge", 0).write_number(0xDEADBEEF),
            kErrorSuccess);
  EXPECT_EQ(CConvRegKey(reg_root::local_machine, kKey, "DO_MERGE", 1).read_as_number(),
            0xDEADBEEFu);
  EXPECT_EQ(CConvRegKey(reg_root::current_user, kKey, "do_merge", 5).read_as_number(), 5u);
}

// Four bytes or fewer of any type read as a number; a longer value gives the default.
TEST_F(CConvRegKey_test, NumberReadTakesRawBytesUpToFour) {
  const struct {
    const char* name;
    uint32_t type;
    std::string data;
    long status;
    DWORD expected;
  } cases[] = {
      {"dword", kRegDword, reg_dword_bytes(4), kErrorSuccess, 4},
      {"three chars", kRegSz, reg_sz_bytes("abc"), kErrorMoreData, 77},
      {"two bytes", kRegBinary, std::string("\x01\x02", 2), kErrorSuccess, 0x0201},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    store_raw(reg_root::current_user, c.name, c.type, c.data);
    DWORD value = 0;
    EXPECT_EQ(CConvRegKey(reg_root::current_user, kKey, c.name, 77).read_number(&value), c.status);
    EXPECT_EQ(value, c.expected);
  }
}

TEST_F(CConvRegKey_test, TextReadFallsBackToDefaultBelowTwoBytes) {
  store_raw(reg_root::local_machine, "InstallPath", kRegSz, reg_sz_bytes("/opt/vantu tarn/"));
  store_raw(reg_root::local_machine, "one byte", kRegSz, std::string(1, 'x'));
  const struct {
    const char* name;
    std::optional<std::string> fallback;
    std::optional<std::string> expected;  // none: no text at all
  } cases[] = {
      {"InstallPath", std::nullopt, "/opt/vantu tarn/"},
      {"one byte", "dflt", "dflt"},
      {"missing", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CConvRegKey key(reg_root::local_machine, kKey, c.name, c.fallback);
    const std::string* text = key.read_text();
    EXPECT_EQ(text ? std::optional(*text) : std::nullopt, c.expected);
  }
}

}  // namespace
}  // namespace tarn
