#include <fcntl.h>
#include <linux/limits.h>
#include <pthread.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <utility>

#include "oxCFGDescriptor.h"
#include "oxCFGFile.h"

namespace {

bool SyncDescriptor(const oxCFGDescriptor& descriptor) {
  return oxCFGRepeatIfInterrupted([&] { return fsync(descriptor.Get()); }) == 0;
}

constexpr char kAclAttribute[] = "system.posix_acl_access";

// Returns the bytes that call(buffer, capacity) writes, or nullopt if it fails, with the reason in errno.
template <class Call>
std::optional<std::string> ReadUpTo(size_t capacity, Call call) {
  std::string bytes(capacity, '\0');
  const ssize_t size = call(bytes.data(), bytes.size());
  if (size < 0) return std::nullopt;
  bytes.resize(static_cast<size_t>(size));
  return bytes;
}

std::optional<std::string> ReadAttribute(const std::string& path, const char* name) {
  return ReadUpTo(XATTR_SIZE_MAX,
                  [&](char* buffer, size_t capacity) { return lgetxattr(path.c_str(), name, buffer, capacity); });
}

// Blocks SIGXFSZ, which a write beyond the process's file-size limit raises and whose default action ends the host. The
// destructor discards a SIGXFSZ that was raised meanwhile. A signal that was pending before belongs to the host and
// stays pending.
class SigxfszGuard {
 public:
  SigxfszGuard() {
    sigset_t pending;
    sigpending(&pending);
    sigemptyset(&blocked_);
    if (sigismember(&pending, SIGXFSZ) == 0) sigaddset(&blocked_, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &blocked_, &old_mask_);
  }
  ~SigxfszGuard() {
    const timespec no_wait = {};
    sigtimedwait(&blocked_, nullptr, &no_wait);
    pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
  }
  SigxfszGuard(const SigxfszGuard&) = delete;
  SigxfszGuard& operator=(const SigxfszGuard&) = delete;

