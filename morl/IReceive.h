#pragma once

/// Receiver of the datagrams that a udp_server reads.
class IReceive {
 public:
  virtual ~IReceive() = default;
  /// One datagram: `data` holds `length` bytes and is valid only during the
  /// call; `address` is the sender's IPv4 address in host order.
  virtual void receive(unsigned char* data, unsigned long length, unsigned int address) = 0;
};
