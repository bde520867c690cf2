// Helpers with which a test acts as a host. A test that loads the library with dlopen can use them too.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <vector>

#include "../include/oxEvent.h"

struct HostFolder {  // A new temporary directory, removed with everything in it.
  ~HostFolder() { std::filesystem::remove_all(path); }
  const std::string path = mkdtemp(std::string("/tmp/oxevent_test_XXXXXX").data());
};

inline size_t Entries(const std::string& directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

// Returns when the condition is true.
inline void WaitUntil(const auto& condition) {
  while (!condition()) usleep(500);
}

// Runs the function in a child process and returns its result, or -1 if a signal ends the child. An alarm ends the
// child after a minute, unless the function sets another one.
inline int InChild(const std::function<int()>& function) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    _exit(function());
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Returns a socket bound to a free port of the loopback address. Sets *port to 0 if there is no such port.
inline int LoopbackSocket(sa_family_t family, int type, uint16_t* port) {
  // For IPv4, its first bytes are a sockaddr_in, which has its address where a sockaddr_in6 has its flow label.
  sockaddr_in6 loopback = {family, 0, family == AF_INET ? htonl(INADDR_LOOPBACK) : 0, in6addr_loopback, 0};
  socklen_t size = sizeof(loopback);
  const auto address = reinterpret_cast<sockaddr*>(&loopback);
  const int fd = socket(family, type | SOCK_CLOEXEC, 0);
  const bool bound = bind(fd, address, size) == 0 && getsockname(fd, address, &size) == 0;
  *port = bound ? ntohs(loopback.sin6_port) : 0;
  return fd;
}

// Returns the keys and values at these paths as XML: "core\queue_size" is the value "queue_size" of the key "core".
inline std::string SettingsXml(const std::map<std::string, std::string>& settings) {
  std::string xml;
  std::map<std::string, std::map<std::string, std::string>> keys;
  for (const auto& [path, value] : settings) {
    const size_t end = path.find('\\');
    if (end != path.npos) keys[path.substr(0, end)][path.substr(end + 1)] = value;
    if (end == path.npos) xml += "<value name=\"" + path + "\">" + value + "</value>\n";
  }
  for (const auto& [name, content] : keys) xml += "<key name=\"" + name + "\">" + SettingsXml(content) + "</key>\n";
  return xml;
}

// Writes a settings file with the system log off, the CSV sink on with the path `csv` (empty: off), and `more`, whose
// names are paths below QVX\Events. A setting in `more` takes precedence.
inline void WriteSettings(const std::string& file, const std::string& csv,
                          std::map<std::string, std::string> more = {}) {
  more.insert({{"sink\\csv\\default\\enabled", csv.empty() ? "0" : "1"}, {"sink\\csv\\default\\path", csv}});
  more.insert({"sink\\native\\main\\enabled", "0"});
  std::ofstream(file) << "<config><key name=\"QVX\"><key name=\"Events\">" << SettingsXml(more)
                      << "</key></key></config>\n";
}

// Returns the result code of an entry point, in hexadecimal, and the last error text.
inline std::string LastResult(uint32_t code) {  // Only for tests that link the library.
  char text[512] = "unread";
  oxEventGetLastError(text, sizeof(text));
  return (std::stringstream() << std::hex << code << ' ' << text).str();
}

inline oxEventRecord MakeRecord(const char* message) {
  oxEventRecord record = {};
  record.struct_size = sizeof(record);
  record.version = OXEVENT_API_VERSION;
  record.message = message;
  return record;
}

inline std::string ReadFile(const std::string& file) {
  return (std::stringstream() << std::ifstream(file).rdbuf()).str();
}

// Returns the column "message" of a CSV file that contains no quotes, its title first; "no row" for an incomplete row.
inline std::vector<std::string> ReadMessages(const std::string& file) {
  std::vector<std::string> messages;
  std::istringstream rows(ReadFile(file));
  for (std::string row; std::getline(rows, row);) {
    const bool whole = std::count(row.begin(), row.end(), ',') == 19 && !rows.eof();
    for (int i = 0; i < 11; ++i) row.erase(0, row.find(',') + 1);
    messages.push_back(whole ? row.substr(0, row.find(',')) : "no row");
  }
  return messages;
}
