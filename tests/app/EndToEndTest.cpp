#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "RequireLan.h"

// The real varnock binary on a simulated LAN of real simulated devices,
// real mDNS responders and real HTTP info servers.

namespace {

using Args = std::vector<std::string>;

std::string binary(const std::string& relative) {
  const char* dir = std::getenv("VARNOCK_BIN_DIR");
  return std::string(dir ? dir : ".") + "/" + relative;
}

void startDevice(Lan& lan, int host, const Args& args) {
  std::string log = lan.scratchFile("device" + std::to_string(host) + ".log");
  Args argv{binary("device/varnock-device")};
  argv.insert(argv.end(), args.begin(), args.end());
  ASSERT_GT(lan.spawn(Lan::device(host), argv, log), 0);
  ASSERT_TRUE(Lan::waitForText(log, "ready")) << Lan::readText(log);
}

void startResponder(Lan& lan, int host) {
  ASSERT_GT(lan.startMdnsResponder(Lan::device(host), "device-" + std::to_string(host)), 0);
}

Lan::Result varnock(Lan& lan, const Args& args) {
  Args argv{binary("app/varnock")};
  argv.insert(argv.end(), args.begin(), args.end());
  return lan.run("finder", argv);
}

std::string joined(const Args& args) {
  std::string s;
  for (const auto& a : args) s += a + " ";
  return s;
}

const char* kEmptyJson = "{\n\t\"devices\" : []\n}\n\n";

std::string jsonDevice(const std::string& type, const std::string& ip, const std::string& name,
                       const std::string& version) {
  return "\t\t{\n\t\t\t\"device_type\" : \"" + type + "\",\n\t\t\t\"ip\" : \"" + ip +
         "\",\n\t\t\t\"name\" : \"" + name + "\",\n\t\t\t\"version\" : \"" + version + "\"\n\t\t}";
}

// A LAN with one device of every kind the tool has to cope with.
//   .7   MORL only, no services: a name but no type, no HTTP server
//   .9   MORL only, extender_dorn
//   .10  MORL only, pallor_module
//   .11  MORL and mDNS + HTTP, extender_quin
//   .20  mDNS + HTTP only, extender_fell
//   .21  MORL with service type 7 ("uknown"); its HTTP server would rename it if asked
//   .22  mDNS + HTTP only, but its info reply is text/plain
class MixedLan : public testing::Test {
 protected:
  void SetUp() override {
    VARNOCK_REQUIRE_LAN();
    lan_ = std::make_unique<Lan>(std::vector<int>{7, 9, 10, 11, 20, 21, 22});
    ASSERT_TRUE(lan_->ok());
    Lan& lan = *lan_;
    startDevice(lan, 7, {"--name", "Ctrl", "--software-version", "", "--no-http"});
    startDevice(lan, 9,
                {"--name", "Dorn-9", "--software-version", "1.0", "--service", "0:1", "--no-http"});
    startDevice(
        lan, 10,
        {"--name", "Pallor-Main", "--software-version", "2.4.1", "--service", "2:1", "--no-http"});
    startDevice(lan, 11, {"--name", "Both-11", "--software-version", "3.1", "--service", "3:1"});
    startDevice(
        lan, 20,
        {"--name", "Http-20", "--software-version", "0.9", "--service", "4:1", "--no-morl"});
    startDevice(lan, 21,
                {"--name", "Odd-21", "--software-version", "7.7", "--service", "7:1", "--http-body",
                 R"({"data":{"name":"Asked","version":"0","device_type":"x"}})"});
    startDevice(lan, 22,
                {"--name", "Plain-22", "--software-version", "1", "--service", "4:1", "--no-morl",
                 "--http-content-type", "text/plain"});
    for (int host : {11, 20, 22}) startResponder(lan, host);
  }

  std::unique_ptr<Lan> lan_;
};

const char* kMixedText =
    "      10.0.0.10:                    Pallor-Main               2.4.1\n"
    "      10.0.0.11:                        Both-11                 3.1\n"
    "      10.0.0.20:                        Http-20                 0.9\n"
    "      10.0.0.21:                         Odd-21                 7.7\n"
    "       10.0.0.9:                         Dorn-9                 1.0\n";

}  // namespace

TEST_F(MixedLan, TextListsNamedTypedDevicesInAddressTextOrder) {
  // --request-timeout is accepted and changes nothing.
  for (const Args& args : {Args{"-M", "1", "-T", "1"}, Args{"-M", "1", "-T", "1", "-r", "1"},
                           Args{"--mdns-wait=1", "--morl-wait=1", "--request-timeout=65535"}}) {
    auto r = varnock(*lan_, args);
    EXPECT_EQ(r.status, 0) << joined(args);
    EXPECT_EQ(r.out, kMixedText) << joined(args);
    EXPECT_EQ(r.err, "") << joined(args);
  }
}

TEST_F(MixedLan, AllAddsNamelessAndUntypedDevicesButNeverIPv6) {
  auto r = varnock(*lan_, {"-a", "-M", "1", "-T", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "      10.0.0.10:                    Pallor-Main               2.4.1\n"
            "      10.0.0.11:                        Both-11                 3.1\n"
            "      10.0.0.20:                        Http-20                 0.9\n"
            "      10.0.0.21:                         Odd-21                 7.7\n"
            "      10.0.0.22: \n"
            "       10.0.0.7:                           Ctrl                    \n"
            "       10.0.0.9:                         Dorn-9                 1.0\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(MixedLan, JsonDocumentHoldsTheSameDevicesWithTheirTypes) {
  auto r = varnock(*lan_, {"--json", "-M", "1", "-T", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "{\n\t\"devices\" : \n\t[\n" +
                       jsonDevice("pallor_module", "10.0.0.10", "Pallor-Main", "2.4.1") + ",\n" +
                       jsonDevice("extender_quin", "10.0.0.11", "Both-11", "3.1") + ",\n" +
                       jsonDevice("extender_fell", "10.0.0.20", "Http-20", "0.9") + ",\n" +
                       jsonDevice("uknown", "10.0.0.21", "Odd-21", "7.7") + ",\n" +
                       jsonDevice("extender_dorn", "10.0.0.9", "Dorn-9", "1.0") + "\n\t]\n}\n\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(MixedLan, EachSwitchRunsOnlyItsMethodAndBothRunNothing) {
  auto mdns = varnock(*lan_, {"--mdns", "-M", "1"});
  EXPECT_EQ(mdns.out,
            "      10.0.0.11:                        Both-11                 3.1\n"
            "      10.0.0.20:                        Http-20                 0.9\n");
  auto morl = varnock(*lan_, {"--morl", "-T", "1", "-a"});
  EXPECT_EQ(morl.out,
            "      10.0.0.10:                    Pallor-Main               2.4.1\n"
            "      10.0.0.11:                        Both-11                 3.1\n"
            "      10.0.0.21:                         Odd-21                 7.7\n"
            "       10.0.0.7:                           Ctrl                    \n"
            "       10.0.0.9:                         Dorn-9                 1.0\n");
  // Both switches: no discovery and no request, so the log holds only the result line.
  auto none = varnock(*lan_, {"--mdns", "--morl", "-v", "-a"});
  EXPECT_EQ(none.out, "Result:\n");
  auto noneJson = varnock(*lan_, {"-m", "-t", "-j"});
  EXPECT_EQ(noneJson.out, kEmptyJson);
  for (const auto* r : {&mdns, &morl, &none, &noneJson}) {
    EXPECT_EQ(r->status, 0);
    EXPECT_EQ(r->err, "");
  }
}

TEST_F(MixedLan, VerboseRunLogsEverySubsystemBeforeTheResult) {
  auto r = varnock(*lan_, {"-v", "-M", "1", "-T", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::string& out = r.out;
  std::string result = std::string("Result:\n") + kMixedText;
  ASSERT_GE(out.size(), result.size());
  EXPECT_EQ(out.substr(out.size() - result.size()), result) << out;
  // Each subsystem's lines, in the order each subsystem writes them.
  std::vector<std::vector<std::string>> sequences{
      {"Local IPv4 address: 0.0.0.0\n", "mDNS socket count: 2, querying...\n",
       "Reading mDNS replies\n", "Sockets closed\n"},
      {"--- --- ---\nData from 10.0.0.10\n3 blocks\n"},
      {"--- --- ---\nData from 10.0.0.7\n2 blocks\n"},
      {"Requesting 10.0.0.20/api/v1/info\n",
       "Response 10.0.0.20/api/v1/info: 200, "
       "{\"data\":{\"name\":\"Http-20\",\"version\":\"0.9\",\"device_type\":\"extender_fell\"}}\n",
       "Result:\n"},
      {"Requesting 10.0.0.22/api/v1/info\n", "Response 10.0.0.22/api/v1/info: 404, \n"},
      // The mDNS reply over IPv6 leaves only a fragment of the address, which is
      // asked and never printed.
      {"Requesting [fe80/api/v1/info\n", "Error when opening socket to [fe80: "},
      {"Sockets closed\n", "Requesting ", "Result:\n"},
  };
  for (const auto& seq : sequences) {
    size_t at = 0;
    for (const auto& line : seq) {
      size_t found = out.find(line, at);
      ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << "\n" << out;
      at = found + line.size();
    }
  }
  // Records with a known type are never asked, "uknown" included.
  for (const char* ip : {"10.0.0.9/", "10.0.0.10/", "10.0.0.21/"})
    EXPECT_EQ(out.find(std::string("Requesting ") + ip), std::string::npos) << ip;
}

TEST(VarnockLan, FailedMorlDiscoveryIsReportedAndMdnsDevicesStillListed) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({10, 20});
  ASSERT_TRUE(lan.ok());
  startDevice(lan, 10, {"--name", "Morl-10", "--service", "2:1", "--no-http"});
  startDevice(lan, 20,
              {"--name", "Http-20", "--software-version", "0.9", "--service", "4:1", "--no-morl"});
  startResponder(lan, 20);
  // Another program holds the MORL port on the finder.
  lan.spawn("finder", {"/usr/bin/python3", "-c",
                       "import socket,time\n"
                       "s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)\n"
                       "s.bind(('0.0.0.0',4792))\ntime.sleep(120)\n"});
  ASSERT_TRUE(lan.waitForPort("finder", "udp", 4792));

  auto r = varnock(lan, {"-M", "1", "-T", "1"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "      10.0.0.20:                        Http-20                 0.9\n");
  EXPECT_EQ(r.err, "bind: Address already in use\nError: MORL discovery failed!");

  // Without any address but loopback the mDNS discovery fails too; both
  // texts run together, without a line end after them.
  auto down = lan.run("finder", {"ip", "link", "set", "eth0", "down"});
  ASSERT_EQ(down.status, 0) << down.err;
  for (bool json : {false, true}) {
    Args args{"-M", "1", "-T", "1"};
    if (json) args.push_back("--json");
    auto both = varnock(lan, args);
    EXPECT_EQ(both.status, 0);
    EXPECT_EQ(both.out, json ? kEmptyJson : "");
    std::string err = both.err;
    const std::string mdnsError = "Error: mDNS discovery failed!";
    size_t at = err.find(mdnsError);
    ASSERT_NE(at, std::string::npos) << err;
    err.erase(at, mdnsError.size());
    EXPECT_EQ(err, "bind: Address already in use\nError: MORL discovery failed!") << both.err;
  }
}

TEST(VarnockLan, DefaultWaitsAreFiveSecondsEachSlow) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({10});
  ASSERT_TRUE(lan.ok());
  startDevice(
      lan, 10,
      {"--name", "Pallor-Main", "--software-version", "2.4.1", "--service", "2:1", "--no-http"});
  auto start = std::chrono::steady_clock::now();
  auto r = varnock(lan, {});
  auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.out, "      10.0.0.10:                    Pallor-Main               2.4.1\n");
  EXPECT_EQ(r.err, "");
  EXPECT_GE(seconds, 5.0);
  EXPECT_LT(seconds, 9.0);
}
