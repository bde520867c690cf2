#include "stat/serve.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kClientTimeout = std::chrono::seconds(2);  // For the request and the response together.
constexpr size_t kMaxRequestBytes = 16384;

// Waits until the socket is ready; returns false if it is not before the deadline.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd waiting = {fd, events, 0};
  return left > 0 && poll(&waiting, 1, static_cast<int>(left)) == 1;
}

// Receives the request, at least up to the end of its header; returns less at the deadline or if the client closes.
std::string Receive(int fd, Clock::time_point deadline) {
  std::string request;
  char buffer[2048];
  while (request.find("\r\n\r\n") == request.npos && request.size() < kMaxRequestBytes &&
         WaitFor(fd, POLLIN, deadline)) {
    const ssize_t size = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (size <= 0) break;
    request.append(buffer, static_cast<size_t>(size));
  }
  return request;
}

void Send(int fd, std::string_view bytes, Clock::time_point deadline) {
  while (!bytes.empty() && WaitFor(fd, POLLOUT, deadline)) {
    const ssize_t size = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(size));
  }
}

std::string Respond(std::string_view request, const std::function<std::string()>& metrics) {
  const std::string_view line = request.substr(0, request.find("\r\n"));
  const std::string_view target = line.substr(0, line.rfind(" HTTP/1."));
  const bool found = target == "GET /metrics" || target.starts_with("GET /metrics?");
  const std::string body = found ? metrics() : "The metrics are at /metrics.\n";
  return std::string("HTTP/1.1 ") + (found ? "200 OK" : "404 Not Found") +
         "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nConnection: close\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

int Listen(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  socklen_t size = sizeof(address);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (fd == -1 || bind(fd, reinterpret_cast<const sockaddr*>(&address), size) != 0 || listen(fd, SOMAXCONN) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("127.0.0.1 port " + std::to_string(port) + ": " + std::strerror(errno));
  }
  std::printf("http://127.0.0.1:%u/metrics\n", static_cast<unsigned>(ntohs(address.sin_port)));
  std::fflush(stdout);
  return fd;
}

}  // namespace

void Serve(uint16_t port, const std::function<std::string()>& metrics) {
  const int listener = Listen(port);
  while (true) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client == -1) {
      if (errno == ECONNABORTED) continue;
      throw std::runtime_error(std::string("accept: ") + std::strerror(errno));
    }
    const auto deadline = Clock::now() + kClientTimeout;
    if (const std::string request = Receive(client, deadline); !request.empty())
      Send(client, Respond(request, metrics), deadline);
    close(client);
  }
}
