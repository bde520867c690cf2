// oxEvent for C++17 and later: a file with the raised conditions of a host. After a restart, the host reports a raise
// for each condition that still holds; what it has not raised when the grace time is over is cleared, with the
// severity, type and source of the raise, without which an Alertmanager would not resolve the alert. The setting
// state\route_orphan_clear must be on: otherwise the library suppresses these clears, and Poll returns an error.
//
// It has no thread of its own, so that it needs no care at exit and fork: the host calls Poll about once a second.
// A callback writes the whole file at each change of a condition, so it is made for hundreds of conditions, not for
// thousands.
//
// The file survives the death of the process at any moment, because it is replaced by a rename. It is not synced: after
// a power failure it may be old or damaged. It has one line for each condition:
//   raised|cleared TAB severity TAB event_type TAB source_id TAB source_name TAB key, escaped like "\t", "\n", "\\"
// between the line "oxEvent conditions 1" and a line with the Adler-32 checksum of all lines before it.
#ifndef OXEVENT_ACTIVE_FILE_HPP
#define OXEVENT_ACTIVE_FILE_HPP

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include "../oxEvent.h"

namespace oxEvent {

// Threads: any may call any function. Create it before an AlertPoster and before oxEventInitialize, so that the file
// knows each alert that is posted; destroy it after oxEventShutdown. Each run of oxEvent needs a new object. One
// process at a time may use a file.
class ActiveFile {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::chrono::milliseconds grace{60000};  // Time in which the host reports the conditions that still hold.
    // A clear may be lost if the process dies before it is delivered. So a cleared condition stays in the file for this
    // long, and is cleared again after a restart. Not shorter than the resolve_timeout of an Alertmanager.
    std::chrono::milliseconds keep_cleared{300000};
  };

  // Reads the file, which need not exist, and registers the callback. A file that is damaged or not of this format is
  // renamed (see RenamedTo), and the object works with a new file: std::errc::bad_message. With every other error, the
  // object does nothing.
  ActiveFile(std::string path, const Options& options, std::error_code& error)
      : path_(std::move(path)), options_(options) {
    error = Read(Clock::now());
    if (error && error != std::errc::bad_message) return;
    if (oxEventRegisterCallback(OnEvent, this, &callback_id_) != OXEVENT_OK) {
      error = std::make_error_code(std::errc::not_enough_memory);
    }
  }
  ~ActiveFile() {
    if (callback_id_ != 0) oxEventUnregisterCallback(callback_id_);
  }
  ActiveFile(const ActiveFile&) = delete;
  ActiveFile& operator=(const ActiveFile&) = delete;

  // Clears what the host has not raised within the grace time, and tries again what has failed. If there is something
  // to clear, first waits up to a second until all events that were submitted before are delivered, so that it knows of
  // every raise, and afterwards up to a second for the clears; therefore call it on the thread that reports the
  // conditions, and not inside a callback. Returns why the file could not be written or a condition could not be
  // cleared; Poll then tries again at the next call. std::errc::operation_not_permitted: the library has suppressed a
  // clear, because state\route_orphan_clear is off, or has dropped it; Poll then tries again after ten seconds.
  std::error_code Poll(Clock::time_point now = Clock::now()) {
    std::error_code clear_error;
    if (HasDue(now)) {
      if (oxEventFlush(kFlushMs) != OXEVENT_OK) return std::make_error_code(std::errc::timed_out);
      const Labels due = Due(now);
      if (!ClearAll(due, now)) return std::make_error_code(std::errc::operation_canceled);
      const bool flushed = oxEventFlush(kFlushMs) == OXEVENT_OK;
      const std::errc reason = flushed ? std::errc::operation_not_permitted : std::errc::timed_out;
      if (AnyInherited(due)) clear_error = std::make_error_code(reason);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    ForgetCleared(now);
    if (changed_) Write();
    return write_error_ ? write_error_ : clear_error;
  }

  // Number of conditions of a previous process that the host has not raised again and that are not cleared yet.
  std::size_t Unconfirmed() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::size_t count = 0;
    for (const auto& entry : entries_) count += entry.second.state == State::kInherited ? 1 : 0;
    return count;
  }

