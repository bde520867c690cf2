#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/oxEventErrorText.h"

// Error texts, each with the placeholders host, port and error number.
struct oxEventUdpErrors {
  oxEventErrorText<3> resolve;
  oxEventErrorText<3> socket;
  oxEventErrorText<3> send;
};

// The result of looking up a receiver's name: its addresses or an error number.
struct oxEventUdpLookup;
// Blocks for as long as the name server takes. Throws std::bad_alloc.
std::shared_ptr<const oxEventUdpLookup> oxEventUdpLookUp(const std::string& host, uint32_t port);

// Sends datagrams to one receiver over IPv4 or IPv6. The receiver's name is looked up once. The socket is not
// connected, so that no send fails because the receiver was down. Owns its descriptor. Threads: one at a time.
class oxEventUdpSender {
 public:
  // `lookup`: the result for this host and port; if null, Open looks them up.
  oxEventUdpSender(const oxEventUdpErrors& errors, std::string host, uint32_t port,
                   std::shared_ptr<const oxEventUdpLookup> lookup);
  ~oxEventUdpSender();
  oxEventUdpSender(const oxEventUdpSender&) = delete;
  oxEventUdpSender& operator=(const oxEventUdpSender&) = delete;

  // Opens the socket, after looking up the receiver unless the constructor got a `lookup`. Must be called once.
  uint32_t Open(std::string* error);

  // Sends one datagram. Must be called after Open has succeeded.
  uint32_t Send(std::string_view bytes, std::string* error);

 private:
  uint32_t Fail(oxEventErrorText<3> text, int error_number, std::string* error) const;

  const oxEventUdpErrors errors_;
  const std::string host_;
  const uint32_t port_;
  std::shared_ptr<const oxEventUdpLookup> lookup_;  // Null after Open.
  int fd_ = -1;
  sockaddr_storage address_ = {};
  socklen_t address_length_ = 0;
};
