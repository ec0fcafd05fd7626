#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>
#include <string>
#include <vector>

#include "MorlLan.h"
#include "RequireLan.h"

using namespace morltest;

namespace {

const std::string deviceUuid = "a1a2a3a4a5a6a7a8a9aaabac";
const std::string ownerUuid = "0e0e0e0e0e0e0e0e0e0e0e0e";
const std::string proberUuid = "0d0d0d0d0d0d0d0d0d0d0d0d";
const std::string otherUuid = "777777777777777777777777";
const std::string zeroUuid(24, '0');

// GETs a path of a host and prints status, content type and body, one per line.
const char* kGet =
    "import sys,urllib.request,urllib.error,time\n"
    "t=time.monotonic()\n"
    "try:\n"
    "  r=urllib.request.urlopen('http://'+sys.argv[1]+sys.argv[2],timeout=5)\n"
    "except urllib.error.HTTPError as e:\n"
    "  r=e\n"
    "print(r.status);print(r.headers.get('Content-Type'));print(r.read().decode())\n"
    "print('took %d' % int((time.monotonic()-t)*1000))\n";

struct Reply {
  int status = 0;
  std::string contentType, body;
  int tookMs = 0;
};

Reply get(Lan& lan, const std::string& host, const std::string& target) {
  auto r = lan.run("finder", {"/usr/bin/python3", "-c", kGet, host, target});
  EXPECT_EQ(r.status, 0) << r.err;
  Reply reply;
  std::istringstream lines(r.out);
  std::string status, took;
  std::getline(lines, status);
  std::getline(lines, reply.contentType);
  std::getline(lines, reply.body);
  std::getline(lines, took);
  reply.status = status.empty() ? 0 : std::stoi(status);
  if (took.rfind("took ", 0) == 0) reply.tookMs = std::stoi(took.substr(5));
  return reply;
}

class Devices {
 public:
  explicit Devices(Lan& lan) : lan(lan) {}
  pid_t start(int host, std::vector<std::string> args) {
    std::string node = Lan::device(host);
    args.insert(args.begin(), devicePath());
    pid_t pid = lan.spawn(node, args, scratch.path(node));
    EXPECT_TRUE(waitForText(scratch.path(node), "ready\n")) << readText(scratch.path(node));
    return pid;
  }
  std::string log(int host) { return readText(scratch.path(Lan::device(host))); }
  std::string logPath(int host) { return scratch.path(Lan::device(host)); }

 private:
  Lan& lan;
  Scratch scratch;
};

std::vector<std::vector<unsigned char>> bytesFrom(const std::vector<Datagram>& all,
                                                  const std::string& from) {
  std::vector<std::vector<unsigned char>> kept;
  for (const auto& d : all)
    if (d.from == from) kept.push_back(d.bytes);
  return kept;
}

}  // namespace

TEST(VarnockDevice, AnswersDiscoveryDirectedDiscoveryAndWhistleAddressedToIt) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4});
  ASSERT_TRUE(lan.ok());
  Devices devices(lan);
  devices.start(2, {"--uuid", deviceUuid, "--name", "Gate", "--software-version", "3.1",
                    "--service", "2:513", "--service", "1:2", "--owner", ownerUuid, "--no-http"});
  Scratch scratch;
  pid_t listener = lan.spawn("d4", peer({"listen", "--wait", "10000"}), scratch.path("d4"));
  ASSERT_TRUE(waitForText(scratch.path("d4"), "ready\n"));
  // Unicast offered: the device answers the prober's address only.
  auto probe = lan.run(
      "d3", peer({"probe", "--uuid", proberUuid, "--flags", "5", "--wait", "400",
                  "0:" + zeroUuid + ":200", "1:" + deviceUuid + ":201", "1:" + otherUuid + ":202",
                  "3:" + deviceUuid + ":203", "3:" + otherUuid + ":204"}));
  ASSERT_EQ(probe.status, 0) << probe.err;
  EXPECT_EQ(lan.stop(listener, std::chrono::milliseconds(5000)), 0);

  const auto dev = fromHex(deviceUuid), prober = fromHex(proberUuid);
  auto answer = [&](unsigned char type, unsigned short seq) {
    return packet(type, 0x06, seq, dev, prober,
                  {deviceInfoBlock(dev, "Gate", "3.1"), serviceBlock(2, 513), serviceBlock(1, 2),
                   tameBlock(fromHex(ownerUuid))});
  };
  auto got = bytesFrom(datagramsIn(probe.out), "10.0.0.2");
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].size(), 134u);
  EXPECT_EQ(got, (std::vector<std::vector<unsigned char>>{answer(0, 200), answer(1, 201),
                                                          answer(3, 203)}));
  EXPECT_TRUE(bytesFrom(datagramsIn(readText(scratch.path("d4"))), "10.0.0.2").empty());
  EXPECT_EQ(devices.log(2), "ready\nwhistle from " + proberUuid + "\n");
}

TEST(VarnockDevice, AnswersByBroadcastWhenTheRequesterOffersNoUnicast) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4});
  ASSERT_TRUE(lan.ok());
  Devices devices(lan);
  devices.start(2, {"--uuid", deviceUuid, "--no-unicast", "--no-http"});
  Scratch scratch;
  pid_t listener = lan.spawn("d4", peer({"listen", "--wait", "10000"}), scratch.path("d4"));
  ASSERT_TRUE(waitForText(scratch.path("d4"), "ready\n"));
  auto probe = lan.run("d3", peer({"probe", "--uuid", proberUuid, "--flags", "1", "--wait", "400",
                                   "0:" + zeroUuid + ":7"}));
  ASSERT_EQ(probe.status, 0) << probe.err;
  EXPECT_TRUE(waitForText(scratch.path("d4"), "10.0.0.2 "));
  EXPECT_EQ(lan.stop(listener, std::chrono::milliseconds(5000)), 0);
  const auto dev = fromHex(deviceUuid);
  auto want =
      packet(0, 0x02, 7, dev, fromHex(proberUuid),
             {deviceInfoBlock(dev, "varnock-device", "1.0.0"), tameBlock(fromHex(zeroUuid))});
  for (const auto& text : {probe.out, readText(scratch.path("d4"))})
    EXPECT_EQ(bytesFrom(datagramsIn(text), "10.0.0.2"),
              (std::vector<std::vector<unsigned char>>{want}));
}

TEST(VarnockDevice, AcceptedTameMakesTheRequesterTheOwner) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 5});
  ASSERT_TRUE(lan.ok());
  Devices devices(lan);
  const std::string refuserUuid = "b1b2b3b4b5b6b7b8b9babbbc";
  devices.start(2, {"--uuid", deviceUuid, "--owner", ownerUuid, "--no-http"});
  devices.start(5, {"--uuid", refuserUuid, "--owner", ownerUuid, "--refuse-tame", "--no-http"});
  auto probe = lan.run(
      "d3", peer({"probe", "--uuid", proberUuid, "--flags", "5", "--wait", "400",
                  "0:" + zeroUuid + ":300", "2:" + deviceUuid + ":301", "0:" + zeroUuid + ":302"}));
  ASSERT_EQ(probe.status, 0) << probe.err;
  const auto dev = fromHex(deviceUuid), refuser = fromHex(refuserUuid);
  const auto prober = fromHex(proberUuid), owner = fromHex(ownerUuid);
  auto discovery = [&](const std::vector<unsigned char>& uuid, unsigned short seq,
                       const std::vector<unsigned char>& ownedBy) {
    return packet(0, 0x06, seq, uuid, prober,
                  {deviceInfoBlock(uuid, "varnock-device", "1.0.0"), tameBlock(ownedBy)});
  };
  auto all = datagramsIn(probe.out);
  EXPECT_EQ(bytesFrom(all, "10.0.0.2"),
            (std::vector<std::vector<unsigned char>>{
                discovery(dev, 300, owner), packet(2, 0x06, 301, dev, prober, {tameBlock(prober)}),
                discovery(dev, 302, prober)}));
  EXPECT_EQ(bytesFrom(all, "10.0.0.5"),
            (std::vector<std::vector<unsigned char>>{discovery(refuser, 300, owner),
                                                     discovery(refuser, 302, owner)}));
  EXPECT_EQ(devices.log(2), "ready\ntamed by " + proberUuid + "\n");
  EXPECT_EQ(devices.log(5), "ready\n");
}

TEST(VarnockDevice, InfoServerAnswersOnlyTheInfoTarget) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4});
  ASSERT_TRUE(lan.ok());
  Devices devices(lan);
  devices.start(2, {"--name", "Gate \"north\"", "--software-version", "3.1", "--service", "0:1",
                    "--service", "2:1"});
  devices.start(3, {"--name", "Plain", "--service", "9:0", "--http-content-type", "text/plain",
                    "--http-delay", "300", "--no-morl"});
  devices.start(4, {"--http-status", "500", "--http-body", "oops", "--no-morl"});

  Reply info = get(lan, "10.0.0.2", "/api/v1/info");
  EXPECT_EQ(info.status, 200);
  EXPECT_EQ(info.contentType, "application/json");
  EXPECT_EQ(info.body,
            R"({"data":{"name":"Gate \"north\"","version":"3.1","device_type":"pallor_module"}})");
  Reply missing = get(lan, "10.0.0.2", "/api/v1/info/");
  EXPECT_EQ(missing.status, 404);

  Reply plain = get(lan, "10.0.0.3", "/api/v1/info");
  EXPECT_EQ(plain.status, 200);
  EXPECT_EQ(plain.contentType, "text/plain");
  EXPECT_EQ(plain.body, R"({"data":{"name":"Plain","version":"1.0.0","device_type":"uknown"}})");
  EXPECT_GE(plain.tookMs, 300);

  Reply failing = get(lan, "10.0.0.4", "/api/v1/info");
  EXPECT_EQ(failing.status, 500);
  EXPECT_EQ(failing.body, "oops");
}

TEST(VarnockDevice, StopsCleanlyOnSigtermAndSigint) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3});
  ASSERT_TRUE(lan.ok());
  Devices devices(lan);
  pid_t term = devices.start(2, {});
  pid_t interrupt = devices.start(3, {"--no-morl"});
  EXPECT_EQ(lan.stop(term), 0);
  ASSERT_EQ(kill(interrupt, SIGINT), 0);
  EXPECT_EQ(lan.stop(interrupt), 0);
  EXPECT_EQ(devices.log(2), "ready\n");
}

TEST(VarnockDevice, RejectsBadOptionsAndPrintsHelp) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  auto help = lan.run("d2", {devicePath(), "--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* option :
       {"--uuid", "--name", "--software-version", "--service", "--owner", "--no-unicast",
        "--refuse-tame", "--no-morl", "--no-http", "--http-port", "--http-content-type",
        "--http-body", "--http-status", "--http-delay", "--morl-delay"})
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
  std::vector<std::string> tooMany{devicePath()};
  for (int i = 0; i < 11; ++i) tooMany.insert(tooMany.end(), {"--service", "1:1"});
  for (const auto& argv :
       std::vector<std::vector<std::string>>{{devicePath(), "--uuid", "0102"},
                                             {devicePath(), "--service", "2"},
                                             {devicePath(), "--service", "256:1"},
                                             {devicePath(), "--name", std::string(31, 'x')},
                                             tooMany}) {
    auto r = lan.run("d2", argv);
    EXPECT_EQ(r.status, 2) << argv[1];
    EXPECT_EQ(r.err.rfind("varnock-device: ", 0), 0u) << r.err;
  }
}
