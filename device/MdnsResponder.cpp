#include "device/MdnsResponder.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <tuple>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/multicast.hpp>

#include "device/NamedBind.h"

namespace asio = boost::asio;
using asio::ip::udp;

struct MdnsResponder::Device {
  explicit Device(asio::io_context& context) : socket(context), delay(context) {}
  MdnsIdentity identity;
  unsigned int ifindex = 0;
  udp::socket socket;
  udp::endpoint from;
  std::uint8_t buffer[9000];
  /// When each record (by its bit's position) was last multicast.
  Clock::time_point multicastAt[4];
  MdnsRecords queued;
  asio::steady_timer delay;
  bool delaying = false;
};

namespace {

void setOption(int fd, int level, int name, int value) {
  if (setsockopt(fd, level, name, &value, sizeof value) != 0)
    throw std::runtime_error(std::string("mDNS socket option: ") + std::strerror(errno));
}

// A record is multicast on an interface at most once a second (RFC 6762,
// section 6). A source gets unicast replies to kBurst queries at once, then to
// kPerSecond a second, one-shot queries and the others each on their own
// budget: varnock asks once a run, so it never runs out.
constexpr auto kMulticastGap = std::chrono::seconds(1);
constexpr double kBurst = 8, kPerSecond = 2;
constexpr std::size_t kMaxSources = 4096;

/// Interface index, address and mask (host order) of every IPv4 address of the host.
std::vector<std::tuple<unsigned int, std::uint32_t, std::uint32_t>> addresses() {
  std::vector<std::tuple<unsigned int, std::uint32_t, std::uint32_t>> found;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return found;
  auto v4 = [](const sockaddr* a) {
    return a && a->sa_family == AF_INET
               ? ntohl(reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr)
               : 0xFFFFFFFFu;
  };
  for (ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next)
    if (ifa->ifa_addr && ifa->ifa_addr->sa_family == AF_INET)
      found.emplace_back(if_nametoindex(ifa->ifa_name), v4(ifa->ifa_addr), v4(ifa->ifa_netmask));
  freeifaddrs(list);
  return found;
}

// Every device holds the service's PTR record, so all would answer at the
// same moment: each waits a random 20 to 120 ms first (RFC 6762, section 6).
std::chrono::milliseconds sharedDelay() {
  static std::minstd_rand random{std::random_device{}()};
  return std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 120)(random));
}

udp::endpoint groupEndpoint() { return {asio::ip::address_v4(kGroupIPv4), kMdnsPort}; }

}  // namespace

MdnsResponder::MdnsResponder(asio::io_context& context,
                             const std::vector<const DeviceConfig*>& configs)
    : group(context), timer(context) {
  std::map<unsigned int, unsigned int> host;
  for (const auto& [index, address, mask] : addresses()) host.emplace(address, index);
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
  for (auto& device : devices) device->delay.cancel();
  announce(true);
  boost::system::error_code ignored;
  group.close(ignored);
  for (auto& device : devices) device->socket.close(ignored);
}

void MdnsResponder::announce(bool goodbye) {
  for (auto& device : devices) {
    if (!goodbye) {
      multicast(*device, {kMdnsAll, 0}, false);
      continue;
    }
    boost::system::error_code ignored;
    device->socket.send_to(asio::buffer(encodeMdnsAnnouncement(device->identity, true)),
                           groupEndpoint(), 0, ignored);
  }
}

void MdnsResponder::receiveGroup() {
  group.async_wait(udp::socket::wait_read, [this](const boost::system::error_code& error) {
    if (error) return;
    // Up to 64 datagrams a wake-up: under a flood, one each costs more than reading them.
    for (int i = 0; i < 64; ++i) {
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
      if (size < 0) break;
      unsigned int ifindex = 0;
      for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c))
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO)
          ifindex = static_cast<unsigned int>(
              reinterpret_cast<const in_pktinfo*>(CMSG_DATA(c))->ipi_ifindex);
      if (auto query = parseMdnsQuery(buffer, static_cast<std::size_t>(size)))
        answer(
            *query,
            udp::endpoint(asio::ip::address_v4(ntohl(from.sin_addr.s_addr)), ntohs(from.sin_port)),
            ifindex, nullptr);
    }
    receiveGroup();
  });
}

void MdnsResponder::receiveDirect(Device& device) {
  device.socket.async_receive_from(
      asio::buffer(device.buffer), device.from,
      [this, &device](const boost::system::error_code& error, std::size_t size) {
        if (error == asio::error::operation_aborted || !device.socket.is_open()) return;
        if (!error && device.from.address().is_v4())
          if (auto query = parseMdnsQuery(device.buffer, size))
            answer(*query, device.from, device.ifindex, &device);
        receiveDirect(device);
      });
}

