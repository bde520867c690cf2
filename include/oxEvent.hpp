// oxEvent for C++17 and later: a header-only layer on top of oxEvent.h. All of it is compiled into the host, so that
// the only binary interface between host and library is that of oxEvent.h. It can be compiled without exceptions and
// without run-time type information.
//
// Threads: different objects can be used by different threads at the same time, one object only by one thread at a
// time. Errors: functions that can fail return std::error_code. Session and Callback have two constructors that can
// fail: one sets a std::error_code; the other throws std::system_error, and exists only if exceptions are enabled.
// ErrorText returns the reason for a failure.
#ifndef OXEVENT_HPP
#define OXEVENT_HPP

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "oxEvent.h"

namespace oxEvent {

enum class Severity : std::uint32_t {
  kDebug = OXEVENT_SEVERITY_DEBUG,
  kInfo = OXEVENT_SEVERITY_INFO,
  kWarning = OXEVENT_SEVERITY_WARNING,
  kError = OXEVENT_SEVERITY_ERROR
};

enum class Action { kNone, kRaise, kUpdate, kRepeat, kClear };

// The library's result codes as error conditions, to be compared with errors: error == Errc::kNotInitialized.
enum class Errc : std::uint32_t {
  kNotInitialized = OXEVENT_NOT_INITIALIZED,
  kAlreadyInitialized = OXEVENT_ALREADY_INITIALIZED,
  kInvalidArgument = OXEVENT_INVALID_ARGUMENT,
  kNotFound = OXEVENT_NOT_FOUND,
  kFailure = OXEVENT_FAILURE
};

namespace detail {

// Hides a function or class with a static variable: GCC would otherwise give the variable a unique symbol, which keeps
// dlclose from unloading the plugin that contains it.
#define OXEVENT_HPP_HIDDEN __attribute__((visibility("hidden")))

class Category final : public std::error_category {
 public:
  const char* name() const noexcept override { return "oxEvent"; }

  std::string message(int value) const override {
    switch (static_cast<Errc>(value)) {
      case Errc::kNotInitialized:
        return "not initialized, shutting down, or the process is exiting";
      case Errc::kAlreadyInitialized:
        return "already initialized, or a shutdown is still in progress";
      case Errc::kInvalidArgument:
        return "an argument, a record or a settings file is invalid";
      case Errc::kNotFound:
        return "unknown callback id, or the function is not available on this platform";
      case Errc::kFailure:
        return "a timeout, a failed sink, out of memory, or no thread could be started";
    }
    return "unknown result code";
  }

  // Compares the names of the categories, because each shared library of the host has a category of its own.
  bool equivalent(const std::error_code& code, int condition) const noexcept override {
    return code.value() == condition && std::strcmp(code.category().name(), name()) == 0;
  }
};

OXEVENT_HPP_HIDDEN inline const std::error_category& GetCategory() noexcept {
  static const Category category;
  return category;
}

}  // namespace detail

inline std::error_condition make_error_condition(Errc error) noexcept {
  return {static_cast<int>(error), detail::GetCategory()};
}

// Converts the result code of a function of oxEvent.h. OXEVENT_OK is no error.
inline std::error_code ToErrorCode(std::uint32_t result) noexcept {
  if (result == OXEVENT_OK) return {};
  return {static_cast<int>(result), detail::GetCategory()};
}

// Returns, for an error of the library, the calling thread's last error text; if that is empty, and for any other
// error, the error's message. Call it on the thread that got the error, before that thread calls another function of
// the library.
inline std::string ErrorText(const std::error_code& error) {
  std::string text(512, '\0');
  while (error.category().name() == std::string_view("oxEvent")) {
    oxEventGetLastError(&text[0], static_cast<std::uint32_t>(text.size()));
    const std::size_t length = std::strlen(text.c_str());
    if (length == 0) break;
    if (length + 1 < text.size()) return text.substr(0, length);
    text.resize(2 * text.size());
  }
  return error.message();
}

namespace detail {

#if defined(__cpp_exceptions)
inline void ThrowIf(const std::error_code& error) {
  if (error) throw std::system_error(error, ErrorText(error));
}
#endif

enum Text : std::size_t {
  kEventType,
  kSourceId,
  kSourceName,
  kMessage,
  kAction,
  kDedupeKey,
  kCorrelationId,
  kTimecode,
  kUnits,
  kDetailsJson,
  kTextCount
};

// Copies of the texts of a record, each with its NUL, one after the other: in the object while they fit, else in
// allocated memory, which can grow and is freed when the object is destroyed.
class Texts {
 public:
  Texts() noexcept = default;
  Texts(const Texts& other) noexcept { *this = other; }
  ~Texts() = default;

