#include <algorithm>
#include <bit>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "platform/oxEventAppendFile.h"
#include "platform/oxEventPlatformFiles.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"
#include "sinks/oxEventText.h"

namespace {

constexpr size_t kBufferSize = 64 * 1024;
constexpr uint32_t kTryFlushTimeoutMs = 100;  // Enough for the worker to write a row, unless its write hangs.

// Returns how many bytes at the beginning of `text` are complete rows. A line feed within quotes does not end a row.
size_t WholeRowsSize(std::string_view text) {
  size_t end = 0;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') quoted = !quoted;
    if (text[i] == '\n' && !quoted) end = i + 1;
  }
  return end;
}

// Appends one row per event to a CSV file (RFC 4180, but a row ends with LF alone). Buffers and writes complete rows
// only: after a partial write it truncates the torn row, so that the first row of a later sink begins on a new line.
// The file is opened with O_APPEND, so the rows of several processes stay whole in one regular file. After a failed
// write the sink writes nothing more. But if the disk is full when the sink is opened, Open succeeds, and the header is
// written later, before the first row.
class oxEventCsvSink : public oxEventSink {
 public:
  explicit oxEventCsvSink(const oxEventSinkConfig& config)
      : oxEventSink(config.minimum_severity), path_(config.path), flush_each_event_(config.flush_each_event) {}

  ~oxEventCsvSink() override {
    oxEventLock lock(mutex_);
    WriteBufferLocked();
  }

