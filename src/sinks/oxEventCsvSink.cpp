#include <algorithm>
#include <bit>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventSeverity.h"
#include "platform/oxEventPlatform.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventText.h"

namespace {

constexpr char kHeader[] =
    "version,event_id,utc_iso,utc_ns,severity,action,event_type,source_id,source_name,dedupe_key,correlation_id,"
    "message,value,threshold,units,duration_ms,ptp_ns,pts,timecode,details_json\n";

constexpr size_t kBufferSize = 64 * 1024;

// Bytes of the whole rows that the text begins with. A line feed within quotes ends no row.
size_t WholeRows(std::string_view text) {
  size_t end = 0;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') quoted = !quoted;
    if (text[i] == '\n' && !quoted) end = i + 1;
  }
  return end;
}

// Appends one line per event to a comma-separated file (RFC 4180, with single line feeds). Buffers whole rows and
// writes nothing but whole rows; of a write that breaks off, the torn row is taken back, so that a later sink's first
// row begins on a line of its own. Once a write has failed, nothing more is written.
class oxEventCsvSink : public oxEventSink {
 public:
  explicit oxEventCsvSink(const oxEventSinkConfig& config)
      : path_(config.path), flush_each_event_(config.flush_each_event), minimum_severity_(config.minimum_severity) {}

  ~oxEventCsvSink() override {
    oxEventLock lock(mutex_);
    WriteBufferLocked();
  }

  uint32_t Open(std::string* error) OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return OpenLocked(error);
  }

  uint32_t Submit(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* error) override
      OX_EXCLUDES(mutex_) {
    if (!oxEventSeverityMeetsMinimum(event.severity, minimum_severity_)) return OXEVENT_OK;
    oxEventLock lock(mutex_);
    if (const uint32_t result = OpenLocked(error); result != OXEVENT_OK) return result;
    if (!AppendRowLocked(event)) return Fail(oxEventErrors::kCsvRow, error);
    if (flush_each_event_ && !WriteBufferLocked()) return Fail(oxEventErrors::kCsvRowFlush, error);
    return OXEVENT_OK;
  }

  // The time-out is for a write of the worker's that waits, for the reader of a pipe say; the own write takes its time.
  uint32_t Flush(uint32_t timeout_ms, std::string* error) override { return WriteOut(timeout_ms, true, error); }
  uint32_t WriteOut(uint32_t timeout_ms, std::string* error) override { return WriteOut(timeout_ms, false, error); }

 private:
  uint32_t WriteOut(uint32_t timeout_ms, bool tell_again, std::string* error) OX_EXCLUDES(mutex_) {
    if (timeout_ms == 0) {
      mutex_.Lock();
    } else if (!mutex_.TryLockFor(timeout_ms)) {
      return Fail(oxEventErrors::kCsvBusy, error);
    }
    oxEventLock lock(mutex_, std::adopt_lock);
    if (WriteBufferLocked() || (std::exchange(told_, true) && !tell_again)) return OXEVENT_OK;
    return Fail(oxEventErrors::kCsvFileFlush, error);
  }

  uint32_t Fail(oxEventErrorText<1> text, std::string* error) const {
    return oxEventSetErrorText(text, {path_}, error);
  }

  uint32_t OpenLocked(std::string* error) OX_REQUIRES(mutex_) {
    if (file_.IsOpen()) return OXEVENT_OK;
    if (path_.empty()) return oxEventSetErrorText(oxEventErrors::kCsvNoPath, error);
    if (!oxEventPlatformEnsureParentDirectory(path_, error)) return OXEVENT_FAILURE;
    const bool needs_header = !oxEventPlatformFileHasContent(path_);
    if (!file_.Open(path_)) return Fail(oxEventErrors::kCsvOpen, error);
    // Written at once: a sink that a reload opens on the same file must find it non-empty.
    if (needs_header && !WriteRowsLocked(kHeader)) return Fail(oxEventErrors::kCsvHeader, error);
    file_.StartWaiting();
    return OXEVENT_OK;
  }

  // The buffer ends on a whole row before and after, also when memory runs out.
  bool AppendRowLocked(const oxEventNormalizedEvent& event) OX_REQUIRES(mutex_) {
    if (failed_) return false;
    ReserveLocked(used_ + oxEventText::CsvRowCapacity(event));
    char* const begin = buffer_.get();
    used_ = static_cast<size_t>(oxEventText::WriteCsvRow(event, begin + used_, &utc_cache_) - begin);
    return used_ <= kBufferSize || WriteBufferLocked();
  }

  // Throws when there is no memory; then nothing has changed.
  void ReserveLocked(size_t size) OX_REQUIRES(mutex_) {
    if (size <= capacity_) return;
    const size_t capacity = std::bit_ceil(size);
    auto larger = std::make_unique_for_overwrite<char[]>(capacity);
    std::copy_n(buffer_.get(), used_, larger.get());
    buffer_ = std::move(larger);
    capacity_ = capacity;
  }

  bool WriteBufferLocked() OX_REQUIRES(mutex_) {
    WriteRowsLocked({buffer_.get(), used_});
    used_ = 0;
    if (capacity_ > 4 * kBufferSize) {  // A row of uncommon length was in it.
      buffer_.reset();
      capacity_ = 0;
    }
    return !failed_;
  }

  // The file ends on a whole row before and after, whatever fails.
  bool WriteRowsLocked(std::string_view rows) OX_REQUIRES(mutex_) {
    if (failed_) return false;
    const size_t written = file_.Write(rows.data(), rows.size());
    failed_ = written != rows.size();
    if (failed_) file_.TakeBack(written - WholeRows(rows.substr(0, written)));
    return !failed_;
  }

  oxEventMutex mutex_;
  const std::string path_;
  const bool flush_each_event_;
  const uint32_t minimum_severity_;
  oxEventAppendFile file_ OX_GUARDED_BY(mutex_);
  std::unique_ptr<char[]> buffer_ OX_GUARDED_BY(mutex_);  // Whole rows that are not in the file yet.
  size_t used_ OX_GUARDED_BY(mutex_) = 0;                 // Bytes of it.
  size_t capacity_ OX_GUARDED_BY(mutex_) = 0;
  oxEventText::UtcCache utc_cache_ OX_GUARDED_BY(mutex_);
  bool failed_ OX_GUARDED_BY(mutex_) = false;
  bool told_ OX_GUARDED_BY(mutex_) = false;  // Of that, by a call whose failure the host learns of.
};

}  // namespace

uint32_t oxEventCreateCsvSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string* error) {
  if (out == nullptr) return oxEventSetErrorText(oxEventErrors::kCsvOutput, error);
  auto sink = std::make_shared<oxEventCsvSink>(config);
  const uint32_t result = sink->Open(error);
  if (result == OXEVENT_OK) *out = std::move(sink);
  return result;
}
