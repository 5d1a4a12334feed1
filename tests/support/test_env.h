// A private sandbox for one test: HOME, the XDG folders, TMPDIR and TARN_MACHINE_REGISTRY in a
// fresh folder; the environment is restored and the folder removed at the end.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::test {

class scoped_test_env {
 public:
  scoped_test_env();
  ~scoped_test_env();
  scoped_test_env(const scoped_test_env&) = delete;
  scoped_test_env& operator=(const scoped_test_env&) = delete;

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path home() const { return root_ / "home"; }
  std::filesystem::path tmp() const { return root_ / "tmp"; }
  std::filesystem::path machine_registry() const { return root_ / "etc" / "registry.sqlite"; }

  // Sets (or, with nullopt, unsets) a variable until the end of the test.
  void set_env(const std::string& name, const std::optional<std::string>& value);

 private:
  std::filesystem::path root_;
  std::map<std::string, std::optional<std::string>> saved_;
};

class sandboxed_test : public ::testing::Test {
 protected:
  scoped_test_env env_;
};

std::string read_file(const std::filesystem::path& path);
void write_file(const std::filesystem::path& path, const std::string& bytes);
// The names of the entries of `dir`, so that a leftover file shows; none for a missing folder.
std::set<std::string> names_in(const std::filesystem::path& dir);
// The files (not folders) below `dir`, sorted, but for those in its top-level folder `skip`.
std::vector<std::string> files_below(const std::filesystem::path& dir, const std::string& skip);

}  // namespace tarn::test
