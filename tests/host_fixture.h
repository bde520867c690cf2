// What a test needs to stand in for a host: a folder, a settings file, a recorder of events, a reader of CSV files.
// Calls no entry point, so that a test that loads the library by hand can use it too.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

#include "oxEvent.h"

constexpr std::chrono::seconds kPatience{60};  // For what must happen anyway, however busy the machine.

struct HostFolder {  // A fresh one, removed with everything in it.
  ~HostFolder() { std::filesystem::remove_all(path); }
  const std::string path = mkdtemp(std::string("/tmp/oxevent_test_XXXXXX").data());
};

// Writes a settings file: the native log off, the CSV sink on at `csv` (empty: off), and `more`, whose names are paths
// below QVX\Events, as "core\queue_size".
inline void WriteSettings(const std::string& file, const std::string& csv,
                          std::map<std::string, std::string> more = {}) {
  more.insert({{"sink\\csv\\default\\enabled", csv.empty() ? "0" : "1"}, {"sink\\csv\\default\\path", csv}});
  more.insert({"sink\\native\\main\\enabled", "0"});
  std::string xml = "<config><key name=\"QVX\"><key name=\"Events\">", open;  // `open`: keys, a backslash behind each.
  for (const auto& [path, value] : more) {
    for (; !path.starts_with(open); xml += "</key>") open.erase(open.rfind('\\', open.size() - 2) + 1);
    for (size_t end; (end = path.find('\\', open.size())) != path.npos; open = path.substr(0, end + 1)) {
      xml += "<key name=\"" + path.substr(open.size(), end - open.size()) + "\">";
    }
    xml += "<value name=\"" + path.substr(open.size()) + "\">" + value + "</value>\n";
  }
  for (const char c : open) xml += c == '\\' ? "</key>" : "";
  std::ofstream(file) << xml << "</key></key></config>\n";
}

struct Recorder {  // Of the messages, in order: oxEventRegisterCallback(Recorder::Note, &recorder, &id).
  static void Note(const oxEventRecord* event, void* self) {
    auto& [on_event, mutex, changed, messages] = *static_cast<Recorder*>(self);
    if (on_event) on_event(*event);
    const std::lock_guard lock(mutex);
    messages.emplace_back(event->message);
    changed.notify_all();
  }
  std::vector<std::string> Messages(size_t count) {  // Waits for so many.
    std::unique_lock lock(mutex);
    changed.wait_for(lock, kPatience, [&] { return messages.size() >= count; });
    return messages;
  }
  std::function<void(const oxEventRecord&)> on_event;  // Runs on the worker, before the message is noted.
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> messages;
};

inline std::string ReadFile(std::string file) { return (std::stringstream() << std::ifstream(file).rdbuf()).str(); }

// The rows of an RFC 4180 file with LF line ends. One that ends inside a row throws.
inline std::vector<std::vector<std::string>> ReadCsv(const std::string& file) {
  std::vector<std::vector<std::string>> rows(1, {""});
  bool quoted = false;
  char before = 0;
  for (const char c : ReadFile(file)) {
    const bool text = c == '"' ? before == '"' && !quoted : quoted || (c != ',' && c != '\n');
    if (text) rows.back().back() += c;
    if (!text && c == ',') rows.back().emplace_back();
    if (!text && c == '\n') rows.push_back({""});
    quoted = quoted != (c == '"');
    before = c;
  }
  if (quoted || rows.back() != std::vector<std::string>{""}) throw std::runtime_error("torn row in " + file);
  rows.pop_back();
  return rows;
}
