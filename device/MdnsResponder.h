#pragma once

#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "device/DeviceConfig.h"
#include "device/MdnsMessage.h"

/// The mDNS side of every device of the process. Each device has a socket on
/// its own address and port 5353 that every reply and announcement leaves
/// from (and that hears queries sent to that address); one socket on the group
/// hears the multicast queries for all of them, and each device on the
/// interface a query came in on answers it. Replies go by multicast, by
/// unicast when a question asks for it or the query came by unicast, and to
/// the querier's own port, with its ID and questions, when it asked from a
/// port other than 5353. Single-threaded, like the context.
class MdnsResponder {
 public:
  /// Binds every socket; throws std::exception when one cannot be opened.
  MdnsResponder(boost::asio::io_context& context, const std::vector<const DeviceConfig*>& devices);
  ~MdnsResponder();
  /// Starts hearing queries and announces every device twice, a second apart.
  void start();
  /// Sends every device's goodbye and closes the sockets.
  void stop();

 private:
  struct Device;
  void receiveGroup();
  void receiveDirect(Device& device);
  void answer(Device& device, const MdnsQuery& query, const boost::asio::ip::udp::endpoint& from,
              bool direct);
  void announce(bool goodbye);

  boost::asio::ip::udp::socket group;
  boost::asio::steady_timer timer;
  std::vector<std::unique_ptr<Device>> devices;
};
