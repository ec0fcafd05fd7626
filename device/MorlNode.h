#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include "device/DeviceConfig.h"
#include "device/DeviceEndpoint.h"
#include "morl/MORLManager.h"

/// The device's MORL side: a UDP socket on 0.0.0.0:4792 with broadcast
/// allowed, whose datagrams go to a MORLManager. Answers go to the reply
/// address the manager picks (the requester's when it offered unicast, else
/// broadcast), after the configured delay. Single-threaded: everything runs on
/// the context's thread.
class MorlNode {
 public:
  /// Binds the socket; throws boost::system::system_error on failure.
  MorlNode(boost::asio::io_context& context, const DeviceConfig& config);
  void start();
  void stop();

 private:
  void receiveNext();
  void sendPacket(QM::Span<const unsigned char> packet, unsigned int address);

  boost::asio::io_context& context;
  const DeviceConfig& config;
  boost::asio::ip::udp::socket socket;
  boost::asio::ip::udp::endpoint sender;
  unsigned char buffer[1024] = {};
  DeviceEndpoint endpoint;
  MORLManager manager;
};