  Texts& operator=(const Texts& other) noexcept {
    if (this == &other) return *this;
    used_ = 1;
    begins_ = {};
    complete_ = other.complete_;
    if (!Reserve(other.used_ - 1)) return *this;
    std::memcpy(Bytes(), other.Bytes(), other.used_);
    used_ = other.used_;
    begins_ = other.begins_;
    return *this;
  }

  // False if there was no memory for a text, even if that text has been replaced since.
  bool IsComplete() const noexcept { return complete_; }

  // Null if the text is not set.
  const char* Get(Text which) const noexcept { return begins_[which] == 0 ? nullptr : Bytes() + begins_[which]; }

  // The text ends at its first NUL. It must not be stored in this object.
  void Set(Text which, std::string_view text) noexcept {
    text = text.substr(0, text.find('\0'));
    char* const bytes = Append(which, text.size());
    if (bytes != nullptr && !text.empty()) std::memcpy(bytes, text.data(), text.size());
  }

  void Set(Text which, const Texts& from) noexcept {
    const char* const text = from.Get(which);
    if (text == nullptr) {
      Erase(which);
    } else {
      Set(which, text);
    }
  }

  // Makes room for a text of this size, which the caller writes; null if there is no memory.
  char* Append(Text which, std::size_t size) noexcept {
    Erase(which);
    if (!Reserve(size + 1)) return nullptr;
    char* const bytes = Bytes() + used_;
    bytes[size] = '\0';
    begins_[which] = used_;
    used_ += size + 1;
    return bytes;
  }

 private:
  static constexpr std::size_t kInlineBytes = 512;

  const char* Bytes() const noexcept { return heap_ == nullptr ? inline_ : heap_.get(); }
  char* Bytes() noexcept { return heap_ == nullptr ? inline_ : heap_.get(); }

  bool Reserve(std::size_t size) noexcept {
    if (size <= capacity_ - used_) return true;
    const std::size_t capacity = std::max(2 * capacity_, used_ + size);
    std::unique_ptr<char[]> heap(new (std::nothrow) char[capacity]);
    if (heap == nullptr) return complete_ = false;
    std::memcpy(heap.get(), Bytes(), used_);
    heap_ = std::move(heap);
    capacity_ = capacity;
    return true;
  }

  void Erase(Text which) noexcept {
    const std::size_t begin = std::exchange(begins_[which], 0);
    if (begin == 0) return;
    const std::size_t size = std::strlen(Bytes() + begin) + 1;
    std::memmove(Bytes() + begin, Bytes() + begin + size, used_ - begin - size);
    used_ -= size;
    for (std::size_t& other : begins_) other -= other > begin ? size : 0;
  }

  bool complete_ = true;
  std::size_t capacity_ = kInlineBytes;
  std::size_t used_ = 1;                             // Nothing begins at 0.
  std::array<std::size_t, kTextCount> begins_ = {};  // 0: not set.
  std::unique_ptr<char[]> heap_ = nullptr;
  char inline_[kInlineBytes] = {};
};

// Writes JSON (RFC 8259), or measures it if `out` is null.
class JsonWriter {
 public:
  explicit JsonWriter(char* out) noexcept : out_(out) {}

