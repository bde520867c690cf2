// A host with several threads: oxevent-embed SETTINGS.xml
// Several threads submit events while the main thread reloads the settings. The exit status is 0 if no event is lost or
// duplicated and the events of each thread arrive in order.
#include <oxEvent.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint64_t kThreads = 4;
constexpr uint64_t kEventsPerThread = 500;
constexpr uint64_t kEventsPerFlush = 100;  // Between two flushes, the events of all threads fit into the default queue.

// Written only by the library's worker thread; read after the shutdown, which waits for that thread.
struct Received {
  std::array<uint64_t, kThreads> last{};  // Last event number of each submitting thread.
  uint64_t in_order = 0;
  uint64_t out_of_order = 0;
};

void OnEvent(const oxEventRecord* event, void* user_data) {
  auto& received = *static_cast<Received*>(user_data);
  const uint64_t thread = (event->event_id - 1) / kEventsPerThread;
  const uint64_t number = (event->event_id - 1) % kEventsPerThread + 1;
  const bool next = number == received.last.at(thread) + 1;
  ++(next ? received.in_order : received.out_of_order);
  received.last.at(thread) = number;
}

std::string LastError() {
  std::array<char, 512> text{};
  oxEventGetLastError(text.data(), static_cast<uint32_t>(text.size()));
  return text.data();
}

// Returns whether the call succeeded; prints its error otherwise.
bool Check(const char* call, uint32_t code) {
  if (code != OXEVENT_OK) std::fprintf(stderr, "oxevent-embed: %s: %s\n", call, LastError().c_str());
  return code == OXEVENT_OK;
}

// Flushes regularly: submitting does not wait, and a full queue drops events.
bool SubmitAll(uint64_t thread) {
  const std::string source = "worker-" + std::to_string(thread);
  for (uint64_t number = 1; number <= kEventsPerThread; ++number) {
    oxEventRecord event{};
    event.struct_size = sizeof(event);
    event.version = OXEVENT_API_VERSION;
    event.event_id = thread * kEventsPerThread + number;
    event.event_type = "work.done";
    event.source_id = source.c_str();
    event.message = "One piece of work is done";
    event.severity = OXEVENT_SEVERITY_INFO;
    if (!Check("submit", oxEventSubmit(&event))) return false;
    if (number % kEventsPerFlush == 0 && !Check("flush", oxEventFlush(0))) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Received received;
  uint32_t callback_id = 0;
  if (!Check("register", oxEventRegisterCallback(OnEvent, &received, &callback_id)) ||
      !Check("initialize", oxEventInitialize(argc > 1 ? argv[1] : nullptr))) {
    return 1;
  }
  std::atomic<bool> good = true;
  std::atomic<uint64_t> running = kThreads;
  std::vector<std::thread> threads;
  for (uint64_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread, &good, &running] {
      if (!SubmitAll(thread)) good = false;
      --running;
    });
  }
  do {
    if (!Check("reload", oxEventReloadConfig(nullptr))) good = false;
  } while (running > 0 && good);
  for (std::thread& thread : threads) thread.join();
  if (!Check("flush", oxEventFlush(0))) good = false;
  if (!Check("shutdown", oxEventShutdown())) good = false;

  constexpr uint64_t kAll = kThreads * kEventsPerThread;
  std::printf("%ju of %ju events received in order, %ju out of order\n", uintmax_t{received.in_order}, uintmax_t{kAll},
              uintmax_t{received.out_of_order});
  return good && received.in_order == kAll && received.out_of_order == 0 ? 0 : 1;
}
