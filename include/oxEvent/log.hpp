// What the adapters for logging libraries have in common; include spdlog.hpp, boost_log.hpp or glog.hpp. For C++17 and
// later. Each adapter has a sink, which reports log records as events, and a callable for oxEvent::Callback, which logs
// events. Both can be used with the same logger: the sink ignores what the callable has logged, and the callable
// ignores events that a sink has reported.
//
// A log record becomes a notice, an event without an action. It becomes the report of a condition only within the scope
// of a LogAs object, never because of its text.
#ifndef OXEVENT_LOG_HPP
#define OXEVENT_LOG_HPP

#include "../oxEvent.hpp"

namespace oxEvent {

// While the object exists, each log record of its thread is a report of the condition: it gets the identity of the
// condition, with its severity, and the action. Actions other than raise and clear count as updates. The object that
// was created last counts. It must be in the same program or shared library as the sink, and the logger must be
// synchronous: if the sink runs on another thread, the record remains a notice.
class LogAs {
 public:
  LogAs(Condition& condition, Action action) noexcept : condition_(condition), action_(action) { Current() = this; }
  LogAs(const LogAs&) = delete;
  LogAs& operator=(const LogAs&) = delete;
  ~LogAs() { Current() = outer_; }

 private:
  friend class LogReporter;

  // Hidden, so that dlclose unloads the plugin that contains the variable.
  __attribute__((visibility("hidden"))) static LogAs*& Current() noexcept {
    static thread_local LogAs* current = nullptr;
    return current;
  }

  std::error_code Report(const Event& event) const noexcept {
    if (action_ == Action::kRaise) return condition_.Raise(event);
    return action_ == Action::kClear ? condition_.Clear(event) : condition_.Update(event);
  }

  Condition& condition_;
  const Action action_;
  LogAs* const outer_ = Current();
};

// Base class of the sinks. Any thread may log.
class LogReporter {
 public:
  // Number of log records that the library has refused: it was not running, or the text was empty. They are lost.
  std::uint64_t refused() const noexcept { return refused_; }

 protected:
  // `fields`: fields of every notice. The record determines message, severity, utc_ns and details_json.
  explicit LogReporter(const Event& fields) noexcept : fields_(fields) {}
  ~LogReporter() = default;

  // `file` may be null. `utc_ns` 0: now.
  void Report(Severity severity, std::string_view message, std::string_view logger, const char* file, int line,
              std::uint64_t utc_ns) noexcept {
    Event event = fields_;
    event.message(message).severity(severity).utc_ns(utc_ns);
    char details[512];
    detail::JsonWriter measure(nullptr);
    WriteDetails(logger, file, line, &measure);
    detail::JsonWriter writer(details);
    if (measure.Size() <= sizeof(details)) WriteDetails(logger, file, line, &writer);
    event.details_json(writer.Size() == 0 ? "{\"log\":{}}" : std::string_view(details, writer.Size()));
    const LogAs* const report = LogAs::Current();
    if (report == nullptr ? event.Submit() : report->Report(event)) ++refused_;
  }

 private:
  static void WriteDetails(std::string_view logger, const char* file, int line, detail::JsonWriter* json) noexcept {
    json->AppendRaw("{\"log\":{\"logger\":");
    json->AppendString(logger);
    if (file != nullptr) {
      json->AppendRaw(",\"file\":");
      json->AppendString(file);
      json->AppendRaw(",\"line\":");
      json->AppendNumber(line < 0 ? 0 : static_cast<std::uint64_t>(line));
    }
    json->AppendRaw("}}");
  }

  const Event fields_;
  std::atomic<std::uint64_t> refused_ = {0};
};

namespace detail {

// The file name of what the callables log, by which the sinks recognize it.
constexpr const char* kLogFile = "oxEvent";

inline bool IsOwnLog(const char* file) noexcept { return file != nullptr && std::strcmp(file, kLogFile) == 0; }
inline bool IsFromLog(const oxEventRecord& event) noexcept {
  return std::string_view(event.details_json).substr(0, 7) == "{\"log\":";
}

// "pressure.low press-4 raise: Pressure low"
inline std::string LogText(const oxEventRecord& event) {
  std::string text = event.event_type;
  for (const char* const word : {event.source_id, event.action}) {
    if (*word != '\0') text.append(" ").append(word);
  }
  return text.append(": ").append(event.message);
}

}  // namespace detail
}  // namespace oxEvent

#endif
