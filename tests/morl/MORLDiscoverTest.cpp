#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/system/system_error.hpp>

#include "MorlLan.h"
#include "RequireLan.h"
#include "morl/MORL_Discover.h"
#include "morl/udp_server.h"
#include "qm/log.h"

using namespace morltest;

namespace {

const std::vector<unsigned char> finderUuid(12, 0x01);
const std::vector<unsigned char> finderOwner(12, 0x02);

std::vector<std::string> fields(const Entry& e) { return {e.ip, e.name, e.version, e.device_type}; }

std::vector<std::vector<std::string>> table(const std::vector<Entry>& entries) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& e : entries) rows.push_back(fields(e));
  return rows;
}

// Starts one answering peer per node and waits until all are bound.
class Answerers {
 public:
  Answerers(Lan& lan, const Scratch& scratch) : lan(lan), scratch(scratch) {}
  void start(int host, const std::vector<std::string>& args) {
    std::string node = Lan::device(host);
    std::vector<std::string> all{"answer"};
    all.insert(all.end(), args.begin(), args.end());
    pids.push_back(lan.spawn(node, peer(all), scratch.path(node)));
    ASSERT_TRUE(waitForText(scratch.path(node), "ready\n")) << node;
  }
  std::string log(int host) { return readText(scratch.path(Lan::device(host))); }

 private:
  Lan& lan;
  const Scratch& scratch;
  std::vector<pid_t> pids;
};

std::string uuidArg(unsigned char last) {
  char hex[25];
  std::snprintf(hex, sizeof hex, "0a0a0a0a0a0a0a0a0a0a0a%02x", last);
  return hex;
}

}  // namespace

TEST(MorlDiscover, FindsTwoDevicesWithNameVersionAndType) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  lan.spawn("d3",
            {devicePath(), "--uuid", uuidArg(3), "--name", "Hall controller", "--software-version",
             "4.2.1", "--service", "0:7", "--service", "2:1", "--no-http"},
            scratch.path("d3"));
  lan.spawn("d2",
            {devicePath(), "--uuid", uuidArg(2), "--name", "Pump", "--software-version", "0.9",
             "--service", "4:0", "--no-http", "--no-unicast"},
            scratch.path("d2"));
  ASSERT_TRUE(waitForText(scratch.path("d2"), "ready\n"));
  ASSERT_TRUE(waitForText(scratch.path("d3"), "ready\n"));
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  ASSERT_TRUE(discovery.discover(1));
  EXPECT_EQ(table(discovery.entries),
            (std::vector<std::vector<std::string>>{
                {"10.0.0.2", "Pump", "0.9", "extender_fell"},
                {"10.0.0.3", "Hall controller", "4.2.1", "pallor_module"}}));
}

TEST(MorlDiscover, LogsSenderAndBlockCountOfEachResponse) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  Answerers peers(lan, scratch);
  peers.start(2, {"info:Lamp:1", "service:1:0", "service:2:0", "tame:" + std::string(24, '0')});
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  logEnable(true);
  testing::internal::CaptureStdout();
  bool ok = discovery.discover(1);
  std::string out = testing::internal::GetCapturedStdout();
  logEnable(false);
  ASSERT_TRUE(ok);
  EXPECT_EQ(out, "--- --- ---\nData from 10.0.0.2\n4 blocks\n");
}

TEST(MorlDiscover, DeviceTypeComesFromTheLastServiceBlock) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4, 5});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  Answerers peers(lan, scratch);
  std::string tame = "tame:" + std::string(24, '0');
  peers.start(2, {"info:Seven:1", "service:7:0", tame});
  peers.start(3, {"info:None:2", tame});
  peers.start(4, {"info:Two then four:3", "service:2:0", "service:4:9", tame});
  // A name and version that fill their fields completely, without a zero byte.
  peers.start(5,
              {"info:" + std::string(30, 'N') + ":" + std::string(20, 'V'), "service:3:0", tame});
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  ASSERT_TRUE(discovery.discover(1));
  EXPECT_EQ(table(discovery.entries),
            (std::vector<std::vector<std::string>>{
                {"10.0.0.2", "Seven", "1", "uknown"},
                {"10.0.0.3", "None", "2", ""},
                {"10.0.0.4", "Two then four", "3", "extender_fell"},
                {"10.0.0.5", std::string(30, 'N'), std::string(20, 'V'), "extender_quin"}}));
}

TEST(MorlDiscover, OneRecordPerAddressAndEmptyRecordsCollapse) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4, 5, 6});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  Answerers peers(lan, scratch);
  std::string tame = "tame:" + std::string(24, '0');
  peers.start(2, {"--times", "2", "info:Twice:1", "service:1:0", tame});
  // A tame status first is not taken, so nothing behind it is read.
  peers.start(3, {tame, "info:Hidden:1", "service:1:0"});
  peers.start(4, {"--uuid", "0c0c0c0c0c0c0c0c0c0c0c0c", tame, "info:Hidden too:1"});
  // An unassigned block type is skipped by its CRC and the rest still counts.
  peers.start(5, {"raw:020102030405", "info:After raw:5", "service:0:0", tame});
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  ASSERT_TRUE(discovery.discover(1));
  EXPECT_EQ(table(discovery.entries), (std::vector<std::vector<std::string>>{
                                          {"", "", "", ""},
                                          {"10.0.0.2", "Twice", "1", "extender_brask"},
                                          {"10.0.0.5", "After raw", "5", "extender_dorn"}}));
}

