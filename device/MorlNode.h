#pragma once

#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include "device/DeviceConfig.h"
#include "device/DeviceEndpoint.h"
#include "morl/MORLManager.h"

/// The device's MORL side: a UDP socket with broadcast allowed whose
/// datagrams go to a MORLManager. Without an address it is 0.0.0.0:4792 and
/// hears everything; with one it is ADDRESS:4792 (address reuse on), hears
/// what is sent to that address, and a MorlBroadcast hands it the rest.
/// Answers leave from this socket, to the reply address the manager picks (the
/// requester's when it offered unicast, else broadcast), after the configured
/// delay. Single-threaded: everything runs on the context's thread.
class MorlNode {
 public:
  /// Binds the socket; throws boost::system::system_error on failure.
  MorlNode(boost::asio::io_context& context, const DeviceConfig& config);
  void start();
  void stop();
  /// A datagram heard on the shared broadcast socket.
  void deliver(QM::Span<const unsigned char> datagram, unsigned int from);

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

/// One socket on 0.0.0.0:4792 (address reuse on) for the devices that have
/// an address: what it hears (the broadcasts) goes to each of them.
class MorlBroadcast {
 public:
  MorlBroadcast(boost::asio::io_context& context, std::vector<MorlNode*> nodes);
  void start();
  void stop();

 private:
  boost::asio::ip::udp::socket socket;
  boost::asio::ip::udp::endpoint sender;
  unsigned char buffer[1024] = {};
  std::vector<MorlNode*> nodes;
};
