#include "device/MdnsResponder.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/multicast.hpp>

#include "device/NamedBind.h"

namespace asio = boost::asio;
using asio::ip::udp;

struct MdnsResponder::Device {
  explicit Device(asio::io_context& context) : socket(context) {}
  MdnsIdentity identity;
  unsigned int ifindex = 0;
  udp::socket socket;
  udp::endpoint from;
  std::uint8_t buffer[9000];
};

namespace {

void setOption(int fd, int level, int name, int value) {
  if (setsockopt(fd, level, name, &value, sizeof value) != 0)
    throw std::runtime_error(std::string("mDNS socket option: ") + std::strerror(errno));
}

/// Interface index of every IPv4 address of the host.
std::map<unsigned int, unsigned int> interfaces() {
  std::map<unsigned int, unsigned int> found;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return found;
  for (ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next)
    if (ifa->ifa_addr && ifa->ifa_addr->sa_family == AF_INET)
      found.emplace(ntohl(reinterpret_cast<sockaddr_in*>(ifa->ifa_addr)->sin_addr.s_addr),
                    if_nametoindex(ifa->ifa_name));
  freeifaddrs(list);
  return found;
}

udp::endpoint groupEndpoint() { return {asio::ip::address_v4(kGroupIPv4), kMdnsPort}; }

}  // namespace

MdnsResponder::MdnsResponder(asio::io_context& context,
                             const std::vector<const DeviceConfig*>& configs)
    : group(context), timer(context) {
  const auto host = interfaces();
  group.open(udp::v4());
  group.set_option(asio::socket_base::reuse_address(true));
  setOption(group.native_handle(), SOL_SOCKET, SO_REUSEPORT, 1);
  setOption(group.native_handle(), IPPROTO_IP, IP_PKTINFO, 1);
  bindNamed(group, groupEndpoint());
  std::set<unsigned int> joined;
  for (const DeviceConfig* config : configs) {
    auto device = std::make_unique<Device>(context);
    unsigned int address = config->address;
    if (address == 0) {
      for (const auto& [a, index] : host)
        if (a >> 24 != 127) {
          address = a;
          break;
        }
      if (address == 0) throw std::runtime_error("mDNS: the host has no IPv4 address to announce");
    }
    auto found = host.find(address);
    device->ifindex = found == host.end() ? 0 : found->second;
    const std::string uuid = uuidText(config->uuid);
    device->identity = {config->name + "-" + uuid.substr(18),
                        "vd-" + uuid,
                        address,
                        config->httpPort,
                        {"uuid=" + uuid}};
    if (joined.insert(device->ifindex).second) {
      ip_mreqn request{};
      request.imr_multiaddr.s_addr = htonl(kGroupIPv4);
      request.imr_address.s_addr = htonl(address);
      request.imr_ifindex = static_cast<int>(device->ifindex);
      if (setsockopt(group.native_handle(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request,
                     sizeof request) != 0 &&
          errno != EADDRINUSE)
        throw std::runtime_error(std::string("mDNS group join: ") + std::strerror(errno));
    }
    udp::socket& socket = device->socket;
    socket.open(udp::v4());
    socket.set_option(asio::socket_base::reuse_address(true));
    setOption(socket.native_handle(), SOL_SOCKET, SO_REUSEPORT, 1);
    setOption(socket.native_handle(), IPPROTO_IP, IP_MULTICAST_TTL, 255);
    socket.set_option(asio::ip::multicast::outbound_interface(asio::ip::address_v4(address)));
    bindNamed(socket, {asio::ip::address_v4(address), kMdnsPort});
    devices.push_back(std::move(device));
  }
}

MdnsResponder::~MdnsResponder() = default;

void MdnsResponder::start() {
  receiveGroup();
  for (auto& device : devices) receiveDirect(*device);
  announce(false);
  timer.expires_after(std::chrono::seconds(1));
  timer.async_wait([this](const boost::system::error_code& error) {
    if (!error) announce(false);
  });
}

void MdnsResponder::stop() {
  timer.cancel();
  announce(true);
  boost::system::error_code ignored;
  group.close(ignored);
  for (auto& device : devices) device->socket.close(ignored);
}

void MdnsResponder::announce(bool goodbye) {
  for (auto& device : devices) {
    boost::system::error_code ignored;
    device->socket.send_to(asio::buffer(encodeMdnsAnnouncement(device->identity, goodbye)),
                           groupEndpoint(), 0, ignored);
  }
}

void MdnsResponder::receiveGroup() {
  group.async_wait(udp::socket::wait_read, [this](const boost::system::error_code& error) {
    if (error) return;
    std::uint8_t buffer[9000];
    sockaddr_in from{};
    char control[CMSG_SPACE(sizeof(in_pktinfo))];
    iovec part{buffer, sizeof buffer};
    msghdr header{};
    header.msg_name = &from;
    header.msg_namelen = sizeof from;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t size = recvmsg(group.native_handle(), &header, MSG_DONTWAIT);
    if (size > 0) {
      unsigned int ifindex = 0;
      for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c))
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO)
          ifindex = static_cast<unsigned int>(
              reinterpret_cast<const in_pktinfo*>(CMSG_DATA(c))->ipi_ifindex);
      if (auto query = parseMdnsQuery(buffer, static_cast<std::size_t>(size))) {
        const udp::endpoint sender(asio::ip::address_v4(ntohl(from.sin_addr.s_addr)),
                                   ntohs(from.sin_port));
        for (auto& device : devices)
          if (device->ifindex == ifindex) answer(*device, *query, sender, false);
      }
    }
    receiveGroup();
  });
}

void MdnsResponder::receiveDirect(Device& device) {
  device.socket.async_receive_from(
      asio::buffer(device.buffer), device.from,
      [this, &device](const boost::system::error_code& error, std::size_t size) {
        if (error == asio::error::operation_aborted || !device.socket.is_open()) return;
        if (!error)
          if (auto query = parseMdnsQuery(device.buffer, size))
            answer(device, *query, device.from, true);
        receiveDirect(device);
      });
}

void MdnsResponder::answer(Device& device, const MdnsQuery& query, const udp::endpoint& from,
                           bool direct) {
  const bool legacy = from.port() != kMdnsPort;
  auto reply =
      std::make_shared<std::vector<std::uint8_t>>(encodeMdnsAnswer(device.identity, query, legacy));
  if (reply->empty()) return;
  bool unicast = legacy || direct;
  for (const MdnsQuestion& q : query.questions) unicast = unicast || q.unicastResponse;
  const udp::endpoint to = unicast ? from : groupEndpoint();
  if (!asksSharedRecords(query)) {
    device.socket.async_send_to(asio::buffer(*reply), to,
                                [reply](const boost::system::error_code&, std::size_t) {});
    return;
  }
  // Every device holds the service's PTR record, so all would answer at the
  // same moment: each waits a random 20 to 120 ms first (RFC 6762, section 6).
  static std::minstd_rand random{std::random_device{}()};
  auto delay = std::make_shared<asio::steady_timer>(
      device.socket.get_executor(),
      std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 120)(random)));
  delay->async_wait([&device, reply, to, delay](const boost::system::error_code& error) {
    if (error) return;
    device.socket.async_send_to(asio::buffer(*reply), to,
                                [reply](const boost::system::error_code&, std::size_t) {});
  });
}
