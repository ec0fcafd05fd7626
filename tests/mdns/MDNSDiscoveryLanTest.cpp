#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "RequireLan.h"
#include "mdns/MDNSDiscovery.h"
#include "qm/log.h"

namespace {

using Addresses = std::vector<std::string>;

Addresses found() {
  Addresses ips;
  for (const auto& e : MDNS_Discover::entries) ips.push_back(e.ip);
  return ips;
}

// Debug log lines written while it lives; text() ends the capture.
class LogCapture {
 public:
  LogCapture() {
    logEnable(true);
    testing::internal::CaptureStdout();
  }
  std::string text() {
    std::fflush(stdout);
    logEnable(false);
    return testing::internal::GetCapturedStdout();
  }
};

int openHandles() {
  int n = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir)) ++n;
    closedir(dir);
  }
  return n;
}

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

// Leaves the finder only its loopback addresses 127.0.0.1 and ::1.
bool cutFinderFromLan(Lan& lan) {
  return lan.run("finder", {"ip", "link", "del", "eth0"}).status == 0;
}

const char* const kTwoSocketLog =
    "Local IPv4 address: 0.0.0.0\n"
    "Local IPv6 address: ::\n"
    "mDNS socket count: 2, querying...\n";

TEST(MDNSDiscoverLan, OneResponderGivesItsAddressAndTheIPv6Fragment) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_GT(lan.startMdnsResponder(Lan::device(20), "dev20"), 0);
  ASSERT_TRUE(lan.enter("finder"));
  MDNS_Discover::entries = {Entry{"stale", "", "", ""}};
  EXPECT_EQ(MDNS_Discover().discover(1), 1);
  // The responder also answers the IPv6 query; that sender is kept as "[fe80".
  EXPECT_EQ(found(), (Addresses{"10.0.0.20", "[fe80"}));
}

TEST(MDNSDiscoverLan, TwoRespondersGiveTwoRecordsInTextOrder) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({9, 10});
  ASSERT_TRUE(lan.ok());
  ASSERT_GT(lan.startMdnsResponder(Lan::device(9), "dev9"), 0);
  ASSERT_GT(lan.startMdnsResponder(Lan::device(10), "dev10"), 0);
  ASSERT_TRUE(lan.enter("finder"));
  EXPECT_EQ(MDNS_Discover().discover(1), 1);
  EXPECT_EQ(found(), (Addresses{"10.0.0.10", "10.0.0.9", "[fe80"}));
}

TEST(MDNSDiscoverLan, SeveralRecordsFromOneResponderGiveOneRecord) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_GT(lan.startMdnsResponder(Lan::device(20), "dev20"), 0);
  ASSERT_TRUE(lan.enter("finder"));
  MDNS_Discover discoverer;
  // Before sorting and thinning, every record of the reply stands on its own.
  ASSERT_EQ(discoverer.send_mdns_request(1), 1);
  const Addresses raw = found();
  EXPECT_GE(std::count(raw.begin(), raw.end(), "10.0.0.20"), 2) << testing::PrintToString(raw);
  EXPECT_EQ(discoverer.discover(1), 1);
  EXPECT_EQ(found(), (Addresses{"10.0.0.20", "[fe80"}));
}

TEST(MDNSDiscoverLan, OnlyLoopbackAddressesOpenNoSocket) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(cutFinderFromLan(lan));
  ASSERT_TRUE(lan.enter("finder"));
  MDNS_Discover::entries = {Entry{"stale", "", "", ""}};
  MDNS_Discover discoverer;
  LogCapture log;
  EXPECT_EQ(discoverer.discover(0), 0);
  EXPECT_EQ(log.text(), "Failed to open any client sockets\n");
  EXPECT_EQ(found(), Addresses{});
  EXPECT_EQ(discoverer.hasIPv4, 0);
  EXPECT_EQ(discoverer.hasIPv6, 0);
}

TEST(MDNSDiscoverLan, SecondLoopbackAddressGetsASocket) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(cutFinderFromLan(lan));
  ASSERT_EQ(lan.run("finder", {"ip", "addr", "add", "127.0.0.2/8", "dev", "lo"}).status, 0);
  ASSERT_TRUE(lan.enter("finder"));
  MDNS_Discover discoverer;
  int sockets[32] = {};
  {
    LogCapture log;
    ASSERT_EQ(discoverer.open_client_sockets(sockets, 32, 0), 1);
    EXPECT_EQ(log.text(), "Local IPv4 address: 0.0.0.0\n");
  }
  EXPECT_EQ(discoverer.firstIPv4, inet_addr("127.0.0.2"));
  EXPECT_EQ(discoverer.hasIPv4, 1);
  EXPECT_EQ(discoverer.hasIPv6, 0);
  EXPECT_TRUE(fcntl(sockets[0], F_GETFL) & O_NONBLOCK);
  sockaddr_in bound{};
  socklen_t length = sizeof bound;
  ASSERT_EQ(getsockname(sockets[0], reinterpret_cast<sockaddr*>(&bound), &length), 0);
  EXPECT_EQ(bound.sin_family, AF_INET);
  EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_NE(bound.sin_port, 0);
  close(sockets[0]);

  LogCapture log;
  EXPECT_EQ(discoverer.discover(0), 1);
  EXPECT_EQ(log.text(),
            "Local IPv4 address: 0.0.0.0\n"
            "mDNS socket count: 1, querying...\n"
            "Reading mDNS replies\n"
            "Sockets closed\n");
}