  uint32_t Open(std::string* error) override OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    if (path_.empty()) return oxEventSetErrorText(oxEventErrors::kCsvNoPath, error);
    if (!oxEventPlatformEnsureParentDirectory(path_, error)) return OXEVENT_FAILURE;
    const bool needs_header = !oxEventPlatformFileHasContent(path_);
    if (!file_.Open(path_)) return Fail(oxEventErrors::kCsvOpen, error);
    // The header is not buffered: a sink that a reload opens on the same file must find the file non-empty.
    if (needs_header && !WriteHeaderLocked()) {
      if (!file_.IsOutOfSpace()) return Fail(oxEventErrors::kCsvHeader, error);
      // Not an error: the other sinks must start, to deliver an alarm about the full disk.
      failed_ = false;
      header_pending_ = true;
    }
    file_.SetBlocking();
    return OXEVENT_OK;
  }

  // If a log rotation renamed the file of the active sink before the failed reload, this sink has created a new file
  // with only a header. The next rotation would rotate that, and also the renamed file, to which the active sink still
  // writes.
  void Discard() override OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    file_.RemoveIfCreated(path_, header_pending_ ? 0 : oxEventText::CsvHeader().size());
  }

  // The timeout limits the wait for another thread's write, which may block on a pipe, but not this thread's own write.
  uint32_t Flush(uint32_t timeout_ms, std::string* error) override {
    return WriteBuffer(timeout_ms, true, nullptr, error);
  }
  uint32_t Drain(uint32_t timeout_ms, bool* busy, std::string* error) override {
    return WriteBuffer(timeout_ms, false, busy, error);
  }

  void TryFlush() override OX_EXCLUDES(mutex_) {
    if (!mutex_.TryLockFor(kTryFlushTimeoutMs)) return;
    oxEventLock lock(mutex_, std::adopt_lock);
    WriteBufferLocked(oxEventAppendFile::kNoWait);
  }

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* error) override
      OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    if (!AppendRowLocked(event)) return Fail(oxEventErrors::kCsvRow, error);
    if (flush_each_event_ && !WriteBufferLocked()) return Fail(oxEventErrors::kCsvRowFlush, error);
    return OXEVENT_OK;
  }

  // Fails if another thread was writing for the whole timeout, or if the sink has lost rows: without `report_again`,
  // only if the loss has not been reported yet.
  uint32_t WriteBuffer(uint32_t timeout_ms, bool report_again, bool* busy, std::string* error) OX_EXCLUDES(mutex_) {
    if (timeout_ms == 0) {
      mutex_.Lock();
    } else if (!mutex_.TryLockFor(timeout_ms)) {
      if (busy != nullptr) *busy = true;
      return Fail(oxEventErrors::kCsvBusy, error);
    }
    oxEventLock lock(mutex_, std::adopt_lock);
    if (WriteBufferLocked() || (std::exchange(failure_reported_, true) && !report_again)) return OXEVENT_OK;
    return Fail(oxEventErrors::kCsvFileFlush, error);
  }

  uint32_t Fail(oxEventErrorText<1> text, std::string* error) const {
    return oxEventSetErrorText(text, {path_}, error);
  }

  // The buffer ends with a complete row before and after this call, even if memory runs out. It may begin with the rest
  // of a row of which a pipe has taken the start.
  bool AppendRowLocked(const oxEventNormalizedEvent& event) OX_REQUIRES(mutex_) {
    if (failed_) {
      failure_reported_ = false;  // This row is lost as well.
      return false;
    }
    ReserveLocked(used_ + oxEventText::CsvRowCapacity(event));
    char* const begin = buffer_.get();
    used_ = static_cast<size_t>(oxEventText::WriteCsvRow(event, begin + used_, &utc_cache_) - begin);
    return used_ <= kBufferSize || WriteBufferLocked();
  }

  // If it throws std::bad_alloc, nothing has changed.
  void ReserveLocked(size_t size) OX_REQUIRES(mutex_) {
    if (size <= capacity_) return;
    const size_t capacity = std::bit_ceil(size);
    auto larger = std::make_unique_for_overwrite<char[]>(capacity);
    std::copy_n(buffer_.get(), used_, larger.get());
    buffer_ = std::move(larger);
    capacity_ = capacity;
  }

  // Returns false if the sink has lost rows, in this call or before.
  bool WriteBufferLocked(oxEventAppendFile::Wait wait = oxEventAppendFile::kWait) OX_REQUIRES(mutex_) {
    // Another process, or a sink that a reload opened, may have written a header in the meantime.
    if (used_ != 0 && std::exchange(header_pending_, false) && !file_.HasContent()) WriteHeaderLocked();
    const size_t written = WriteRowsLocked({buffer_.get(), used_}, wait);
    std::copy(buffer_.get() + written, buffer_.get() + used_, buffer_.get());
    used_ = failed_ ? 0 : used_ - written;
    if (used_ == 0 && capacity_ > 4 * kBufferSize) {  // It held an unusually long row.
      buffer_.reset();
      capacity_ = 0;
    }
    return !failed_;
  }

  bool WriteHeaderLocked() OX_REQUIRES(mutex_) {
    const std::string_view header = oxEventText::CsvHeader();
    return WriteRowsLocked(header) == header.size();
  }

  // Returns the number of bytes written: all, or fewer if the write failed or, with kNoWait, if a pipe is full. A
  // failed write may leave part of a row in a pipe, but in a regular file only where TruncateTail does nothing.
  size_t WriteRowsLocked(std::string_view rows, oxEventAppendFile::Wait wait = oxEventAppendFile::kWait)
      OX_REQUIRES(mutex_) {
    if (failed_) return 0;
    const size_t written = file_.Write(rows.data(), rows.size(), wait);
    if (written == rows.size() || (wait == oxEventAppendFile::kNoWait && file_.IsFullPipe())) return written;
    failed_ = true;
    file_.TruncateTail(written - WholeRowsSize(rows.substr(0, written)));
    return written;
  }

  oxEventMutex mutex_;
  const std::string path_;
  const bool flush_each_event_;
  oxEventAppendFile file_ OX_GUARDED_BY(mutex_);
  bool header_pending_ OX_GUARDED_BY(mutex_) = false;     // The disk was full at Open: no header has been written.
  std::unique_ptr<char[]> buffer_ OX_GUARDED_BY(mutex_);  // Rows that are not yet in the file.
  size_t used_ OX_GUARDED_BY(mutex_) = 0;                 // Bytes in buffer_.
  size_t capacity_ OX_GUARDED_BY(mutex_) = 0;
  oxEventText::UtcCache utc_cache_ OX_GUARDED_BY(mutex_);
  bool failed_ OX_GUARDED_BY(mutex_) = false;
  bool failure_reported_ OX_GUARDED_BY(mutex_) = false;  // Whether Flush or Drain reported the last lost row.
};

}  // namespace

uint32_t oxEventCreateCsvSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string* error) {
  return oxEventCreateSink<oxEventCsvSink>(oxEventErrors::kCsvOutput, config, out, error);
}