 private:
  sigset_t blocked_;  // Empty if SIGXFSZ was pending before.
  sigset_t old_mask_;
};

// A new file under a temporary name; removed by the destructor unless it was renamed.
class NewFile {
 public:
  explicit NewFile(int directory) : directory_(directory) {}
  ~NewFile() {
    if (!name_.empty()) unlinkat(directory_, name_.c_str(), 0);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  bool Create(const std::string& target);
  bool Write(std::string_view bytes);
  // Copies owner, group and mode from `status`, and the extended attributes, including the access control list, from
  // the file at `target_path`.
  bool CopyAccess(const std::string& target_path, const struct stat& status);
  bool Sync() { return SyncDescriptor(file_) && file_.Close(); }
  bool Rename(const std::string& target);

 private:
  bool CopyAcl(const std::string& target_path);
  bool CopyAttributes(const std::string& target_path);
  bool CopyAttribute(const std::string& target_path, const char* name);

  const int directory_;  // Not owned.
  std::string name_;     // Temporary name; empty if there is no file to remove.
  oxCFGDescriptor file_;
};

bool NewFile::Create(const std::string& target) {
  uint64_t random = 0;
  if (getrandom(&random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random))) return false;
  const std::string suffix = "." + std::to_string(random);
  // Truncates the target's name so that the new name has at most NAME_MAX bytes.
  std::string name = "." + target.substr(0, NAME_MAX - 1 - suffix.size()) + suffix;
  // Nobody can read the file until it has the target's owner and mode.
  file_.Set(openat(directory_, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, S_IWUSR));
  if (file_.Get() < 0) return false;
  name_ = std::move(name);
  return true;
}

bool NewFile::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = oxCFGRepeatIfInterrupted([&] { return write(file_.Get(), bytes.data(), bytes.size()); });
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool NewFile::CopyAccess(const std::string& target_path, const struct stat& status) {
  struct stat created;
  if (fstat(file_.Get(), &created) != 0) return false;
  const bool same_owner = created.st_uid == status.st_uid && created.st_gid == status.st_gid;
  if (!same_owner && fchown(file_.Get(), status.st_uid, status.st_gid) != 0) return false;
  // Sets the mode last: a change of owner would clear bits of it, and the mode makes the file accessible to others.
  return CopyAcl(target_path) && CopyAttributes(target_path) && fchmod(file_.Get(), status.st_mode & 07777) == 0;
}

bool NewFile::CopyAcl(const std::string& target_path) {
  const auto acl = ReadAttribute(target_path, kAclAttribute);
  if (acl) return fsetxattr(file_.Get(), kAclAttribute, acl->data(), acl->size(), 0) == 0;
  if (errno != ENODATA && errno != ENOTSUP) return false;
  // The directory's default access control list may have given the new file entries that the target lacks.
  return fremovexattr(file_.Get(), kAclAttribute) == 0 || errno == ENODATA || errno == ENOTSUP;
}

// Copies all other attributes that the process can see: the kernel hides trusted.* from unprivileged processes.
bool NewFile::CopyAttributes(const std::string& target_path) {
  const auto names = ReadUpTo(
      XATTR_LIST_MAX, [&](char* buffer, size_t capacity) { return llistxattr(target_path.c_str(), buffer, capacity); });
  if (!names) return errno == ENOTSUP;
  for (size_t at = 0; at < names->size(); at += std::strlen(names->c_str() + at) + 1) {
    const char* const name = names->c_str() + at;
    if (name != std::string_view(kAclAttribute) && !CopyAttribute(target_path, name)) return false;
  }
  return true;
}

bool NewFile::CopyAttribute(const std::string& target_path, const char* name) {
  // These attributes are signatures or hashes of the old content and would not match the new content.
  for (const char* const bound_to_bytes : {"security.ima", "security.evm"}) {
    if (name == std::string_view(bound_to_bytes)) return false;
  }
  const auto value = ReadAttribute(target_path, name);
  if (!value) return false;
  // Setting a security label can require a privilege, so an attribute that already has this value is not set.
  const auto current = ReadUpTo(
      XATTR_SIZE_MAX, [&](char* buffer, size_t capacity) { return fgetxattr(file_.Get(), name, buffer, capacity); });
  if (current == value) return true;
  return fsetxattr(file_.Get(), name, value->data(), value->size(), 0) == 0;
}

bool NewFile::Rename(const std::string& target) {
  if (renameat(directory_, name_.c_str(), directory_, target.c_str()) != 0) return false;
  name_.clear();
  return true;
}

bool IsSameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

bool IsUnchanged(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && IsSameTime(a.st_mtim, b.st_mtim) &&
         IsSameTime(a.st_ctim, b.st_ctim);
}

}  // namespace

bool oxCFGFile::Replace(std::string_view bytes) {
  if (bytes.size() > kMaxBytes) return false;  // Read would refuse it.
  const oxCFGDescriptor directory(open(directory_.c_str(), O_RDONLY | O_CLOEXEC));
  // A rename would bypass the write protection of the file. This also fails if the directory could not be opened.
  if (faccessat(directory.Get(), name_.c_str(), W_OK, AT_EACCESS) != 0) return false;

  const SigxfszGuard sigxfsz_guard;
  NewFile file(directory.Get());
  if (!file.Create(name_) || !file.Write(bytes) || !file.CopyAccess(directory_ + name_, status_) || !file.Sync()) {
    return false;
  }
  struct stat current;
  if (fstatat(directory.Get(), name_.c_str(), &current, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!IsUnchanged(current, status_)) return false;
  if (!file.Rename(name_)) return false;
  if (fstatat(directory.Get(), name_.c_str(), &status_, AT_SYMLINK_NOFOLLOW) != 0) return false;
  // Some file systems cannot sync directories.
  return SyncDescriptor(directory) || errno == EINVAL || errno == ENOTSUP;
}
