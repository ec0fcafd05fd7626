#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <fstream>

#include "VarnockOnLan.h"
#include "mdns/MDNSDiscovery.h"
#include "tests/mdns/MDNSDatagram.h"

// varnock-device on the simulated LAN, asked by varnock and by independent
// mDNS clients.

namespace {

const std::string kUuid = "0102030405060708090a0b0c";

/// A UDP socket of the calling thread's namespace on `address` and `port` whose reads give up after
/// `waitMs`; it hears only unicast, or the mDNS group too when `join`.
int openSocket(const char* address, unsigned short port, int waitMs, bool join = false) {
  const int sock = socket(AF_INET, SOCK_DGRAM, 0);
  const int on = 1, off = 0;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  setsockopt(sock, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
  timeval wait{waitMs / 1000, waitMs % 1000 * 1000};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  sockaddr_in local{AF_INET, htons(port), {inet_addr(address)}, {}};
  if (join) {
    ip_mreq request{{inet_addr("224.0.0.251")}, {inet_addr(address)}};
    setsockopt(sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
    local.sin_addr.s_addr = INADDR_ANY;
  }
  bind(sock, reinterpret_cast<sockaddr*>(&local), sizeof local);
  return sock;
}

void sendToGroup(int sock, const Bytes& query) {
  sockaddr_in group{AF_INET, htons(kMdnsPort), {inet_addr("224.0.0.251")}, {}};
  sendto(sock, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&group), sizeof group);
}

/// The next datagram and its sender; empty when none comes in time.
Bytes receive(int sock, sockaddr_in& from) {
  Bytes reply(2048);
  socklen_t length = sizeof from;
  const ssize_t n =
      recvfrom(sock, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
  reply.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return reply;
}

Bytes ptrQuery(std::uint16_t qclass) {
  Bytes query(64);
  query.resize(mdns_build_query(query.data(), query.size(), qclass));
  return query;
}

}  // namespace

// A plain device is listed by plain varnock; varnock --mdns (a one-shot query),
// avahi-browse and python3-zeroconf resolve it to its address and port. A query
// asking for a unicast reply (from port 5353) or a one-shot query gets one from
// 10.0.0.2:5353 when its source is on the link, with its ID and question back
// for a one-shot query; from an address off the device's subnet (one more
// address of the finder, as if behind a router) it gets none.
TEST(DeviceLan, MdnsClientsResolveTheDeviceAndOnlySourcesOnTheLinkGetUnicastReplies) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3});
  ASSERT_TRUE(lan.ok());
  const pid_t device = startDevice(lan, "d2", {"--uuid", kUuid, "--name", "Pallor-2"}, "d2");
  ASSERT_GT(device, 0);
  const std::string listed =
      "       10.0.0.2:                       Pallor-2               1.0.0\n";
  for (const Args& args : {Args{"-M", "1", "-T", "1"}, Args{"--mdns", "-M", "1"}}) {
    const Lan::Result r = varnock(lan, args);
    EXPECT_EQ(r.out + r.err, listed) << args[0];
  }
  const Lan::Result avahi = lan.run("d3", {Lan::script("hosts/avahi-browse.sh"), lan.ns("d3")});
  EXPECT_EQ(avahi.out, "=;eth0;IPv4;Pallor-2-0a0b0c;Web Site;local;vd-" + kUuid +
                           ".local;10.0.0.2;80;\"uuid=" + kUuid + "\"\n")
      << avahi.err;
  const Lan::Result zeroconf =
      lan.run("d3", {"/usr/bin/python3", Lan::script("hosts/zeroconf-browse.py"), "2"});
  EXPECT_EQ(zeroconf.out, "Pallor-2-0a0b0c._http._tcp.local. vd-" + kUuid +
                              ".local. 10.0.0.2 80 ['uuid=" + kUuid + "']\n")
      << zeroconf.err;

  ASSERT_EQ(lan.run("finder", {"ip", "addr", "add", "10.99.0.2/32", "dev", "eth0"}).status, 0);
  ASSERT_TRUE(lan.enter("finder"));
  const struct {
    const char* source;
    unsigned short port;
  } cases[] = {
      {"10.0.0.1", 40000}, {"10.99.0.2", 40000}, {"10.0.0.1", kMdnsPort}, {"10.99.0.2", kMdnsPort}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.source) + ":" + std::to_string(c.port));
    const bool oneShot = c.port != kMdnsPort, onLink = c.source == std::string("10.0.0.1");
    Bytes query = ptrQuery(oneShot ? 1 : 0x8001);
    if (oneShot) query[0] = 0x12, query[1] = 0x34;
    sockaddr_in from{};
    const int sock = openSocket(c.source, c.port, onLink ? 3000 : 1000);
    sendToGroup(sock, query);
    const Bytes reply = receive(sock, from);
    close(sock);
    ASSERT_EQ(reply.empty(), !onLink);
    if (!onLink) continue;
    EXPECT_EQ(std::string(inet_ntoa(from.sin_addr)) + ":" + std::to_string(ntohs(from.sin_port)),
              "10.0.0.2:5353");
    MDNS_Discover::entries.clear();
    const auto* sender = reinterpret_cast<sockaddr*>(&from);
    if (!oneShot) {
      EXPECT_EQ(mdns_read_reply(reply.data(), reply.size(), sender, sizeof from), 4u)
          << "PTR, SRV, TXT and A";
      continue;
    }
    ASSERT_GT(reply.size(), query.size());
    EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 6), Bytes({0x12, 0x34, 0x84, 0, 0, 1}));
    EXPECT_EQ(Bytes(reply.begin() + 12, reply.begin() + query.size()),
              Bytes(query.begin() + 12, query.end()));
  }
  EXPECT_EQ(lan.stop(device), 0);
}

