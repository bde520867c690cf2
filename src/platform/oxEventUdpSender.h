#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/oxEventErrorText.h"

// The texts of its failures. Their places: host, port, and the number of the error.
struct oxEventUdpErrors {
  oxEventErrorText<3> resolve;
  oxEventErrorText<3> socket;
  oxEventErrorText<3> send;
};

// Sends datagrams to one receiver over IPv4 or IPv6. Its name is looked up once; the socket is not connected, so that a
// receiver that is absent for a while costs nothing. Owns its descriptor. Threads: one at a time.
class oxEventUdpSender {
 public:
  oxEventUdpSender(const oxEventUdpErrors& errors, std::string host, uint32_t port);
  ~oxEventUdpSender();
  oxEventUdpSender(const oxEventUdpSender&) = delete;
  oxEventUdpSender& operator=(const oxEventUdpSender&) = delete;

  // Looks the receiver up and opens the socket, unless that is done. Takes as long as a name server does.
  uint32_t Resolve(std::string* error);

  // One datagram, after Resolve.
  uint32_t Send(std::string_view bytes, std::string* error);

 private:
  uint32_t Fail(oxEventErrorText<3> text, int number, std::string* error) const;

  const oxEventUdpErrors errors_;
  const std::string host_;
  const uint32_t port_;
  int fd_ = -1;
  sockaddr_storage address_ = {};
  socklen_t address_length_ = 0;
};