  std::size_t Size() const noexcept { return size_; }

  void AppendRaw(std::string_view text) noexcept {
    for (const char c : text) AppendByte(c);
  }

  void AppendString(std::string_view text) noexcept {
    AppendByte('"');
    for (const char c : text) AppendCharacter(c);
    AppendByte('"');
  }

  // Without std::to_chars, whose tables are variables with unique symbols (see OXEVENT_HPP_HIDDEN).
  void AppendNumber(std::uint64_t number) noexcept {
    char digits[20];
    char* begin = std::end(digits);
    do {
      *--begin = static_cast<char>('0' + number % 10);
      number /= 10;
    } while (number != 0);
    AppendRaw({begin, static_cast<std::size_t>(std::end(digits) - begin)});
  }

 private:
  void AppendByte(char c) noexcept {
    if (out_ != nullptr) out_[size_] = c;
    ++size_;
  }

  void AppendCharacter(char c) noexcept {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20) {
      AppendRaw("\\u00");
      AppendByte(kDigits[byte >> 4U]);
      AppendByte(kDigits[byte & 0xFU]);
      return;
    }
    if (c == '"' || c == '\\') AppendByte('\\');
    AppendByte(c);
  }

  char* const out_;
  std::size_t size_ = 0;
};

}  // namespace detail

// One event. The setters have the names of the fields of oxEventRecord, whose comments say what they mean; a field that
// is not set has the default given there, except that the default severity is info. The event copies every text, so
// that no argument needs to outlive the call: into the object itself if all texts with their NULs take at most 511
// bytes, else into allocated memory. A text ends at its first NUL. Setters return a reference to the event: do not bind
// the result of a chain that begins with a temporary to a reference.
class Event {
 public:
  Event() noexcept {
    record_.struct_size = sizeof(record_);
    record_.version = OXEVENT_API_VERSION;
    severity(Severity::kInfo);
  }
  explicit Event(std::string_view text) noexcept : Event() { message(text); }

  Event& message(std::string_view text) noexcept { return SetText(detail::kMessage, text); }
  Event& severity(Severity severity) noexcept {
    return SetNumber(record_.severity, static_cast<std::uint32_t>(severity));
  }
  Event& event_type(std::string_view text) noexcept { return SetText(detail::kEventType, text); }
  Event& source_id(std::string_view text) noexcept { return SetText(detail::kSourceId, text); }
  Event& source_name(std::string_view text) noexcept { return SetText(detail::kSourceName, text); }
  Event& action(std::string_view text) noexcept { return SetText(detail::kAction, text); }
  Event& action(Action action) noexcept { return SetText(detail::kAction, NameOf(action)); }
  Event& dedupe_key(std::string_view text) noexcept { return SetText(detail::kDedupeKey, text); }
  Event& correlation_id(std::string_view text) noexcept { return SetText(detail::kCorrelationId, text); }
  Event& timecode(std::string_view text) noexcept { return SetText(detail::kTimecode, text); }
  Event& units(std::string_view text) noexcept { return SetText(detail::kUnits, text); }
  Event& details_json(std::string_view text) noexcept { return SetText(detail::kDetailsJson, text); }
  Event& event_id(std::uint64_t number) noexcept { return SetNumber(record_.event_id, number); }
  Event& utc_ns(std::uint64_t number) noexcept { return SetNumber(record_.utc_ns, number); }
  Event& ptp_ns(std::uint64_t number) noexcept { return SetNumber(record_.ptp_ns, number); }
  Event& pts(std::int64_t number) noexcept { return SetNumber(record_.pts, number); }
  Event& value(double number) noexcept { return SetNumber(record_.value, number); }
  Event& threshold(double number) noexcept { return SetNumber(record_.threshold, number); }
  Event& duration_ms(std::uint64_t number) noexcept { return SetNumber(record_.duration_ms, number); }

