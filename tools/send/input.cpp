#include "send/input.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <system_error>

namespace {

constexpr size_t kMaxLineBytes = 64 << 20;
constexpr int kStopSignals[] = {SIGHUP, SIGINT, SIGTERM};

volatile sig_atomic_t g_stop = 0;

// Like ppoll, but returns immediately if a stop signal has been received. Blocks the stop signals, except during ppoll,
// so that none arrives between the check and the wait.
void Wait(std::span<pollfd> fds, const timespec* time) {
  sigset_t stops;
  sigset_t old;
  sigemptyset(&stops);
  for (const int signal : kStopSignals) sigaddset(&stops, signal);
  pthread_sigmask(SIG_BLOCK, &stops, &old);
  if (g_stop == 0) ppoll(fds.data(), fds.size(), time, &old);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

}  // namespace

void CatchStopSignals() {
  for (const int signal : kStopSignals) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // Set by nohup.
    action.sa_handler = [](int caught) { g_stop = caught; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

int StopSignal() { return g_stop; }

void SleepUntil(Clock::time_point time) {
  while (g_stop == 0) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(time - Clock::now());
    if (left.count() <= 0) return;
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec timeout = {seconds.count(), (left - seconds).count()};
    Wait({}, &timeout);
  }
}

bool LineReader::Next(std::string* line) {
  size_t searched = begin_;
  while (g_stop == 0) {
    const size_t end = buffer_.find('\n', searched);
    if (end != buffer_.npos) {
      line->assign(buffer_, begin_, end - begin_);
      begin_ = end + 1;
      return true;
    }
    searched = buffer_.size() - begin_;
    if (searched > kMaxLineBytes) throw std::runtime_error("longer than 64 MiB");
    buffer_.erase(0, begin_);
    begin_ = 0;
    if (Fill()) continue;
    if (g_stop != 0 || buffer_.empty()) break;
    line->swap(buffer_);  // A last line without a line end.
    buffer_.clear();
    return true;
  }
  return false;
}

// Appends the available input to the buffer. Returns false at the end of the input and after a stop signal.
bool LineReader::Fill() {
  constexpr size_t kBlockBytes = 65536;
  const size_t size = buffer_.size();
  while (!at_end_) {
    pollfd input[] = {{STDIN_FILENO, POLLIN, {}}};
    Wait(input, nullptr);
    if (g_stop != 0) break;
    buffer_.resize(size + kBlockBytes);
    const ssize_t got = read(STDIN_FILENO, buffer_.data() + size, kBlockBytes);
    const int error = errno;
    buffer_.resize(size + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got > 0) return true;
    if (got == 0) at_end_ = true;
    if (got < 0 && error != EINTR && error != EAGAIN) throw std::system_error(error, std::generic_category(), "read");
  }
  return false;
}
