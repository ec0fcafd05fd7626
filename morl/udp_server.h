#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/error_code.hpp>

#include "morl/IReceive.h"

/// The MORL transport: one IPv4 UDP socket on port 4792 of every local
/// address that hands each datagram to an IReceive and broadcasts every send
/// to 255.255.255.255:4792.
class udp_server {
 public:
  explicit udp_server(IReceive* receiver);
  udp_server(const udp_server&) = delete;
  udp_server& operator=(const udp_server&) = delete;

  /// Binds 0.0.0.0:4792 (no address reuse), allows broadcast and starts
  /// receiving; throws boost::system::system_error when that fails.
  void init(boost::asio::io_context& ioContext);
  void start_receive();
  void handle_receive(const boost::system::error_code& error, unsigned long bytes);
  /// Broadcasts `length` bytes; they are copied, so they need to live only
  /// during the call. Errors are ignored.
  void send(const unsigned char* data, unsigned long length);
  void handle_send(const boost::system::error_code& error, unsigned long bytes);
  /// Closes and frees the socket; call once, after the context has stopped.
  void stop();

  static constexpr unsigned short port = 4792;
  static constexpr unsigned long bufferSize = 1024;

 private:
  IReceive* receiver;
  boost::asio::ip::udp::socket* socket = nullptr;
  boost::asio::ip::udp::endpoint remoteEndpoint;
  unsigned char buffer[bufferSize];
};
