#include <fcntl.h>
#include <linux/limits.h>
#include <pthread.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "oxCFGDescriptor.h"
#include "oxCFGFile.h"

namespace {

constexpr char kAclAttribute[] = "system.posix_acl_access";

// A write beyond the process's file-size limit raises SIGXFSZ before it fails, which would end the host. Holds that
// signal back and takes it away; one that was pending before is the host's and stays.
class SizeSignalBlock {
 public:
  SizeSignalBlock() {
    sigset_t pending;
    sigpending(&pending);
    sigemptyset(&ours_);
    if (sigismember(&pending, SIGXFSZ) == 0) sigaddset(&ours_, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &ours_, &before_);
  }
  ~SizeSignalBlock() {
    const timespec at_once = {};
    while (sigtimedwait(&ours_, nullptr, &at_once) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SizeSignalBlock(const SizeSignalBlock&) = delete;
  SizeSignalBlock& operator=(const SizeSignalBlock&) = delete;

 private:
  sigset_t ours_;
  sigset_t before_;
};

// The new file under a name of its own; removed again unless it is renamed.
class NewFile {
 public:
  explicit NewFile(int folder) : folder_(folder) {}
  ~NewFile() {
    if (!name_.empty()) unlinkat(folder_, name_.c_str(), 0);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  bool Create(const std::string& target);
  bool Write(std::string_view bytes);
  // Gives it the owner, group, access list, other extended attributes and mode of the target, of which `known` tells.
  bool CopyAccess(const std::string& target_path, const struct stat& known);
  bool Sync() { return TEMP_FAILURE_RETRY(fsync(file_.Get())) == 0 && file_.Close(); }
  bool Rename(const std::string& target);

 private:
  bool CopyAcl(const std::string& target_path);
  bool CopyAttributes(const std::string& target_path);
  bool CopyAttribute(const std::string& target_path, const char* name);

  const int folder_;  // Not owned.
  std::string name_;  // Empty while there is no file to remove.
  oxCFGDescriptor file_;
};

bool NewFile::Create(const std::string& target) {
  uint64_t random = 0;
  if (getrandom(&random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random))) return false;
  char digits[16];
  char* const end = std::to_chars(std::begin(digits), std::end(digits), random, 16).ptr;
  // Cut, so that it fits a folder entry together with the dots and digits.
  std::string name = "." + target.substr(0, NAME_MAX - 2 - sizeof(digits)) + "." + std::string(digits, end);
  // Readable by nobody until it has the target's owner and mode.
  file_.Set(openat(folder_, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, S_IWUSR));
  if (file_.Get() < 0) return false;
  name_ = std::move(name);
  return true;
}

bool NewFile::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = TEMP_FAILURE_RETRY(write(file_.Get(), bytes.data(), bytes.size()));
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool NewFile::CopyAccess(const std::string& target_path, const struct stat& known) {
  struct stat created;
  if (fstat(file_.Get(), &created) != 0) return false;
  const bool same_owner = created.st_uid == known.st_uid && created.st_gid == known.st_gid;
  if (!same_owner && fchown(file_.Get(), known.st_uid, known.st_gid) != 0) return false;
  // The mode last: a change of owner clears bits of it, and it opens the file.
  return CopyAcl(target_path) && CopyAttributes(target_path) && fchmod(file_.Get(), known.st_mode & 07777) == 0;
}

bool NewFile::CopyAcl(const std::string& target_path) {
  std::string acl(XATTR_SIZE_MAX, '\0');
  const ssize_t size = lgetxattr(target_path.c_str(), kAclAttribute, acl.data(), acl.size());
  if (size >= 0) return fsetxattr(file_.Get(), kAclAttribute, acl.data(), static_cast<size_t>(size), 0) == 0;
  if (errno != ENODATA && errno != ENOTSUP) return false;
  // The folder's default list may have given it entries that the target lacks.
  return fremovexattr(file_.Get(), kAclAttribute) == 0 || errno == ENODATA || errno == ENOTSUP;
}

// All that the process may see: the kernel hides trusted attributes from those that may not read them.
bool NewFile::CopyAttributes(const std::string& target_path) {
  std::string names(XATTR_LIST_MAX, '\0');
  const ssize_t size = llistxattr(target_path.c_str(), names.data(), names.size());
  if (size < 0) return errno == ENOTSUP;
  names.resize(static_cast<size_t>(size));
  for (size_t at = 0; at < names.size(); at += std::strlen(names.c_str() + at) + 1) {
    const char* const name = names.c_str() + at;
    if (name != std::string_view(kAclAttribute) && !CopyAttribute(target_path, name)) return false;
  }
  return true;
}

bool NewFile::CopyAttribute(const std::string& target_path, const char* name) {
  // They vouch for the old bytes.
  for (const char* const bound_to_bytes : {"security.ima", "security.evm"}) {
    if (name == std::string_view(bound_to_bytes)) return false;
  }
  std::string value(XATTR_SIZE_MAX, '\0');
  const ssize_t size = lgetxattr(target_path.c_str(), name, value.data(), value.size());
  if (size < 0) return false;
  value.resize(static_cast<size_t>(size));
  // A label that the system has given to the new file too needs no privilege then.
  std::string given(XATTR_SIZE_MAX, '\0');
  const ssize_t given_size = fgetxattr(file_.Get(), name, given.data(), given.size());
  if (given_size >= 0 && given.compare(0, static_cast<size_t>(given_size), value) == 0) return true;
  return fsetxattr(file_.Get(), name, value.data(), value.size(), 0) == 0;
}

bool NewFile::Rename(const std::string& target) {
  if (renameat(folder_, name_.c_str(), folder_, target.c_str()) != 0) return false;
  name_.clear();
  return true;
}

bool IsSameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

bool IsSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && IsSameTime(a.st_mtim, b.st_mtim) &&
         IsSameTime(a.st_ctim, b.st_ctim);
}

}  // namespace

bool oxCFGFile::Replace(std::string_view bytes) {
  if (bytes.size() > kMaxBytes) return false;  // It could not be read again.
  const oxCFGDescriptor folder(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.Get() < 0) return false;
  // A rename would get past a write protection.
  if (faccessat(folder.Get(), name_.c_str(), W_OK, AT_EACCESS) != 0) return false;

  const SizeSignalBlock block;
  NewFile file(folder.Get());
  if (!file.Create(name_) || !file.Write(bytes) || !file.CopyAccess(folder_ + name_, known_) || !file.Sync()) {
    return false;
  }
  struct stat now;
  if (fstatat(folder.Get(), name_.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 || !IsSame(now, known_)) return false;
  if (!file.Rename(name_)) return false;
  if (fstatat(folder.Get(), name_.c_str(), &known_, AT_SYMLINK_NOFOLLOW) != 0) return false;
  // Some file systems cannot sync a folder.
  return TEMP_FAILURE_RETRY(fsync(folder.Get())) == 0 || errno == EINVAL || errno == ENOTSUP;
}