// Three devices of one site file in one process, on three addresses of one
// node, and one more process on a fourth: each is found by the methods it
// runs, from its own address, with its own fields; a device on a taken
// address names the socket it could not bind.
TEST(DeviceLan, SiteDevicesAnswerEachFromItsOwnAddress) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  for (const char* address : {"10.0.0.3/24", "10.0.0.4/24", "10.0.0.5/24"})
    ASSERT_EQ(lan.run("d2", {"ip", "addr", "add", address, "dev", "eth0"}).status, 0);
  const std::string site = lan.scratchFile("site.json");
  std::ofstream(site) << R"({"defaults": {"software-version": "3.1"},
 "devices": [
  {"address": "10.0.0.2", "name": "Site-A", "services": ["0:1"], "mdns": false},
  {"address": "10.0.0.3", "name": "Site-B", "morl": false},
  {"address": "10.0.0.4", "name": "Site-C", "services": ["1:1", "3:1"]}]})";
  const pid_t sitePid = startDevice(lan, "d2", {"--site", site}, "site");
  const pid_t one = startDevice(
      lan, "d2", {"--address", "10.0.0.5", "--name", "Alone-D", "--service", "4:1"}, "one");
  ASSERT_GT(sitePid, 0);
  ASSERT_GT(one, 0);
  const std::string a = "       10.0.0.2:                         Site-A                 3.1\n",
                    b = "       10.0.0.3:                         Site-B                 3.1\n",
                    c = "       10.0.0.4:                         Site-C                 3.1\n",
                    d = "       10.0.0.5:                        Alone-D               1.0.0\n";
  const std::pair<Args, std::string> runs[] = {{{"-M", "1", "-T", "1"}, a + b + c + d},
                                               {{"--morl", "-T", "1", "-a"}, a + c + d},
                                               {{"--mdns", "-M", "1", "-a"}, b + c + d}};
  for (const auto& [args, out] : runs) {
    const Lan::Result r = varnock(lan, args);
    EXPECT_EQ(r.out + r.err, out) << args[0];
  }
  const Lan::Result taken =
      lan.run("d2", {kBin + "/device/varnock-device", "--address", "10.0.0.5"});
  EXPECT_EQ(std::to_string(taken.status) + " " + taken.err,
            "1 varnock-device: bind 10.0.0.5:80/tcp: Address already in use\n");
  EXPECT_EQ(lan.stop(sitePid), 0);
  EXPECT_EQ(lan.stop(one), 0);
  EXPECT_EQ(Lan::readText(lan.scratchFile("site")), "ready\n");
}

// Whatever it is asked, a device multicasts each record at most once a second
// (its PTR answer carries its SRV, TXT and A records too); on SIGTERM it
// multicasts every record with TTL 0.
TEST(DeviceLan, MulticastsEachRecordOnceASecondAndSaysGoodbye) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  const pid_t device = startDevice(lan, "d2", {"--uuid", kUuid, "--name", "Pallor-2"});
  ASSERT_GT(device, 0);
  ASSERT_TRUE(lan.enter("finder"));
  const int sock = openSocket("10.0.0.1", kMdnsPort, 100, true);
  usleep(2200 * 1000);  // past the two announcements, a second apart
  for (sockaddr_in from{}; !receive(sock, from).empty();) {
  }
  const Bytes host = name({"vd-" + kUuid, "local"}), ptr = ptrQuery(1),
              a = Bytes(5, 0) + Bytes{1} + Bytes(6, 0) + host + u16(1) + u16(1);
  const struct {
    int atMs;
    Bytes query;
    int answers;  // heard until the next step
  } steps[] = {{0, ptr, 1}, {600, ptr, 0}, {700, a, 0}, {1800, ptr, 1}, {2800, {}, 0}};
  const auto start = std::chrono::steady_clock::now();
  std::vector<int> expected, heard;
  for (size_t i = 0; i + 1 < std::size(steps); ++i) {
    sendToGroup(sock, steps[i].query);
    expected.push_back(steps[i].answers);
    heard.push_back(0);
    while (std::chrono::steady_clock::now() - start <
           std::chrono::milliseconds(steps[i + 1].atMs)) {
      sockaddr_in from{};
      const Bytes got = receive(sock, from);
      heard.back() +=
          got.size() > 2 && got[2] & 0x80 && from.sin_addr.s_addr == inet_addr("10.0.0.2");
    }
  }
  EXPECT_EQ(heard, expected);

  EXPECT_EQ(lan.stop(device), 0);
  sockaddr_in from{};
  Bytes goodbye;
  do goodbye = receive(sock, from);
  while (!goodbye.empty() && from.sin_addr.s_addr != inet_addr("10.0.0.2"));
  close(sock);
  const Bytes instance = name({"Pallor-2-0a0b0c", "_http", "_tcp", "local"}),
              txt{'u', 'u', 'i', 'd', '='};
  EXPECT_EQ(goodbye, header(0, 4, 0, 0) +
                         record(12, instance, -1, 0, 1, name({"_http", "_tcp", "local"})) +
                         record(33, Bytes(5, 0) + Bytes{0x50} + host, -1, 0, 0x8001, instance) +
                         record(16, Bytes{0x1d} + txt + Bytes(kUuid.begin(), kUuid.end()), -1, 0,
                                0x8001, instance) +
                         record(1, {10, 0, 0, 2}, -1, 0, 0x8001, host));
}
