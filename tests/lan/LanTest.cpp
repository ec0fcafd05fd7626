#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>

#include "TestLan.h"

namespace {

const char* kReceiver =
    "import socket,sys\n"
    "s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)\n"
    "s.bind(('0.0.0.0',4799))\n"
    "print('ready',flush=True)\n"
    "d,a=s.recvfrom(100)\n"
    "print(d.decode(),a[0],flush=True)\n";

const char* kSender =
    "import socket\n"
    "s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)\n"
    "s.setsockopt(socket.SOL_SOCKET,socket.SO_BROADCAST,1)\n"
    "s.sendto(b'hello',('255.255.255.255',4799))\n";

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string namespacesNamed(const std::string& prefix) {
  FILE* p = popen("ip netns list", "r");
  std::string found;
  char line[256];
  while (p && fgets(line, sizeof line, p))
    if (std::string(line).rfind(prefix, 0) == 0) found += line;
  if (p) pclose(p);
  return found;
}

}  // namespace

TEST(Lan, BroadcastFromFinderReachesEveryDeviceAndTeardownLeavesNothing) {
  VARNOCK_REQUIRE_LAN();
  std::string prefix;
  std::vector<pid_t> receivers;
  std::vector<std::string> logs;
  {
    TestLan lan({9, 10, 11});
    ASSERT_TRUE(lan.ok());
    prefix = lan.ns("finder").substr(0, lan.ns("finder").size() - 1);
    EXPECT_EQ(lan.ip(10), "10.0.0.10");
    for (int host : {9, 10, 11}) {
      logs.push_back("/tmp/varnock-lantest-" + std::to_string(getpid()) + "-" +
                     std::to_string(host));
      receivers.push_back(
          lan.spawn(TestLan::device(host), {"/usr/bin/python3", "-c", kReceiver}, logs.back()));
    }
    for (int host : {9, 10, 11}) ASSERT_TRUE(lan.waitForPort(TestLan::device(host), "udp", 4799));
    auto sent = lan.run("finder", {"/usr/bin/python3", "-c", kSender});
    ASSERT_EQ(sent.status, 0) << sent.err;
    for (pid_t pid : receivers) EXPECT_EQ(lan.stop(pid), 0);
    for (const auto& log : logs) EXPECT_EQ(slurp(log), "ready\nhello 10.0.0.1\n");
    EXPECT_FALSE(namespacesNamed(prefix).empty());
  }
  EXPECT_EQ(namespacesNamed(prefix), "");
  for (pid_t pid : receivers) EXPECT_NE(kill(pid, 0), 0);
  for (const auto& log : logs) std::remove(log.c_str());
}

TEST(Lan, DeviceAddressesOnASlash23) {
  VARNOCK_REQUIRE_LAN();
  TestLan lan({300}, 1);
  ASSERT_TRUE(lan.ok());
  EXPECT_EQ(lan.ip(300), "10.0.1.44");
  auto r = lan.run(TestLan::device(300), {"ip", "-4", "-o", "addr", "show", "dev", "eth0"});
  EXPECT_NE(r.out.find("inet 10.0.1.44/23"), std::string::npos) << r.out;
  auto ping = lan.run("finder", {"ping", "-c", "1", "-W", "2", "10.0.1.44"});
  EXPECT_EQ(ping.status, 0) << ping.out << ping.err;
}