  // New name of a damaged or foreign file; empty if the file was good.
  const std::string& RenamedTo() const { return renamed_to_; }

 private:
  static constexpr std::uint32_t kFlushMs = 1000;
  static constexpr const char* kHeader = "oxEvent conditions 1\n";
  static constexpr std::size_t kFields = 6;

  enum class State {
    kRaised,     // In this process.
    kInherited,  // From a previous process: to be cleared at `due`.
    kCleared     // In this process: to be forgotten at `due`.
  };
  // The members but the key identify the alert of an Alertmanager.
  struct Id {
    std::string key;
    std::uint32_t severity;
    std::string event_type;
    std::string source_id;

    bool operator<(const Id& other) const {
      return std::tie(key, severity, event_type, source_id) <
             std::tie(other.key, other.severity, other.event_type, other.source_id);
    }
  };
  using Labels = std::map<Id, std::string>;  // With the source_name.
  struct Entry {
    State state = State::kRaised;
    bool cleared_before = false;  // By a previous process, perhaps in vain.
    std::string source_name{};
    Clock::time_point due = {};
  };
  // Functions, because constants would be unique symbols, and such symbols keep dlclose from unloading a plugin.
  static std::chrono::seconds Retry() { return std::chrono::seconds(10); }
  // Marks the key of a clear that must not clear the condition itself, which is raised with another severity.
  static std::string Former() { return "former alert of "; }

  static void OnEvent(const oxEventRecord* event, void* self) { static_cast<ActiveFile*>(self)->Add(*event); }

  static std::string KeyOf(const oxEventRecord& event) {
    if (event.dedupe_key[0] != '\0') return event.dedupe_key;
    return std::string(event.source_id) + ':' + event.event_type;
  }

  static bool IsAction(const oxEventRecord& event, const char* action) {
    return ::strcasecmp(event.action, action) == 0;
  }

  void Add(const oxEventRecord& event) {
    const bool clears = IsAction(event, "clear");
    if (!clears && !IsAction(event, "raise") && !IsAction(event, "update") && !IsAction(event, "repeat")) return;
    std::string key = KeyOf(event);
    const bool former = clears && key.compare(0, Former().size(), Former()) == 0;
    if (former) key.erase(0, Former().size());
    const Id id{key, event.severity, event.event_type, event.source_id};
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!former) EndOthers(id);
    const auto entry = entries_.find(id);
    if (!clears) {
      Raise(id, event.source_name);
    } else if (entry != entries_.end()) {
      SetCleared(&entry->second);
    }
    if (changed_) Write();
  }

  void Raise(const Id& id, const char* source_name) {
    auto entry = entries_.find(id);
    const bool added = entry == entries_.end();
    if (added) entry = entries_.emplace(id, Entry()).first;
    if (!added && entry->second.state == State::kRaised && entry->second.source_name == source_name) return;
    entry->second.state = State::kRaised;
    entry->second.cleared_before = false;
    entry->second.source_name = source_name;
    changed_ = true;
  }

  // Ends the alerts of the event's condition that have other labels: the poster resolves what this process has raised,
  // Poll clears what a previous process has raised.
  void EndOthers(const Id& id) {
    const auto own = entries_.find(id);
    for (auto entry = entries_.lower_bound({id.key, 0, "", ""}); entry != entries_.end(); ++entry) {
      if (entry->first.key != id.key) break;
      if (entry == own) continue;
      if (entry->second.state == State::kRaised) SetCleared(&entry->second);
      if (entry->second.state != State::kInherited) continue;
      entry->second.cleared_before = true;
      entry->second.due = Clock::time_point::min();
      changed_ = true;
    }
  }

  void SetCleared(Entry* entry) {
    entry->state = State::kCleared;
    entry->due = Clock::now() + options_.keep_cleared;
    changed_ = true;
  }

  bool HasDue(Clock::time_point now) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : entries_) {
      if (entry.second.state == State::kInherited && entry.second.due <= now) return true;
    }
    return false;
  }

  Labels Due(Clock::time_point now) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    Labels due;
    for (const auto& entry : entries_) {
      if (entry.second.state != State::kInherited || entry.second.due > now) continue;
      due.emplace(entry.first, entry.second.source_name);
    }
    return due;
  }

  bool AnyInherited(const Labels& labels) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& one : labels) {
      const auto entry = entries_.find(one.first);
      if (entry != entries_.end() && entry->second.state == State::kInherited) return true;
    }
    return false;
  }

  // Submits without the lock: the callback takes it.
  bool ClearAll(const Labels& due, Clock::time_point now) {
    bool good = true;
    for (const auto& one : due) {
      const bool submitted = Clear(one.first, one.second);
      if (submitted) Postpone(one.first, now + Retry());
      good = good && submitted;
    }
    return good;
  }

  // The clear has been submitted, but may be dropped before it reaches the callback.
  void Postpone(const Id& id, Clock::time_point due) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = entries_.find(id);
    if (entry != entries_.end() && entry->second.state == State::kInherited) entry->second.due = due;
  }

  bool Clear(const Id& id, const std::string& source_name) {
    std::string key = id.key;
    if (IsRaised(key)) key.insert(0, Former());
    oxEventRecord record = {};
    record.struct_size = sizeof(record);
    record.version = OXEVENT_API_VERSION;
    record.message = "Cleared: not confirmed after a restart";
    record.action = "clear";
    record.dedupe_key = key.c_str();
    record.severity = id.severity;
    record.event_type = id.event_type.c_str();
    record.source_id = id.source_id.c_str();
    record.source_name = source_name.c_str();
    return oxEventSubmit(&record) == OXEVENT_OK;
  }

  bool IsRaised(const std::string& key) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto entry = entries_.lower_bound({key, 0, "", ""}); entry != entries_.end(); ++entry) {
      if (entry->first.key != key) return false;
      if (entry->second.state == State::kRaised) return true;
    }
    return false;
  }

  void ForgetCleared(Clock::time_point now) {
    for (auto entry = entries_.begin(); entry != entries_.end();) {
      const bool over = entry->second.state == State::kCleared && entry->second.due <= now;
      changed_ = changed_ || over;
      entry = over ? entries_.erase(entry) : std::next(entry);
    }
  }

  // The file.

  static void AppendEscaped(std::string_view text, std::string* out) {
    for (const char c : text) {
      if (c == '\t' || c == '\n' || c == '\\') out->push_back('\\');
      out->push_back(c == '\t' ? 't' : c == '\n' ? 'n' : c);
    }
  }

  // Removes a field from the line; false if it is the last one or has a wrong escape.
  static bool TakeField(std::string_view* line, std::string* field) {
    const std::size_t end = line->find('\t');
    const std::string_view text = line->substr(0, end);
    for (std::size_t i = 0; i < text.size(); ++i) {
      char c = text[i];
      if (c == '\\') {
        if (++i == text.size()) return false;
        c = text[i] == 't' ? '\t' : text[i] == 'n' ? '\n' : text[i];
      }
      field->push_back(c);
    }
    line->remove_prefix(end == line->npos ? line->size() : end + 1);
    return true;
  }

  // Adler-32 (RFC 1950, section 9) in decimal.
  static std::string Checksum(std::string_view text) {
    constexpr std::uint32_t kModulus = 65521;
    std::uint32_t a = 1;
    std::uint32_t b = 0;
    for (const char c : text) {
      a = (a + static_cast<unsigned char>(c)) % kModulus;
      b = (b + a) % kModulus;
    }
    std::array<char, 12> digits = {};
    std::snprintf(digits.data(), digits.size(), "%u", static_cast<unsigned>(b << 16U | a));
    return digits.data();
  }

  std::string Format() const {
    std::string text = kHeader;
    for (const auto& entry : entries_) {
      const auto& [key, severity, event_type, source_id] = entry.first;
      text += entry.second.state == State::kCleared || entry.second.cleared_before ? "cleared\t" : "raised\t";
      text += static_cast<char>('0' + severity);
      for (const std::string_view field : {std::string_view(event_type), std::string_view(source_id),
                                           std::string_view(entry.second.source_name), std::string_view(key)}) {
        text += '\t';
        AppendEscaped(field, &text);
      }
      text += '\n';
    }
    return text + Checksum(text) + '\n';
  }

  void Write() {
    const std::string text = Format();
    const std::string name = path_ + ".new";
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    std::size_t written = 0;
    bool good = fd >= 0;
    while (good && written < text.size()) {
      const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
      if (count < 0 && errno == EINTR) continue;
      good = count > 0;
      if (good) written += static_cast<std::size_t>(count);
    }
    good = good && ::rename(name.c_str(), path_.c_str()) == 0;
    write_error_ = good ? std::error_code() : std::error_code(errno, std::generic_category());
    changed_ = !good;
    if (fd >= 0) ::close(fd);
  }

  std::error_code Read(Clock::time_point now) {
    std::string text;
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno == ENOENT ? std::error_code() : std::error_code(errno, std::generic_category());
    std::array<char, 4096> buffer = {};
    ssize_t count = 0;
    while ((count = ::read(fd, buffer.data(), buffer.size())) > 0)
      text.append(buffer.data(), static_cast<std::size_t>(count));
    const int failure = errno;
    ::close(fd);
    if (count < 0) return std::error_code(failure, std::generic_category());
    if (Parse(text, now)) return {};
    entries_.clear();
    return RenameDamaged();
  }

  bool Parse(std::string_view text, Clock::time_point now) {
    const std::string_view header = kHeader;
    if (text.size() < header.size() + 2 || text.substr(0, header.size()) != header || text.back() != '\n') return false;
    const std::size_t end = text.rfind('\n', text.size() - 2) + 1;
    if (text.substr(end) != Checksum(text.substr(0, end)) + '\n') return false;
    for (text = text.substr(header.size(), end - header.size()); !text.empty();) {
      const std::size_t line = text.find('\n');
      if (!ParseLine(text.substr(0, line), now)) return false;
      text.remove_prefix(line + 1);
    }
    return true;
  }

  bool ParseLine(std::string_view line, Clock::time_point now) {
    std::array<std::string, kFields> fields;
    for (std::string& field : fields) {
      if (!TakeField(&line, &field)) return false;
    }
    auto& [state, severity, event_type, source_id, source_name, key] = fields;
    const bool cleared = state == "cleared";
    if (!line.empty() || (!cleared && state != "raised") || severity.size() != 1) return false;
    if (severity[0] < '0' || severity[0] > '3') return false;
    Entry entry;
    entry.state = State::kInherited;
    entry.cleared_before = cleared;
    entry.source_name = source_name;
    entry.due = cleared ? now : now + options_.grace;
    return entries_.emplace(Id{key, static_cast<std::uint32_t>(severity[0] - '0'), event_type, source_id}, entry)
        .second;
  }

  // Never over another file.
  std::error_code RenameDamaged() {
    int linked = -1;
    for (int number = 1; linked != 0; ++number) {
      std::array<char, 24> suffix = {};
      std::snprintf(suffix.data(), suffix.size(), ".damaged-%d", number);
      renamed_to_ = path_ + suffix.data();
      linked = ::link(path_.c_str(), renamed_to_.c_str());
      if (linked != 0 && errno != EEXIST) return std::error_code(errno, std::generic_category());
    }
    if (::unlink(path_.c_str()) != 0) return std::error_code(errno, std::generic_category());
    return std::make_error_code(std::errc::bad_message);
  }

  const std::string path_;
  const Options options_;
  std::uint32_t callback_id_ = 0;
  std::string renamed_to_{};
  mutable std::mutex mutex_{};  // Guards all below.
  std::map<Id, Entry> entries_{};
  bool changed_ = false;  // Since the last successful write.
  std::error_code write_error_{};
};

}  // namespace oxEvent

#endif