  // Sets details_json to the place of the call: {"file":"fan.cpp","line":12,"function":"main"}.
  Event& location(const char* file = __builtin_FILE(), std::uint64_t line = __builtin_LINE(),
                  const char* function = __builtin_FUNCTION()) noexcept {
    detail::JsonWriter measure(nullptr);
    WriteLocation(file, line, function, &measure);
    char* const bytes = texts_.Append(detail::kDetailsJson, measure.Size());
    if (bytes == nullptr) return *this;
    detail::JsonWriter writer(bytes);
    WriteLocation(file, line, function, &writer);
    return *this;
  }

  // Sets details_json to the place in a std::source_location, or in an object of another type with the same functions.
  template <class Location, class = decltype(std::declval<const Location&>().file_name())>
  Event& location(const Location& place) noexcept {
    return location(place.file_name(), place.line(), place.function_name());
  }

  // Calls the function with a record that is valid during the call, and returns its result. The function must not
  // change the event.
  template <class Function>
  auto CallWithRecord(Function&& function) const {
    oxEventRecord record = record_;
    record.event_type = texts_.Get(detail::kEventType);
    record.source_id = texts_.Get(detail::kSourceId);
    record.source_name = texts_.Get(detail::kSourceName);
    record.message = texts_.Get(detail::kMessage);
    record.action = texts_.Get(detail::kAction);
    record.dedupe_key = texts_.Get(detail::kDedupeKey);
    record.correlation_id = texts_.Get(detail::kCorrelationId);
    record.timecode = texts_.Get(detail::kTimecode);
    record.units = texts_.Get(detail::kUnits);
    record.details_json = texts_.Get(detail::kDetailsJson);
    return std::forward<Function>(function)(static_cast<const oxEventRecord&>(record));
  }

  // Reports the event, as oxEventSubmit does. std::errc::not_enough_memory: there was no memory for a text.
  std::error_code Submit() const noexcept {
    if (!texts_.IsComplete()) return std::make_error_code(std::errc::not_enough_memory);
    return ToErrorCode(CallWithRecord([](const oxEventRecord& record) { return oxEventSubmit(&record); }));
  }

 private:
  friend class Condition;

  static std::string_view NameOf(Action action) noexcept {
    switch (action) {
      case Action::kRaise:
        return "raise";
      case Action::kUpdate:
        return "update";
      case Action::kRepeat:
        return "repeat";
      case Action::kClear:
        return "clear";
      case Action::kNone:
        break;
    }
    return "";
  }

  static void WriteLocation(const char* file, std::uint64_t line, const char* function,
                            detail::JsonWriter* json) noexcept {
    json->AppendRaw("{\"file\":");
    json->AppendString(file);
    json->AppendRaw(",\"line\":");
    json->AppendNumber(line);
    json->AppendRaw(",\"function\":");
    json->AppendString(function);
    json->AppendRaw("}");
  }

  Event& SetText(detail::Text which, std::string_view text) noexcept {
    texts_.Set(which, text);
    return *this;
  }

  template <class Number>
  Event& SetNumber(Number& field, Number number) noexcept {
    field = number;
    return *this;
  }

  oxEventRecord record_ = {};  // Its pointers stay null.
  detail::Texts texts_ = {};
};

// Raises, updates and clears one condition. Every report has the severity, event_type, source_id, source_name and
// dedupe_key of the identity, because receivers match a clear with its raise by these fields. A report that leaves
// threshold (0), units or correlation_id unset gets the identity's. The identity needs a dedupe_key, or source_id and
// event_type, by which the library tells conditions apart.
//
// The destructor leaves a raised condition raised, unless ClearAtEnd was called: a host that ends, or that an exception
// stops, has not removed the cause of the alarm.
class Condition {
 public:
  explicit Condition(const Event& identity) noexcept : identity_(identity) {}
  Condition(Condition&& other) noexcept
      : identity_(std::move(other.identity_)),
        raised_(std::exchange(other.raised_, false)),
        clear_at_end_(other.clear_at_end_) {}
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;
  Condition& operator=(Condition&&) = delete;
  ~Condition() {
    if (raised_ && clear_at_end_ && std::uncaught_exceptions() <= exceptions_) Clear(identity_);
  }