TEST(MorlDiscover, AnswersToAnotherRequestOrDestinationAreDropped) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3, 4});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  Answerers peers(lan, scratch);
  std::string tame = "tame:" + std::string(24, '0');
  peers.start(2, {"--seq-offset", "1", "info:Stale:1", tame});
  peers.start(3, {"--dest", "030303030303030303030303", "info:Elsewhere:1", tame});
  peers.start(4, {"info:Right:1", tame});
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  ASSERT_TRUE(discovery.discover(1));
  EXPECT_EQ(table(discovery.entries),
            (std::vector<std::vector<std::string>>{{"10.0.0.4", "Right", "1", ""}}));
  EXPECT_NE(peers.log(2).find("answered 10.0.0.1"), std::string::npos);
  EXPECT_NE(peers.log(3).find("answered 10.0.0.1"), std::string::npos);
}

TEST(MorlDiscover, WaitOfZeroReturnsTrue) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  lan.spawn("d2", {devicePath(), "--no-http"}, scratch.path("d2"));
  ASSERT_TRUE(waitForText(scratch.path("d2"), "ready\n"));
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  EXPECT_TRUE(discovery.discover(0));
  // The port is free again for the next run.
  EXPECT_TRUE(discovery.discover(0));
}

TEST(MorlDiscover, TakenPortWritesTheErrorAndReturnsFalse) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  pid_t listener = lan.spawn("d2", peer({"listen", "--wait", "10000"}), scratch.path("d2"));
  ASSERT_TRUE(waitForText(scratch.path("d2"), "ready\n"));
  ASSERT_TRUE(lan.enter());
  int fd = occupyUdpPort(4792);
  ASSERT_GE(fd, 0);

  std::string expected;
  try {
    boost::asio::io_context context;
    udp_server probe(nullptr);
    probe.init(context);
    probe.stop();
  } catch (const boost::system::system_error& e) {
    expected = std::string(e.what()) + "\n";
  }
  ASSERT_NE(expected, "");

  MORL_Discover discovery;
  testing::internal::CaptureStderr();
  bool ok = discovery.discover(1);
  std::string err = testing::internal::GetCapturedStderr();
  close(fd);
  EXPECT_FALSE(ok);
  EXPECT_EQ(err, expected);
  EXPECT_EQ(lan.stop(listener, std::chrono::milliseconds(5000)), 0);
  EXPECT_EQ(datagramsIn(readText(scratch.path("d2"))).size(), 0u) << "nothing may be sent";
}

TEST(MorlDiscover, FinderAnswersOtherNodesWithItsFixedIdentity) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({2, 3});
  ASSERT_TRUE(lan.ok());
  Scratch scratch;
  // d3 only listens: what it hears was broadcast, not sent to the prober.
  pid_t listener = lan.spawn("d3", peer({"listen", "--wait", "10000"}), scratch.path("d3"));
  ASSERT_TRUE(waitForText(scratch.path("d3"), "ready\n"));
  ASSERT_TRUE(lan.enter());
  MORL_Discover discovery;
  auto run = std::async(std::launch::async, [&] { return discovery.discover(1); });
  // Give the run time to bind and initialise before the requests arrive.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::string proberUuid = "0d0d0d0d0d0d0d0d0d0d0d0d";
  const std::string to = "010101010101010101010101";
  auto probe = lan.run(
      "d2", peer({"probe", "--uuid", proberUuid, "--flags", "5", "--wait", "400",
                  "0:" + std::string(24, '0') + ":100", "1:" + to + ":101", "3:" + to + ":103",
                  "2:" + to + ":102", "1:" + proberUuid + ":104", "3:" + proberUuid + ":105"}));
  ASSERT_TRUE(run.get());
  ASSERT_EQ(probe.status, 0) << probe.err;
  EXPECT_EQ(lan.stop(listener, std::chrono::milliseconds(5000)), 0);

  const auto prober = fromHex(proberUuid);
  auto expected = [&](unsigned char type, unsigned short seq) {
    return packet(type, 0x06, seq, finderUuid, prober,
                  {deviceInfoBlock(finderUuid, "d14e", "current"), tameBlock(finderOwner)});
  };
  std::vector<std::vector<unsigned char>> want{expected(0, 100), expected(1, 101),
                                               expected(3, 103)};
  ASSERT_EQ(want[0].size(), 118u);
  for (const auto& logText : {probe.out, readText(scratch.path("d3"))}) {
    auto answers = withFlags(datagramsIn(logText), 0x06);
    std::vector<std::vector<unsigned char>> got;
    for (const auto& d : answers) {
      EXPECT_EQ(d.from, "10.0.0.1");
      got.push_back(d.bytes);
    }
    EXPECT_EQ(got, want);
  }
}
