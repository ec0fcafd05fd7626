#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
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
/// port other than 5353. A device multicasts each record at most once a second;
/// unicast replies go only to sources on the link the query came in on, and to
/// each source for at most a few queries a second (past that, by multicast when
/// it asked from port 5353). Single-threaded, like the context.
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
  using Clock = std::chrono::steady_clock;
  struct Device;
  /// The unicast replies left to a source, as of `at`.
  struct Budget {
    double tokens = 0;
    Clock::time_point at;
  };
  void receiveGroup();
  void receiveDirect(Device& device);
  /// Answers the query heard on interface `ifindex`: by every device on it, or only by `direct`.
  void answer(const MdnsQuery& query, const boost::asio::ip::udp::endpoint& from,
              unsigned int ifindex, Device* direct);
  void reply(Device& device, const MdnsQuery& query, MdnsRecords records,
             const boost::asio::ip::udp::endpoint& to);
  /// Queues multicast answers; they go at once, or after the shared records' delay.
  void multicast(Device& device, MdnsRecords records, bool delay);
  /// Multicasts what is queued, less the records multicast in the last second.
  void flush(Device& device);
  bool onLink(unsigned int ifindex, std::uint32_t source);
  /// Spends one of the source's unicast replies (one-shot queries on a budget of their own).
  bool takeUnicastToken(std::uint32_t source, bool legacy);
  void announce(bool goodbye);

  boost::asio::ip::udp::socket group;
  boost::asio::steady_timer timer;
  std::vector<std::unique_ptr<Device>> devices;
  /// Address and mask of every IPv4 address of each interface, re-read when a
  /// source matches none (at most once a second).
  std::map<unsigned int, std::vector<std::pair<std::uint32_t, std::uint32_t>>> subnets;
  Clock::time_point subnetsRead;
  std::unordered_map<std::uint64_t, Budget> budgets;
  Clock::time_point budgetsSwept;
};