void MdnsResponder::answer(const MdnsQuery& query, const udp::endpoint& from, unsigned int ifindex,
                           Device* direct) {
  const bool legacy = from.port() != kMdnsPort;
  bool unicast = legacy || direct;
  for (const MdnsQuestion& q : query.questions) unicast = unicast || q.unicastResponse;
  const std::uint32_t source = from.address().to_v4().to_uint();
  // A unicast reply only to a source on the link (RFC 6762, section 11), so
  // that no host elsewhere can aim the devices' replies at a third party.
  if (unicast && !onLink(ifindex, source)) return;
  const bool shared = asksSharedRecords(query);
  bool budgeted = false;  // whether a unicast reply was paid for, once a device answers
  for (auto& device : devices) {
    if (direct ? device.get() != direct : device->ifindex != ifindex) continue;
    const MdnsRecords records = mdnsAnswerTo(device->identity, query);
    if (!records.answers) continue;
    if (unicast && !budgeted) {
      budgeted = true;
      // Past its budget, a querier on port 5353 hears the answer by multicast;
      // a one-shot querier, which does not, hears nothing.
      unicast = takeUnicastToken(source, legacy);
      if (!unicast && legacy) return;
    }
    if (unicast)
      reply(*device, query, records, from);
    else
      multicast(*device, records, shared);
  }
}

void MdnsResponder::reply(Device& device, const MdnsQuery& query, MdnsRecords records,
                          const udp::endpoint& to) {
  auto bytes = std::make_shared<std::vector<std::uint8_t>>(
      encodeMdnsAnswer(device.identity, records, to.port() != kMdnsPort ? &query : nullptr));
  if (!asksSharedRecords(query)) {
    device.socket.async_send_to(asio::buffer(*bytes), to,
                                [bytes](const boost::system::error_code&, std::size_t) {});
    return;
  }
  auto delay = std::make_shared<asio::steady_timer>(device.socket.get_executor(), sharedDelay());
  delay->async_wait([&device, bytes, to, delay](const boost::system::error_code& error) {
    if (error) return;
    device.socket.async_send_to(asio::buffer(*bytes), to,
                                [bytes](const boost::system::error_code&, std::size_t) {});
  });
}

void MdnsResponder::multicast(Device& device, MdnsRecords records, bool delay) {
  device.queued.answers |= records.answers;
  device.queued.additionals |= records.additionals;
  if (device.delaying) return;
  if (!delay) return flush(device);
  device.delaying = true;
  device.delay.expires_after(sharedDelay());
  device.delay.async_wait([this, &device](const boost::system::error_code& error) {
    if (error) return;
    device.delaying = false;
    flush(device);
  });
}

void MdnsResponder::flush(Device& device) {
  const Clock::time_point now = Clock::now();
  unsigned recent = 0;
  for (unsigned i = 0; i < 4; ++i)
    if (device.multicastAt[i] != Clock::time_point() && now - device.multicastAt[i] < kMulticastGap)
      recent |= 1u << i;
  const MdnsRecords records{device.queued.answers & ~recent, device.queued.additionals & ~recent};
  device.queued = {};
  auto bytes =
      std::make_shared<std::vector<std::uint8_t>>(encodeMdnsAnswer(device.identity, records));
  if (bytes->empty()) return;
  for (unsigned i = 0; i < 4; ++i)
    if ((records.answers | records.additionals) & 1u << i) device.multicastAt[i] = now;
  device.socket.async_send_to(asio::buffer(*bytes), groupEndpoint(),
                              [bytes](const boost::system::error_code&, std::size_t) {});
}

bool MdnsResponder::onLink(unsigned int ifindex, std::uint32_t source) {
  if (source >> 16 == 0xA9FE) return true;  // 169.254/16, link-local by definition
  for (bool reread : {false, true}) {
    if (reread) {
      const Clock::time_point now = Clock::now();
      if (now - subnetsRead < std::chrono::seconds(1)) return false;
      subnetsRead = now;
      subnets.clear();
      for (const auto& [index, address, mask] : addresses())
        subnets[index].emplace_back(address, mask);
    }
    for (const auto& [address, mask] : subnets[ifindex])
      if (((source ^ address) & mask) == 0) return true;
  }
  return false;
}

bool MdnsResponder::takeUnicastToken(std::uint32_t source, bool legacy) {
  const Clock::time_point now = Clock::now();
  auto refilled = [&](const Budget& b) {
    return std::min(kBurst,
                    b.tokens + std::chrono::duration<double>(now - b.at).count() * kPerSecond);
  };
  const std::uint64_t key = std::uint64_t{source} << 1 | legacy;
  auto found = budgets.find(key);
  if (found == budgets.end()) {
    // Idle sources make room, looked for at most once a second.
    if (budgets.size() >= kMaxSources && now - budgetsSwept >= std::chrono::seconds(1)) {
      budgetsSwept = now;
      for (auto it = budgets.begin(); it != budgets.end();)
        it = refilled(it->second) >= kBurst ? budgets.erase(it) : std::next(it);
    }
    if (budgets.size() >= kMaxSources) return false;
    found = budgets.emplace(key, Budget{kBurst, now}).first;
  }
  Budget& budget = found->second;
  budget.tokens = refilled(budget);
  budget.at = now;
  if (budget.tokens < 1) return false;
  budget.tokens -= 1;
  return true;
}
