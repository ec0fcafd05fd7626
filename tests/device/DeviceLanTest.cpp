#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "VarnockOnLan.h"
#include "mdns/MDNSDiscovery.h"

// varnock-device on the simulated LAN, asked by varnock and by independent
// mDNS clients.

namespace {

using Bytes = std::vector<unsigned char>;
const std::string kUuid = "0102030405060708090a0b0c";

/// Sends `query` to the mDNS group from a socket on `port` of the calling
/// thread's namespace that hears only unicast; returns the first reply and its sender.
Bytes ask(const Bytes& query, unsigned short port, sockaddr_in& from) {
  const int sock = socket(AF_INET, SOCK_DGRAM, 0);
  const int on = 1, off = 0;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  setsockopt(sock, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
  timeval wait{3, 0};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  sockaddr_in local{AF_INET, htons(port), {}, {}}, group{AF_INET, htons(kMdnsPort), {}, {}};
  group.sin_addr.s_addr = inet_addr("224.0.0.251");
  bind(sock, reinterpret_cast<sockaddr*>(&local), sizeof local);
  sendto(sock, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&group), sizeof group);
  Bytes reply(2048);
  socklen_t length = sizeof from;
  const ssize_t n =
      recvfrom(sock, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
  close(sock);
  reply.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return reply;
}

}  // namespace

// A plain device is listed by plain varnock; varnock --mdns (a one-shot query),
// avahi-browse and python3-zeroconf resolve it to its address and port. A query
// from port 5353 asking for a unicast reply gets one; a one-shot query gets its
// ID and question back.
TEST(DeviceLan, IndependentMdnsClientsResolveTheDevice) {
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

  ASSERT_TRUE(lan.enter("d3"));
  Bytes query(64);
  query.resize(mdns_build_query(query.data(), query.size(), 0x8001));
  sockaddr_in from{};
  const Bytes unicast = ask(query, kMdnsPort, from);
  EXPECT_EQ(std::string(inet_ntoa(from.sin_addr)) + ":" + std::to_string(ntohs(from.sin_port)),
            "10.0.0.2:5353");
  MDNS_Discover::entries.clear();
  EXPECT_EQ(mdns_read_reply(unicast.data(), unicast.size(), reinterpret_cast<sockaddr*>(&from),
                            sizeof from),
            4u)
      << "PTR, SRV, TXT and A";
  query[0] = 0x12, query[1] = 0x34, query[query.size() - 2] = 0;  // ID 0x1234, class IN
  const Bytes legacy = ask(query, 40000, from);
  ASSERT_GT(legacy.size(), query.size());
  EXPECT_EQ(Bytes(legacy.begin(), legacy.begin() + 2), Bytes({0x12, 0x34}));
  EXPECT_EQ(Bytes(legacy.begin() + 4, legacy.begin() + 6), Bytes({0, 1}));
  EXPECT_EQ(Bytes(legacy.begin() + 12, legacy.begin() + query.size()),
            Bytes(query.begin() + 12, query.end()));
  EXPECT_EQ(lan.stop(device), 0);
}

// Three devices of one site file in one process, on three addresses of one
// node, and one more process on a fourth: each is found by the methods it
// runs, from its own address, with its own fields.
TEST(DeviceLan, SiteDevicesAnswerEachFromItsOwnAddress) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  for (const char* address : {"10.0.0.3/24", "10.0.0.4/24", "10.0.0.5/24"})
    ASSERT_EQ(lan.run("d2", {"ip", "addr", "add", address, "dev", "eth0"}).status, 0);
  const std::string site = lan.scratchFile("site.json");
  ASSERT_EQ(lan.run("d2", {"sh", "-c", R"(cat >)" + site + R"( <<'J'
{"defaults": {"software-version": "3.1"},
 "devices": [
  {"address": "10.0.0.2", "name": "Site-A", "services": ["0:1"], "mdns": false},
  {"address": "10.0.0.3", "name": "Site-B", "morl": false},
  {"address": "10.0.0.4", "name": "Site-C", "services": ["1:1", "3:1"]}]}
J
)"})
                .status,
            0);
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
  EXPECT_EQ(lan.stop(sitePid), 0);
  EXPECT_EQ(lan.stop(one), 0);
  EXPECT_EQ(Lan::readText(lan.scratchFile("site")), "ready\n");
}
