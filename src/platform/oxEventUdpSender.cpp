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

struct oxEventUdpLookup {
  oxEventUdpLookup(const std::string& host, uint32_t port) {
    if (port > kMaxPort) {
      failure = EAI_SERVICE;
      return;
    }
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    failure = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  }
  ~oxEventUdpLookup() {
    if (list != nullptr) freeaddrinfo(list);
  }
  oxEventUdpLookup(const oxEventUdpLookup&) = delete;
  oxEventUdpLookup& operator=(const oxEventUdpLookup&) = delete;

  int failure = 0;
  addrinfo* list = nullptr;
};

std::shared_ptr<const oxEventUdpLookup> oxEventUdpLookUp(const std::string& host, uint32_t port) {
  return std::make_shared<const oxEventUdpLookup>(host, port);
}

oxEventUdpSender::oxEventUdpSender(const oxEventUdpErrors& errors, std::string host, uint32_t port,
                                   std::shared_ptr<const oxEventUdpLookup> lookup)
    : errors_(errors), host_(std::move(host)), port_(port), lookup_(std::move(lookup)) {}

oxEventUdpSender::~oxEventUdpSender() {
  if (fd_ >= 0) close(fd_);
}

uint32_t oxEventUdpSender::Open(std::string* error) {
  auto lookup = std::exchange(lookup_, nullptr);
  if (lookup == nullptr) lookup = oxEventUdpLookUp(host_, port_);
  if (lookup->failure != 0) return Fail(errors_.resolve, lookup->failure, error);

  errno = 0;
  for (const addrinfo* entry = lookup->list; entry != nullptr; entry = entry->ai_next) {
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
  if (sent == static_cast<ssize_t>(bytes.size())) return OXEVENT_OK;
  return Fail(errors_.send, errno, error);
}

uint32_t oxEventUdpSender::Fail(oxEventErrorText<3> text, int error_number, std::string* error) const {
  return oxEventSetErrorText(text, {host_, std::to_string(port_), std::to_string(error_number)}, error);
}