  std::error_code Raise(std::string_view message) noexcept { return Raise(Event(message)); }
  std::error_code Raise(const Event& report) noexcept { return Report(report, Action::kRaise); }
  std::error_code Update(std::string_view message) noexcept { return Update(Event(message)); }
  std::error_code Update(const Event& report) noexcept { return Report(report, Action::kUpdate); }
  std::error_code Clear(std::string_view message) noexcept { return Clear(Event(message)); }
  std::error_code Clear(const Event& report) noexcept { return Report(report, Action::kClear); }

  // Makes the destructor clear the condition, with this message, if the condition is raised then. A destructor that
  // runs because of an exception does not clear it. Call this function for a condition that cannot outlive its object,
  // such as the state of a connection that the object closes.
  void ClearAtEnd(std::string_view message) noexcept {
    identity_.message(message);
    clear_at_end_ = true;
  }

  // Whether the last successful report was a raise or an update. The library may have been shut down since.
  bool IsRaised() const noexcept { return raised_; }

 private:
  std::error_code Report(const Event& report, Action action) noexcept {
    Event event = report;
    if (!identity_.texts_.IsComplete()) return std::make_error_code(std::errc::not_enough_memory);
    event.record_.severity = identity_.record_.severity;
    for (const detail::Text which : {detail::kEventType, detail::kSourceId, detail::kSourceName, detail::kDedupeKey}) {
      event.texts_.Set(which, identity_.texts_);
    }
    for (const detail::Text which : {detail::kUnits, detail::kCorrelationId}) {
      if (event.texts_.Get(which) == nullptr) event.texts_.Set(which, identity_.texts_);
    }
    if (event.record_.threshold == 0) event.record_.threshold = identity_.record_.threshold;
    const std::error_code error = event.action(action).Submit();
    if (!error) raised_ = action != Action::kClear;
    return error;
  }

  Event identity_;
  bool raised_ = false;
  bool clear_at_end_ = false;
  int exceptions_ = std::uncaught_exceptions();
};

// The library from oxEventInitialize to oxEventShutdown. One object at a time can start it.
class Session {
 public:
  // Loads the settings file and starts the library. After an error the object does nothing.
  Session(const char* settings, std::error_code& error) noexcept
      : started_(!(error = ToErrorCode(oxEventInitialize(settings)))) {}
#if defined(__cpp_exceptions)
  explicit Session(const char* settings) {
    detail::ThrowIf(ToErrorCode(oxEventInitialize(settings)));
    started_ = true;
  }
#endif
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() { Shutdown(); }

  // Delivers queued events for at most 5 s and stops the library. The destructor does so too, but cannot report that
  // events were lost. A second call does nothing.
  std::error_code Shutdown() noexcept {
    if (!std::exchange(started_, false)) return {};
    return ToErrorCode(oxEventShutdown());
  }

 private:
  bool started_ = false;
};

// Waits until all queued events are delivered, without a time limit.
inline std::error_code Flush() noexcept { return ToErrorCode(oxEventFlush(0)); }

// Waits for at most `timeout`. A timeout below 1 ms, such as the time left until a deadline that has passed, counts as
// 1 ms: to the C function, 0 means no limit.
inline std::error_code Flush(std::chrono::milliseconds timeout) noexcept {
  constexpr std::int64_t kMaximum = std::numeric_limits<std::uint32_t>::max();
  const std::int64_t count = timeout.count();
  return ToErrorCode(oxEventFlush(static_cast<std::uint32_t>(std::clamp<std::int64_t>(count, 1, kMaximum))));
}

