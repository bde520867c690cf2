#include "platform/oxEventUdpSender.h"

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/oxEventErrorText.h"
#include "oxEvent.h"

namespace {

constexpr uint32_t kMaxPort = 65535;

}  // namespace

oxEventUdpSender::oxEventUdpSender(std::string_view what, std::string host, uint32_t port)
    : what_(what), host_(std::move(host)), port_(port) {}

oxEventUdpSender::~oxEventUdpSender() {
  if (fd_ >= 0) close(fd_);
}

uint32_t oxEventUdpSender::Resolve(std::string* error) {
  if (fd_ >= 0) return OXEVENT_OK;
  if (port_ > kMaxPort) return Fail("resolve failed for", EAI_SERVICE, error);
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_protocol = IPPROTO_UDP;
  addrinfo* list = nullptr;
  const int failure = getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &list);
  if (failure != 0 || list == nullptr) return Fail("resolve failed for", failure, error);

  errno = 0;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_addrlen > sizeof(address_)) continue;
    fd_ = socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC, entry->ai_protocol);
    if (fd_ < 0) continue;
    std::memcpy(&address_, entry->ai_addr, entry->ai_addrlen);
    address_length_ = entry->ai_addrlen;
    return OXEVENT_OK;
  }
  return Fail("socket creation failed for", errno, error);
}

uint32_t oxEventUdpSender::Send(std::string_view bytes, std::string* error) {
  const auto* address = reinterpret_cast<const sockaddr*>(&address_);
  const ssize_t sent = sendto(fd_, bytes.data(), bytes.size(), 0, address, address_length_);
  if (sent >= 0 && static_cast<size_t>(sent) == bytes.size()) return OXEVENT_OK;
  return Fail("send failed to", errno, error);
}

uint32_t oxEventUdpSender::Fail(std::string_view step, int code, std::string* error) const {
  const std::string port = std::to_string(port_);
  const std::string code_text = std::to_string(code);
  oxEventSetErrorText({what_, " ", step, " ", host_, ":", port, " error=", code_text}, error);
  return OXEVENT_FAILURE;
}
