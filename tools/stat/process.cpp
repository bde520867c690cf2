#include "stat/process.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>

namespace {

constexpr size_t kMaxThreadNameBytes = 15;

std::string PathOf(pid_t pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

// Returns nothing, with the reason in errno, if the file cannot be read. Reads until the end, because the size of a
// file in /proc is not known before.
std::optional<std::string> ReadFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return std::nullopt;
  std::string text;
  char buffer[16384];
  ssize_t size = 0;
  while ((size = read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(size));
  const int error = errno;
  close(fd);
  errno = error;
  if (size < 0) return std::nullopt;
  return text;
}

// Returns the text up to the delimiter, and removes that text and the delimiter from the front of *text.
std::string_view TakeUntil(char delimiter, std::string_view* text) {
  const std::string_view taken = text->substr(0, text->find(delimiter));
  text->remove_prefix(std::min(taken.size() + 1, text->size()));
  return taken;
}

uint64_t ParseHex(std::string_view text) {
  uint64_t number = 0;
  constexpr int kBase = 16;
  std::from_chars(text.data(), text.data() + text.size(), number, kBase);
  return number;
}

std::string UserName(uid_t uid) {
  const passwd* const entry = getpwuid(uid);
  return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

// Returns the real user of the process; the caller's effective one if the process has ended. Not the owner of its
// directory in /proc, which is root if the process is not dumpable.
uid_t RealUser(pid_t pid) {
  const std::string status = ReadFile(PathOf(pid, "status")).value_or("");
  constexpr std::string_view kTitle = "\nUid:\t";
  uid_t uid = geteuid();
  if (const size_t at = status.find(kTitle); at != status.npos)
    std::from_chars(status.data() + at + kTitle.size(), status.data() + status.size(), uid);
  return uid;
}

// Says which permission is missing.
std::string ReasonForRefusal(pid_t pid) {
  const std::string scope = ReadFile("/proc/sys/kernel/yama/ptrace_scope").value_or("0").substr(0, 1);
  if (scope == "3") return "kernel.yama.ptrace_scope is 3: no process may read the memory of another";
  const std::string capability = "the capability CAP_SYS_PTRACE";
  if (geteuid() == 0) return "root lacks " + capability + ", as it usually does in a container";
  const std::string remedy = "; run oxevent-stat as root, or with " + capability;
  if (scope == "2") return "kernel.yama.ptrace_scope is 2" + remedy;
  const uid_t user = RealUser(pid);
  if (user != geteuid()) return "it belongs to the user " + UserName(user) + remedy;
  if (scope == "1") return "kernel.yama.ptrace_scope is 1" + remedy;
  return "it has more privileges than oxevent-stat, or has changed its user" + remedy;
}

bool HasName(const Process& process, std::string_view name) {
  if (process.Name() == name.substr(0, kMaxThreadNameBytes)) return true;
  const std::string arguments = ReadFile(PathOf(process.Pid(), "cmdline")).value_or("");
  std::string_view rest = arguments;
  return std::filesystem::path(TakeUntil('\0', &rest)).filename() == name;
}

}  // namespace

std::string Process::Name() const {
  const std::string name = ReadFile(PathOf(pid_, "comm")).value_or("");
  return name.substr(0, name.rfind('\n'));
}

std::vector<uint64_t> Process::MappedFiles() const {
  const std::optional<std::string> maps = ReadFile(PathOf(pid_, "maps"));
  if (!maps) ThrowError(errno);
  if (maps->empty()) ThrowError(ESRCH);
  std::vector<uint64_t> starts;
  std::string_view rest = *maps;
  while (!rest.empty()) {
    std::string_view line = TakeUntil('\n', &rest);
    const uint64_t start = ParseHex(TakeUntil('-', &line));
    TakeUntil(' ', &line);
    const bool is_readable = TakeUntil(' ', &line).starts_with('r');
    if (is_readable && ParseHex(TakeUntil(' ', &line)) == 0 && line.find('/') != line.npos) starts.push_back(start);
  }
  return starts;
}

bool Process::Read(uint64_t address, void* to, size_t size) const {
  const iovec local = {to, size};
  void* const from = reinterpret_cast<void*>(static_cast<uintptr_t>(address));  // NOLINT(performance-no-int-to-ptr)
  const iovec remote = {from, size};
  const ssize_t copied = process_vm_readv(pid_, &local, 1, &remote, 1, 0);
  if (copied < 0 && errno != EFAULT) ThrowError(errno);
  return copied == static_cast<ssize_t>(size);
}

void Process::ThrowError(int error) const {
  std::string text = "process " + std::to_string(pid_);
  if (error == ENOENT) throw std::runtime_error("there is no " + text);
  if (const std::string name = Name(); !name.empty()) text += " (" + name + ")";
  if (error == ESRCH) throw std::runtime_error(text + " has ended, or has no memory of its own");
  if (error != EPERM && error != EACCES) throw std::runtime_error(text + " cannot be read: " + std::strerror(error));
  throw std::runtime_error("no permission to read " + text + ": " + ReasonForRefusal(pid_));
}

std::vector<Process> FindProcesses(std::string_view name) {
  std::vector<Process> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string directory = entry.path().filename();
    pid_t pid = 0;
    const char* const end = directory.data() + directory.size();
    if (std::from_chars(directory.data(), end, pid).ptr != end || pid == getpid()) continue;
    if (HasName(Process(pid), name)) found.emplace_back(pid);
  }
  return found;
}