namespace detail {

// A callable, as a list element of its registry, whose mutex guards all but the constants.
struct CallbackSlot {
  CallbackSlot() noexcept = default;
  CallbackSlot(const CallbackSlot&) = delete;
  CallbackSlot& operator=(const CallbackSlot&) = delete;
  virtual ~CallbackSlot() = default;
  virtual void Call(const oxEventRecord& event) = 0;

  const void* registry = nullptr;           // Constant once added.
  void (*remove)(CallbackSlot*) = nullptr;  // Constant once added: a function of the module that added the slot.
  std::uint32_t id = 0;                     // Constant once added.
  std::uintptr_t number = 0;
  CallbackSlot* next = nullptr;
  bool running = false;
  bool abandoned = false;       // Removed by its own call: deleted when that call returns.
  std::thread::id thread = {};  // The thread of the running call.
};

template <class Function>
struct CallbackSlotOf final : CallbackSlot {
  template <class Argument>
  CallbackSlotOf(std::in_place_t /*tag*/, Argument&& argument) : function(std::forward<Argument>(argument)) {}
  void Call(const oxEventRecord& event) override { function(event); }

  Function function;
};

// The slots of a module (program or shared library) in one process. The library gets the number of a slot instead of a
// pointer: after oxEventUnregisterCallback, the worker may still call back once. Never destroyed, for the same reason.
class OXEVENT_HPP_HIDDEN CallbackRegistry {
 public:
  CallbackRegistry() noexcept = default;
  CallbackRegistry(const CallbackRegistry&) = delete;
  CallbackRegistry& operator=(const CallbackRegistry&) = delete;

  // After an error, the caller may delete the slot.
  static std::error_code Add(CallbackSlot* slot) noexcept {
    CallbackRegistry* const registry = GetOrCreate();
    if (registry == nullptr) return std::make_error_code(std::errc::not_enough_memory);
    registry->Link(slot);
    slot->registry = registry;
    slot->remove = Remove;
    void* const number = reinterpret_cast<void*>(slot->number);  // NOLINT(performance-no-int-to-ptr)
    const std::uint32_t result = oxEventRegisterCallback(Run, number, &slot->id);
    if (result == OXEVENT_OK) return {};
    const std::lock_guard<std::mutex> lock(registry->mutex_);
    registry->UnlinkLocked(slot);
    return ToErrorCode(result);
  }

 private:
  static std::atomic<CallbackRegistry*>& Current() noexcept {
    static std::atomic<CallbackRegistry*> current = {nullptr};
    return current;
  }

  // The child of a fork gets a registry of its own: in the parent's, another thread may have held the mutex.
  static void ForgetAfterFork() noexcept { Current() = nullptr; }

  static CallbackRegistry* GetOrCreate() noexcept {
    CallbackRegistry* current = Current();
    if (current != nullptr) return current;
    std::unique_ptr<CallbackRegistry> created(new (std::nothrow) CallbackRegistry);
    if (created == nullptr || pthread_atfork(nullptr, nullptr, ForgetAfterFork) != 0) return nullptr;
    return Current().compare_exchange_strong(current, created.get()) ? created.release() : current;
  }

  static void Run(const oxEventRecord* event, void* user_data) {
    CallbackRegistry* const registry = Current();
    if (registry == nullptr) return;
    CallbackSlot* const slot = registry->Begin(reinterpret_cast<std::uintptr_t>(user_data));
    if (slot == nullptr) return;
    const auto end = [registry](CallbackSlot* ended) { registry->End(ended); };
    const std::unique_ptr<CallbackSlot, decltype(end)> running(slot, end);  // Ends the call even if it throws.
    slot->Call(*event);
  }

  // Removes and deletes the slot, after a running call has returned. If called from within the slot's own call, removes
  // it now and leaves the deletion to End.
  static void Remove(CallbackSlot* slot) noexcept {
    CallbackRegistry* const registry = Current();
    if (slot->registry != registry) return;  // A child leaves the parent's slots alone: a call may have been running.
    oxEventUnregisterCallback(slot->id);     // Fails after a shutdown.
    if (registry->Release(slot)) delete slot;
  }

