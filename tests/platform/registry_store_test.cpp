#include "platform/registry_store.h"

#include <sys/wait.h>
#include <unistd.h>

#include "support/test_env.h"

namespace tarn {
namespace {

class registry_store_test : public test::sandboxed_test {
 protected:
  std::unique_ptr<registry_store> open_user(registry_store::access mode) {
    std::string err;
    auto store = registry_store::open(reg_root::current_user, mode, &err);
    EXPECT_TRUE(store) << err;
    return store;
  }
};

TEST_F(registry_store_test, ReadNeverCreatesTheFileAndTheUserStoreIsPrivate) {
  const auto file = registry_file(reg_root::current_user);
  int code = 0;
  EXPECT_FALSE(
      registry_store::open(reg_root::current_user, registry_store::access::read, nullptr, &code));
  EXPECT_EQ(code, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(file));
  open_user(registry_store::access::write);
  namespace fs = std::filesystem;
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(file.parent_path()).permissions(), fs::perms::owner_all);
}

TEST_F(registry_store_test, KeysAreCaseInsensitiveMadeWithParentsAndRemovedWithTheirSubtree) {
  auto store = open_user(registry_store::access::write);
  for (const char* key : {"Software\\Vantu\\PDF", "A\\B\\C", "A\\B", "A\\BC"})
    ASSERT_TRUE(store->set(key, "Mode", kRegDword, reg_dword_bytes(7), nullptr));
  EXPECT_TRUE(store->key_exists("\\SOFTWARE\\\\Vantu\\pdf\\"));
  auto value = store->get("SOFTWARE\\VANTU\\PDF", "mode");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->type, kRegDword);
  EXPECT_EQ(value->data, reg_dword_bytes(7));
  EXPECT_EQ(store->subkeys("software"), std::vector<std::string>{"Software\\Vantu"});

  // Not the sibling "A\BC", whose name only begins like the removed key's.
  ASSERT_TRUE(store->remove_key("a\\b", nullptr));
  EXPECT_FALSE(store->key_exists("A\\B"));
  EXPECT_FALSE(store->get("A\\B\\C", "Mode"));
  EXPECT_TRUE(store->get("A\\BC", "Mode"));
  std::string err = "untouched";
  EXPECT_FALSE(store->remove_key("A\\B", &err));
  EXPECT_TRUE(err.empty());
}

TEST(registry_text, RoundTripsThroughUtf16) {
  const std::pair<const char*, size_t> cases[] = {
      {"", 2}, {"abc", 8}, {"Grüße", 12}, {"日本", 6}, {"\xF0\x9F\x93\x84 pdf", 14}};
  for (const auto& [text, size] : cases) {
    EXPECT_EQ(reg_sz_bytes(text).size(), size) << text;
    EXPECT_EQ(reg_sz_text(reg_sz_bytes(text)), text);
  }
  EXPECT_EQ(reg_sz_text(std::string("a\0b\0\0\0c\0", 8)), "ab");
}

// Two processes write at once: SQLite's lock makes one wait, and both sets of values survive.
TEST_F(registry_store_test, ConcurrentWritersLoseNothing) {
  open_user(registry_store::access::write);
  constexpr int kWrites = 200;
  pid_t children[2];
  for (int child = 0; child < 2; ++child) {
    if ((children[child] = fork()) != 0) continue;
    auto store =
        registry_store::open(reg_root::current_user, registry_store::access::write, nullptr);
    for (int i = 0; store && i < kWrites; ++i) {
      if (!store->set("Load\\W" + std::to_string(child), "v" + std::to_string(i), kRegDword,
                      reg_dword_bytes(static_cast<uint32_t>(i)), nullptr))
        _exit(1);
    }
    _exit(store ? 0 : 1);
  }
  for (pid_t pid : children) {
    int status = -1;
    EXPECT_TRUE(waitpid(pid, &status, 0) == pid && status == 0) << status;
  }
  auto store = open_user(registry_store::access::read);
  for (const char* key : {"Load\\W0", "Load\\W1"})
    EXPECT_EQ(store->values(key).size(), static_cast<size_t>(kWrites));
}

}  // namespace
}  // namespace tarn