TEST(MDNSDiscoverLan, ThirtyTwoSocketsAtMost) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(cutFinderFromLan(lan));
  ASSERT_EQ(lan.run("finder", {"sh", "-c",
                               "for i in $(seq 1 40); do ip addr add 10.9.0.$i/32 dev lo || "
                               "exit 1; done"})
                .status,
            0);
  ASSERT_TRUE(lan.enter("finder"));
  const int handles = openHandles();
  int sockets[32] = {};
  {
    MDNS_Discover discoverer;
    LogCapture log;
    ASSERT_EQ(discoverer.open_client_sockets(sockets, 32, 0), 32);
    std::string expected;
    for (int i = 0; i < 32; ++i) expected += "Local IPv4 address: 0.0.0.0\n";
    EXPECT_EQ(log.text(), expected);
    EXPECT_EQ(discoverer.firstIPv4, inet_addr("10.9.0.1"));
    EXPECT_EQ(openHandles(), handles + 32);
    for (int s : sockets) close(s);
  }
  {
    // With no room at all, only the first address is reported, as it stands.
    MDNS_Discover discoverer;
    LogCapture log;
    EXPECT_EQ(discoverer.open_client_sockets(sockets, 0, 0), 0);
    EXPECT_EQ(log.text(), "Local IPv4 address: 10.9.0.1\n");
    EXPECT_EQ(discoverer.firstIPv4, inet_addr("10.9.0.1"));
  }
  EXPECT_EQ(openHandles(), handles);
}

TEST(MDNSDiscoverLan, ZeroWaitEndsAtOnceAndOneSecondOfSilenceIsWaitedOut) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(lan.enter("finder"));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(MDNS_Discover().discover(0), 1);
  EXPECT_LT(millisecondsSince(start), 500);
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(MDNS_Discover().discover(1), 1);
  EXPECT_GE(millisecondsSince(start), 1000);
  EXPECT_EQ(found(), Addresses{});
}

// Answers the first query it hears with one A record, four times, 0.6 s apart.
const char* kSlowResponder =
    "import socket,struct,time\n"
    "s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)\n"
    "s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1)\n"
    "s.bind(('0.0.0.0',5353))\n"
    "s.setsockopt(socket.IPPROTO_IP,socket.IP_ADD_MEMBERSHIP,"
    "socket.inet_aton('224.0.0.251')+socket.inet_aton('0.0.0.0'))\n"
    "d,a=s.recvfrom(2048)\n"
    "r=struct.pack('>6H',0,0x8400,0,1,0,0)+b'\\x03dev\\x00'+struct.pack('>HHIH',1,1,120,4)"
    "+socket.inet_aton('10.0.0.20')\n"
    "for i in range(4):\n"
    "  time.sleep(0.6)\n"
    "  s.sendto(r,a)\n";

TEST(MDNSDiscoverLan, EveryReplyRestartsTheSilenceTimeSlow) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  lan.spawn(Lan::device(20), {"/usr/bin/python3", "-c", kSlowResponder});
  ASSERT_TRUE(lan.waitForPort(Lan::device(20), "udp", 5353));
  ASSERT_TRUE(lan.enter("finder"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(MDNS_Discover().send_mdns_request(1), 1);
  EXPECT_GE(millisecondsSince(start), 3400);
  EXPECT_EQ(found(), Addresses(4, "10.0.0.20"));
}

TEST(MDNSDiscoverLan, VerboseLogOfOneIPv4AndOneIPv6Socket) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  ASSERT_TRUE(lan.enter("finder"));
  LogCapture log;
  EXPECT_EQ(MDNS_Discover().discover(0), 1);
  EXPECT_EQ(log.text(), std::string(kTwoSocketLog) + "Reading mDNS replies\nSockets closed\n");
}

TEST(MDNSDiscoverLan, FailedQueryClosesEverySocket) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({20});
  ASSERT_TRUE(lan.ok());
  // IPv6 datagrams to port 5353 are refused by routing, after the group was
  // joined; the IPv4 query, sent first, goes out.
  for (std::vector<std::string> rule :
       {std::vector<std::string>{"add", "pref", "100", "table", "local"},
        {"del", "pref", "0", "table", "local"},
        {"add", "pref", "10", "ipproto", "udp", "dport", "5353", "prohibit"}}) {
    rule.insert(rule.begin(), {"ip", "-6", "rule"});
    ASSERT_EQ(lan.run("finder", rule).status, 0);
  }
  ASSERT_TRUE(lan.enter("finder"));
  MDNS_Discover::entries = {Entry{"stale", "", "", ""}};
  const int handles = openHandles();
  LogCapture log;
  EXPECT_EQ(MDNS_Discover().discover(0), 0);
  EXPECT_EQ(log.text(),
            std::string(kTwoSocketLog) + "Failed to send mDNS query: Permission denied\n");
  EXPECT_EQ(openHandles(), handles);
  EXPECT_EQ(found(), Addresses{});
}

}  // namespace
