#include "support/test_env.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace tarn::test {
namespace {

void put_env(const std::string& name, const std::optional<std::string>& value) {
  value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
}

}  // namespace

scoped_test_env::scoped_test_env() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + pattern);
  root_ = pattern;
  std::filesystem::create_directories(home());
  std::filesystem::create_directories(tmp());
  std::filesystem::permissions(tmp(), std::filesystem::perms::owner_all);
  set_env("HOME", home().string());
  set_env("XDG_CONFIG_HOME", (home() / ".config").string());
  set_env("XDG_DATA_HOME", (home() / ".local/share").string());
  set_env("XDG_STATE_HOME", (home() / ".local/state").string());
  set_env("XDG_CACHE_HOME", (home() / ".cache").string());
  set_env("XDG_RUNTIME_DIR", std::nullopt);
  set_env("TMPDIR", tmp().string());
  set_env("TARN_MACHINE_REGISTRY", machine_registry().string());
}

scoped_test_env::~scoped_test_env() {
  for (const auto& [name, value] : saved_) put_env(name, value);
  std::error_code ec;
  // Tests may leave read-only folders behind on purpose; make them removable first.
  for (auto it = std::filesystem::recursive_directory_iterator(root_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec))
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ec);
  }
  std::filesystem::remove_all(root_, ec);
}

void scoped_test_env::set_env(const std::string& name, const std::optional<std::string>& value) {
  if (!saved_.count(name)) {
    const char* old = getenv(name.c_str());
    saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
  }
  put_env(name, value);
}

std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_file(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

std::set<std::string> names_in(const std::filesystem::path& dir) {
  std::set<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
    names.insert(entry.path().filename().string());
  return names;
}

std::vector<std::string> files_below(const std::filesystem::path& dir, const std::string& skip) {
  std::vector<std::string> files;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it.depth() == 0 && it->path().filename() == skip)
      it.disable_recursion_pending();
    else if (!it->is_directory(ec))
      files.push_back(std::filesystem::relative(it->path(), dir).string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace tarn::test
