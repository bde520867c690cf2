#include "platform/oxEventUdpSender.h"

#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "oxEvent.h"

namespace {

constexpr uint32_t kMaxPort = 65535;

}  // namespace

oxEventUdpSender::oxEventUdpSender(const oxEventUdpErrors& errors, std::string host, uint32_t port)
    : errors_(errors), host_(std::move(host)), port_(port) {}

oxEventUdpSender::~oxEventUdpSender() {
  if (fd_ >= 0) close(fd_);
}

uint32_t oxEventUdpSender::Resolve(std::string* error) {
  if (fd_ >= 0) return OXEVENT_OK;
  if (port_ > kMaxPort) return Fail(errors_.resolve, EAI_SERVICE, error);
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_protocol = IPPROTO_UDP;
  addrinfo* list = nullptr;
  const int failure = getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &list);
  if (failure != 0 || list == nullptr) return Fail(errors_.resolve, failure, error);

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
  return Fail(errors_.socket, errno, error);
}

uint32_t oxEventUdpSender::Send(std::string_view bytes, std::string* error) {
  const auto* address = reinterpret_cast<const sockaddr*>(&address_);
  const ssize_t sent = sendto(fd_, bytes.data(), bytes.size(), 0, address, address_length_);
  if (sent >= 0 && static_cast<size_t>(sent) == bytes.size()) return OXEVENT_OK;
  return Fail(errors_.send, errno, error);
}

uint32_t oxEventUdpSender::Fail(oxEventErrorText<3> text, int number, std::string* error) const {
  return oxEventSetErrorText(text, {host_, std::to_string(port_), std::to_string(number)}, error);
}
