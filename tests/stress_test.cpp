// Many threads at once, and what the steady state allocates.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "host_fixture.h"

#ifndef OXEVENT_SANITIZED  // Sanitizers bring an allocator of their own.
static thread_local size_t t_allocations = 0;

extern "C" {
void *__libc_calloc(size_t, size_t), *__libc_realloc(void*, size_t), *__libc_memalign(size_t, size_t);
void* malloc(size_t size) { return ++t_allocations, __libc_realloc(nullptr, size); }
void* calloc(size_t count, size_t size) { return ++t_allocations, __libc_calloc(count, size); }
void* realloc(void* memory, size_t size) { return ++t_allocations, __libc_realloc(memory, size); }
void* aligned_alloc(size_t align, size_t size) { return ++t_allocations, __libc_memalign(align, size); }
int posix_memalign(void** out, size_t align, size_t size) { return (*out = aligned_alloc(align, size)) ? 0 : ENOMEM; }
}
#endif

namespace {

uint32_t Send(const std::string& text, uint32_t level = 1) { return oxEventSubmitSimple(0, level, "n", text.c_str()); }

class oxEventStress : public testing::Test {
 protected:
  ~oxEventStress() override { oxEventShutdown(); }
  void Start(const std::map<std::string, std::string>& settings, oxEventCallback callback = Recorder::Note) {
    uint32_t id = 0;
    WriteSettings(settings_, csv_, settings);
    EXPECT_FALSE(oxEventRegisterCallback(callback, &recorder_, &id) || oxEventInitialize(settings_.c_str()));
  }
  // Runs `work` on four threads at once; the destructor of the result waits for them.
  static std::array<std::future<void>, 4> OnThreads(const std::function<void(char)>& work) {
    const auto run = [&](char name) { return std::async(std::launch::async, work, name); };
    return {run('a'), run('b'), run('c'), run('d')};
  }
  HostFolder folder_;
  const std::string settings_ = folder_.path + "/settings", csv_ = folder_.path + "/events";
  Recorder recorder_;
};

TEST_F(oxEventStress, LosesNothingWhileEverythingMoves) {
  std::atomic<bool> done = false;
  Start({{"core\\queue_size", "20000"}});
  auto others = OnThreads([&done](char name) {
    const oxEventCallback nothing = [](const oxEventRecord*, void*) {};
    for (uint32_t id = 0; !done;) {
      EXPECT_FALSE(name == 'a' ? oxEventFlush(0) : oxEventReloadConfig(nullptr));
      EXPECT_FALSE(oxEventRegisterCallback(nothing, nullptr, &id) || oxEventUnregisterCallback(id));
    }
  });
  OnThreads([](char name) {
    for (size_t i = 0; i < 5000; ++i) EXPECT_EQ(Send(name + std::to_string(i)), 0u);
  });
  std::vector<std::string> messages = recorder_.Messages(20000), rows;
  done = true;
  for (const auto& other : others) other.wait();
  EXPECT_EQ(oxEventShutdown(), 0u);
  EXPECT_EQ(messages.size(), 20000u);
  std::map<char, size_t> next;  // Each thread's events in the order in which it sent them.
  for (const std::string& text : messages) EXPECT_EQ(text.substr(1), std::to_string(next[text[0]]++));
  for (const auto& row : ReadCsv(csv_)) rows.push_back(row.at(11));
  messages.insert(messages.begin(), "message");
  EXPECT_TRUE(rows == messages);
}

TEST_F(oxEventStress, StartsAndStopsUnderFire) {
  std::atomic<size_t> accepted = 0, delivered = 0;
  std::atomic<bool> done = false;
  recorder_.on_event = [&](const oxEventRecord&) { ++delivered; };
  auto threads = OnThreads([&](char) {
    for (; !done; std::this_thread::yield()) {
      const uint32_t code = accepted < delivered + 500 ? Send("m") : OXEVENT_NOT_INITIALIZED;
      EXPECT_TRUE(code == 0 || code == OXEVENT_NOT_INITIALIZED) << code;
      accepted += code == 0;
    }
  });
  for (size_t round = 0; round < 50; ++round) {
    Start({{"core\\queue_size", "4294967295"}});
    recorder_.Messages(delivered + 20);
    EXPECT_EQ(oxEventShutdown(), 0u);
    while (accepted != delivered) std::this_thread::yield();
  }
  done = true;
  for (const auto& thread : threads) thread.wait();
  EXPECT_EQ(ReadCsv(csv_).size(), 1 + accepted);
}

#ifndef OXEVENT_SANITIZED
TEST_F(oxEventStress, AllocatesNothingInTheSteadyState) {
  static std::mutex gate;
  static size_t calls = 0, worker = 0;  // The worker's allocations, as the last call saw them.
  const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = {AF_UNIX, "/dev/log"};
  const bool native = bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  auto lines = std::async(std::launch::async, [log, count = 0u, line = std::string(2048, 0)]() mutable {
    while (recv(log, line.data(), line.size(), 0) > 0) ++count;
    return count;
  });
  const auto note = [](const oxEventRecord*, void*) {
    const std::lock_guard lock(gate);
    ++calls, worker = t_allocations;
  };
  Start({{"sink\\native\\main\\enabled", native ? "1" : "0"}, {"core\\queue_size", "10000"}}, note);
  const std::string text(300, 'x'), steps[] = {"raise", "raise", "update", "repeat", "clear"};
  oxEventRecord record = {152, 65536, 0, "type", "source", "name", "", 2, "", "", "", 0, 0, 0, "", 0, 0, "V", 0, "{}"};
  size_t caller = 0, sent = 0;
  const auto cycle = [&](size_t varied) {
    for (size_t i = 0; i < 250; ++i) {  // Five actions on each of fifty keys, the clear after the repeat interval.
      const std::string key = std::string(40, 'k') + std::to_string(10 + i % 50);
      record.action = steps[i / 50].c_str(), record.dedupe_key = key.c_str();
      record.message = text.c_str() + sent++ * 7 % varied;
      record.utc_ns = 1 + i / 150 * 4000000000000, record.value = static_cast<double>(i / 50);
      const size_t before = t_allocations;
      EXPECT_EQ(oxEventSubmit(&record), 0u);
      EXPECT_EQ(varied == 1 ? oxEventSubmit(&record) : oxEventSubmitSimple(0, 1, "name", record.message), 0u);
      caller += t_allocations - before;
    }
  };
  for (size_t round = 0; round < 3;
       ++round, oxEventFlush(0)) {  // Warm up with the longest texts and a deeper queue than ever later.
    const std::lock_guard lock(gate);
    cycle(1), cycle(1);
  }
  const std::pair warm(caller, worker);
  for (size_t round = 0; round < 20; ++round, oxEventFlush(0)) cycle(250);
  EXPECT_TRUE(warm.first > 0 && warm.second > 0);
  EXPECT_EQ(std::pair(caller, worker), warm);
  EXPECT_EQ(oxEventShutdown(), 0u);
  shutdown(log, SHUT_RDWR), lines.wait(), close(log);
  EXPECT_TRUE(!native || (unlink(address.sun_path) == 0 && lines.get() >= calls));
}
#endif

}  // namespace