  void Link(CallbackSlot* slot) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    slot->number = ++last_number_;
    slot->next = std::exchange(first_, slot);
  }

  void UnlinkLocked(CallbackSlot* slot) noexcept {
    CallbackSlot** link = &first_;
    while (*link != slot) link = &(*link)->next;
    *link = slot->next;
  }

  CallbackSlot* Begin(std::uintptr_t number) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    CallbackSlot* slot = first_;
    while (slot != nullptr && slot->number != number) slot = slot->next;
    if (slot == nullptr) return nullptr;
    slot->running = true;
    slot->thread = std::this_thread::get_id();
    return slot;
  }

  void End(CallbackSlot* slot) noexcept {
    if (Current() != this) return;  // The callable has forked, and this is the child.
    std::unique_lock<std::mutex> lock(mutex_);
    slot->running = false;
    const bool abandoned = slot->abandoned;
    ended_.notify_all();
    lock.unlock();
    if (abandoned) delete slot;
  }

  // Returns whether the caller may delete the slot.
  bool Release(CallbackSlot* slot) noexcept {
    std::unique_lock<std::mutex> lock(mutex_);
    UnlinkLocked(slot);
    slot->abandoned = slot->running && slot->thread == std::this_thread::get_id();
    if (slot->abandoned) return false;
    while (slot->running) ended_.wait(lock);
    return true;
  }

  std::mutex mutex_ = {};
  std::condition_variable ended_ = {};
  CallbackSlot* first_ = nullptr;
  std::uintptr_t last_number_ = 0;
};

struct CallbackRemover {
  void operator()(CallbackSlot* slot) const noexcept { slot->remove(slot); }
};

}  // namespace detail

// Registers a callable, which may be move-only, for every event that reaches the sinks; the comment on oxEventCallback
// says what it may do. It is called with a const oxEventRecord&, on the library's worker thread. Declare it before the
// Session: a Callback that is destroyed first misses the events that are still queued.
//
// The destructor unregisters the callable, waits for a running call to return, and destroys the callable: what the
// callable refers to may be freed then. So do not destroy a Callback while holding a lock that the callable needs. If
// the destructor runs inside the callable, it does not wait, and the callable is destroyed when that call returns.
// After oxEventShutdown, which may itself be called inside a callable, the callables get no event but the one that is
// being delivered: for the next session, make new Callbacks. Before unloading the module that contains the callable,
// destroy the Callback, and then call Flush until it succeeds.
class Callback {
 public:
  Callback() noexcept = default;  // Nothing registered.

  template <class Function>
  Callback(Function&& function, std::error_code& error) {
    error = Register(std::forward<Function>(function));
  }
#if defined(__cpp_exceptions)
  template <class Function,
            class = std::enable_if_t<std::is_invocable_v<std::decay_t<Function>&, const oxEventRecord&>>>
  explicit Callback(Function&& function) {
    detail::ThrowIf(Register(std::forward<Function>(function)));
  }
#endif

  explicit operator bool() const noexcept { return slot_ != nullptr; }

 private:
  template <class Function>
  std::error_code Register(Function&& function) {
    using Slot = detail::CallbackSlotOf<std::decay_t<Function>>;
    std::unique_ptr<detail::CallbackSlot> slot(new (std::nothrow)
                                                   Slot(std::in_place, std::forward<Function>(function)));
    if (slot == nullptr) return std::make_error_code(std::errc::not_enough_memory);
    const std::error_code error = detail::CallbackRegistry::Add(slot.get());
    if (!error) slot_.reset(slot.release());
    return error;
  }

  std::unique_ptr<detail::CallbackSlot, detail::CallbackRemover> slot_ = {};
};

#undef OXEVENT_HPP_HIDDEN

}  // namespace oxEvent

namespace std {
template <>
struct is_error_condition_enum<oxEvent::Errc> : true_type {};
}  // namespace std

#endif
