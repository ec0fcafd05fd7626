#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "VarnockOnLan.h"

// Each cause of "When a device is missing" (README and varnock(1)), set up by lab/faults.sh on a
// LAN of three devices and a router: every command the guide shows, with its exact output, while
// the cause is there and after its fix.

namespace {

struct Step {
  std::string node;
  Args args;  ///< "varnock" stands for the built one
  std::string out;
  std::string err = "";
  int status = 0;
};

struct Cause {
  std::string name;
  std::vector<Step> broken, fixed;
};

std::ostream& operator<<(std::ostream& os, const Cause& cause) { return os << cause.name; }

const std::string kDorn = "      10.0.0.10:                        Dorn-10               1.0.0\n";
const std::string kCtrl = "      10.0.0.12:                        Ctrl-12               1.0.0\n";
const std::string kHttp = "      10.0.0.20:                        Http-20               1.0.0\n";
const std::string kAll = kDorn + kCtrl + kHttp;
const Args kQuick = {"varnock", "-M", "1", "-T", "1"};
const Args kVerbose = {"varnock", "-v", "-M", "1", "-T", "1"};
const Args kOperState = {"cat", "/sys/class/net/eth0/operstate"};
const Args kRouteGet = {"ip", "route", "get", "255.255.255.255"};
const std::string kMdnsLog =
    "Local IPv4 address: 0.0.0.0\nLocal IPv6 address: ::\nmDNS socket count: 2, querying...\n"
    "Reading mDNS replies\nSockets closed\n";
std::string request(const std::string& host, const std::string& outcome) {
  return "Requesting 10.0.0." + host + "/api/v1/info\n" + outcome + " 10.0.0." + host +
         "/api/v1/info: ";
}
const std::string kHttpLog =
    request("20", "Response") +
    "200, "
    "{\"data\":{\"name\":\"Http-20\",\"version\":\"1.0.0\",\"device_type\":\"pallor_module\"}}\n";

const Cause kCauses[] = {
    {"link-down",
     {{"finder", kOperState, "down\n"}, {"finder", kQuick, "", "Error: mDNS discovery failed!"}},
     {{"finder", kOperState, "up\n"}, {"finder", kQuick, kAll}}},
    {"no-route",
     {{"finder", kRouteGet, "", "RTNETLINK answers: Network is unreachable\n", 2},
      {"finder", kVerbose, kMdnsLog + kHttpLog + "Result:\n" + kHttp}},
     {{"finder", kRouteGet,
       "broadcast 255.255.255.255 dev eth0 src 10.0.0.1 uid 0 \n"
       "    cache <local,brd> \n"},
      {"finder", kQuick, kAll}}},
    // The mDNS search asks on every address of every link; the broadcast leaves by one.
    {"two-links",
     {{"finder", kRouteGet,
       "broadcast 255.255.255.255 dev wlan0 src 192.168.7.2 uid 0 \n"
       "    cache <local,brd> \n"},
      {"finder", kVerbose,
       "Local IPv4 address: 0.0.0.0\nLocal IPv4 address: 0.0.0.0\nLocal IPv6 address: ::\n"
       "Local IPv6 address: ::\nLocal IPv6 address: ::\nmDNS socket count: 5, querying...\n"
       "Reading mDNS replies\nSockets closed\n" +
           kHttpLog + "Result:\n" + kHttp}},
     {{"finder", kQuick, kAll}}},
    {"firewall", {{"finder", kVerbose, kMdnsLog + "Result:\n"}}, {{"finder", kQuick, kAll}}},
    {"port-taken",
     {{"finder",
       {"ss", "-Hulpn", "sport = :4792"},
       "UNCONN 0      0      0.0.0.0:4792 0.0.0.0:* users:((\"varnock-device\",pid=N,fd=N))\n"},
      {"finder", kQuick, kHttp, "bind: Address already in use\nError: MORL discovery failed!"}},
     {{"finder", kQuick, kAll}}},
    // Ctrl-12 tells its type only over HTTP, Http-20 is found only by mDNS.
    {"http-blocked",
     {{"finder", kVerbose,
       kMdnsLog +
           "--- --- ---\nData from 10.0.0.10\n3 blocks\n--- --- ---\nData from 10.0.0.12\n"
           "2 blocks\n" +
           request("12", "Connect err") + "The socket was closed due to a timeout\n" +
           request("20", "Connect err") + "The socket was closed due to a timeout\nResult:\n" +
           kDorn},
      {"finder", {"varnock", "-a", "-M", "1", "-T", "1"}, kDorn + kCtrl + "      10.0.0.20: \n"}},
     {{"finder", kQuick, kAll}}},
    {"router",
     {{"finder",
       {"ip", "route", "get", "10.0.9.10"},
       "10.0.9.10 via 10.0.0.5 dev eth0 src 10.0.0.1 uid 0 \n    cache \n"},
      {"finder", kQuick, kCtrl + kHttp}},
     {{"d5",
       {"varnock", "--morl", "-M", "1", "-T", "1"},
       "      10.0.9.10:                        Dorn-10               1.0.0\n"}}},
};

class FieldGuide : public testing::TestWithParam<Cause> {};

}  // namespace

TEST_P(FieldGuide, ShowsTheCauseAndThatItsFixListsTheDevice) {
  VARNOCK_REQUIRE_LAN();
  const Cause& cause = GetParam();
  setenv("VARNOCK_DEVICE", (kBin + "/device/varnock-device").c_str(), 1);
  Lan lan({5, 10, 12, 20});
  ASSERT_TRUE(lan.ok());
  ASSERT_GT(
      startDevice(lan, "d10", {"--name", "Dorn-10", "--service", "0:1", "--no-http", "--no-mdns"}),
      0);
  const std::string body =
      R"({"data":{"name":"Ctrl-12","version":"1.0.0","device_type":"pallor_module"}})";
  ASSERT_GT(startDevice(lan, "d12",
                        {"--name", "Ctrl-12", "--no-service", "--http-body", body, "--no-mdns"}),
            0);
  ASSERT_GT(startDevice(lan, "d20", {"--name", "Http-20", "--no-morl"}), 0);
  for (const char* verb : {"break", "fix"}) {
    auto done = lan.run("finder", {Lan::script("faults.sh"), lan.name(), verb, cause.name});
    ASSERT_EQ(done.status, 0) << verb << ": " << done.err;
    for (const Step& step : verb == std::string("break") ? cause.broken : cause.fixed) {
      Args args = step.args;
      if (args[0] == "varnock") args[0] = kBin + "/app/varnock";
      auto r = lan.run(step.node, args);
      const std::string out = std::regex_replace(r.out, std::regex("(pid|fd)=[0-9]+"), "$1=N");
      EXPECT_EQ(r.status, step.status) << verb << " " << step.args[0];
      EXPECT_EQ(sortedLog(out), sortedLog(step.out)) << verb << " " << step.args[0];
      EXPECT_EQ(r.err, step.err) << verb << " " << step.args[0];
    }
  }
}

INSTANTIATE_TEST_SUITE_P(WhenADeviceIsMissing, FieldGuide, testing::ValuesIn(kCauses),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });
