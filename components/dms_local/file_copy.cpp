#include "dms_local/file_copy.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/unique_fd.h"

namespace tarn {
namespace {

copy_result failure(const std::string& what, const std::filesystem::path& path, int error) {
  copy_result result;
  result.error = error;
  result.text = what + " " + path.string() + ": " + std::strerror(error);
  return result;
}

// Plain reads and writes, for file systems that can't copy between each other in the kernel.
bool copy_by_reads(int in, int out, int64_t* copied, int* error, bool* read_failed) {
  std::vector<char> buffer(1 << 17);
  while (true) {
    const ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got == 0) return true;
    if (got < 0) {
      if (errno == EINTR) continue;
      *error = errno;
      *read_failed = true;
      return false;
    }
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = ::write(out, buffer.data() + done, static_cast<size_t>(got - done));
      if (put < 0) {
        if (errno == EINTR) continue;
        *error = errno;
        return false;
      }
      done += put;
    }
    *copied += got;
  }
}

}  // namespace

copy_result copy_into_new_file(const std::filesystem::path& source,
                               const std::filesystem::path& target, bool sync) {
  unique_fd in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in) return failure("can't read", source, errno);
  struct stat st;
  if (::fstat(in.get(), &st) != 0) return failure("can't read", source, errno);
  if (!S_ISREG(st.st_mode))
    return failure("can't read", source, S_ISDIR(st.st_mode) ? EISDIR : EINVAL);

  unique_fd out(::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!out) return failure("can't create", target, errno);
  auto fail = [&](const std::string& what, const std::filesystem::path& path, int error) {
    out.reset();
    ::unlink(target.c_str());
    return failure(what, path, error);
  };

  int64_t copied = 0;
  bool kernel_copy = true;
  while (kernel_copy) {
    const ssize_t n = ::copy_file_range(in.get(), nullptr, out.get(), nullptr, size_t{1} << 30, 0);
    if (n == 0) break;
    if (n > 0) {
      copied += n;
      continue;
    }
    if (errno == EINTR) continue;
    if (copied == 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                        errno == EOPNOTSUPP || errno == EPERM)) {
      kernel_copy = false;
      int error = 0;
      bool read_failed = false;
      if (!copy_by_reads(in.get(), out.get(), &copied, &error, &read_failed))
        return fail(read_failed ? "can't read" : "can't write", read_failed ? source : target,
                    error);
      break;
    }
    // copy_file_range doesn't say which side failed; a full disk or size limit is the target's.
    return fail("can't copy to", target, errno);
  }
  if (sync && ::fsync(out.get()) != 0) return fail("can't sync", target, errno);
  if (::close(out.release()) != 0) return fail("can't write", target, errno);
  copy_result result;
  result.ok = true;
  result.size = copied;
  return result;
}

bool sync_dir(const std::filesystem::path& dir) {
  unique_fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && ::fsync(fd.get()) == 0;
}

std::string random_hex(size_t bytes) {
  std::vector<unsigned char> raw(bytes);
  size_t got = 0;
  while (got < bytes) {
    const ssize_t n = ::getrandom(raw.data() + got, bytes - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : raw) {
    out += kHex[c >> 4];
    out += kHex[c & 0xF];
  }
  return out;
}

}  // namespace tarn
