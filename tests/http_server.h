// An HTTP server on a free port of loopback.
#pragma once

#include <openssl/ssl.h>
#include <poll.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "faults.h"
#include "host_fixture.h"

struct Answer {
  std::string bytes = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  bool closes = false;
};

using Answers = std::vector<Answer>;

// Gives the n-th request the n-th answer, and all later requests the last one. Expects each request in one piece.
// Threads: any; faults do not apply to the server's own thread.
class HttpServer {
 public:
  explicit HttpServer(Answers answers = {{}}, SSL_CTX* tls = nullptr)
      : answers_(std::move(answers)), tls_(tls), listener_(LoopbackSocket(AF_INET, SOCK_STREAM, &port_)) {
    EXPECT_EQ(listen(listener_, 100), 0);
    thread_ = std::jthread([this](const std::stop_token& stop) { Run(stop); });
  }
  ~HttpServer() {
    thread_ = {};
    close(listener_);
  }

  std::string Url(const std::string& host = "127.0.0.1") const {
    return (tls_ != nullptr ? "https://" : "http://") + HostAndPort(host);
  }
  std::string HostAndPort(const std::string& host) const { return host + ":" + std::to_string(port_); }
  // Returns the requests since the last call.
  std::vector<std::string> TakeRequests() {
    const std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
  }
  size_t AcceptedConnections() const { return accepted_; }
  void SendOnOpenConnections(const std::string& bytes) {
    const std::lock_guard lock(mutex_);
    for (BIO* const connection : connections_) BIO_write(connection, bytes.data(), int(bytes.size()));
  }

 private:
  void Run(const std::stop_token& stop) {
    Faults::ExcludeThisThread();
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);  // A write to a closed connection raises SIGPIPE.
    std::vector<pollfd> polls = {{listener_, POLLIN, 0}};
    while (!stop.stop_requested()) {
      poll(polls.data(), polls.size(), 5);
      const std::lock_guard lock(mutex_);
      for (size_t i = connections_.size(); i-- > 0;) {
        if (polls[i + 1].revents == 0 || Serve(connections_[i])) continue;
        BIO_free_all(connections_[i]);
        connections_.erase(connections_.begin() + long(i));
        polls.erase(polls.begin() + long(i) + 1);
      }
      if (polls[0].revents != 0) polls.push_back({Accept(), POLLIN, 0});
    }
    for (BIO* const connection : connections_) BIO_free_all(connection);
  }
  int Accept() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    BIO* const connection = BIO_new_socket(fd, BIO_CLOSE);
    connections_.push_back(tls_ == nullptr ? connection : BIO_push(BIO_new_ssl(tls_, 0), connection));
    ++accepted_;
    return fd;
  }
  // Returns false if the connection is to be closed.
  bool Serve(BIO* connection) {
    char request[65536];
    const int size = BIO_read(connection, request, sizeof(request));
    if (size <= 0) return false;
    requests_.emplace_back(request, size_t(size));
    const Answer& answer = answers_[std::min(answered_++, answers_.size() - 1)];
    if (!answer.bytes.empty()) BIO_write(connection, answer.bytes.data(), int(answer.bytes.size()));
    return !answer.closes;
  }

  const Answers answers_;
  SSL_CTX* const tls_;
  uint16_t port_ = 0;
  const int listener_;
  std::mutex mutex_;  // Guards the next three members.
  std::vector<BIO*> connections_;
  std::vector<std::string> requests_;
  size_t answered_ = 0;
  std::atomic<size_t> accepted_ = 0;
  std::jthread thread_;
};
