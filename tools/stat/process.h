// Another process, whose memory is read without stopping it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class Process {
 public:
  explicit Process(pid_t pid) : pid_(pid) {}

  pid_t Pid() const { return pid_; }
  // Returns the name of the process's main thread, at most 15 bytes. Empty if the process has ended.
  std::string Name() const;

  // Returns the addresses at which the beginnings of files are mapped. Throws std::runtime_error, as Read does.
  std::vector<uint64_t> MappedFiles() const;

  // Copies `size` bytes at the address. Returns false if not all of them are mapped. Throws std::runtime_error if the
  // process has ended or the permission to read it is missing.
  bool Read(uint64_t address, void* to, size_t size) const;

 private:
  [[noreturn]] void ThrowError(int error) const;

  pid_t pid_;
};

// Returns the processes whose main thread or program has this name, except the calling process.
std::vector<Process> FindProcesses(std::string_view name);
