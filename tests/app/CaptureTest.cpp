#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <regex>
#include <utility>

#include "Tshark.h"
#include "VarnockOnLan.h"
#include "morl/ControllerInfo.h"

// Captures of runs on the simulated LAN, read by each tshark with the MORL dissector.

namespace {

/// Stops the finder's capture and gives, for each tshark, its fields of each of the capture's
/// MORL packets, a line each; checks that it wrote no error and showed the packet trees that the
/// first did.
std::vector<std::pair<std::string, std::string>> stopCapture(Lan& lan, pid_t tcpdump,
                                                             const Args& fields) {
  lan.stop(tcpdump);
  const std::string dir = lan.scratchFile("");
  chmod(dir.c_str(), 0755);  // Debian 13's tshark reads it as nobody
  std::vector<std::pair<std::string, std::string>> shown;
  std::string trees;
  for (auto [version, args] : tsharks(dir)) {
    args.insert(args.end(), {"-r", dir + "run.pcap", "-Y", "morl", "-T"});
    Args text = args;
    text.push_back("fields");
    for (const auto& field : fields) text.insert(text.end(), {"-e", field});
    const Lan::Result r = lan.run("finder", text);
    EXPECT_EQ(tsharkErrors(r.err), "") << version;
    args.insert(args.end(), {"pdml", "-J", "morl"});
    const std::string these = morlTrees(lan.run("finder", args).out);
    if (shown.empty()) trees = these;
    EXPECT_EQ(these, trees) << version;
    shown.push_back({version, r.out});
  }
  return shown;
}

std::vector<std::string> sortedLines(const std::string& text) {
  std::multiset<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.insert(line);
  return {lines.begin(), lines.end()};
}

}  // namespace

// One device of each type and a node that asks while varnock's own search runs: every device
// answers both, by unicast to varnock, which asked for it, and by broadcast to the other; varnock
// answers the other by broadcast. Every field as configured, every response matched to its request.
TEST(MorlCapture, ShowsEachDeviceAsConfiguredAndEveryPacketOfTheRun) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({3, 10, 11, 12, 13, 14, 15});
  ASSERT_TRUE(lan.ok());
  std::vector<std::string> expected = {
      "10.0.0.1\t255.255.255.255\t0\t0x05\t\t\t\t",
      "10.0.0.3\t255.255.255.255\t0\t0x01\t\t\t\t",
      "10.0.0.1\t255.255.255.255\t0\t0x06\td14e\tcurrent\t\t",
  };
  for (int i = 0; i < 6; ++i) {
    const int type = i < 5 ? i : 7;
    const std::string host = std::to_string(10 + i), name = "Dev-" + host;
    const std::string version = "1." + std::to_string(i) + ".0";
    ASSERT_GT(startDevice(lan, "d" + host,
                          {"--name", name, "--software-version", version, "--service",
                           std::to_string(type) + ":1", "--no-mdns", "--no-http"}),
              0);
    const std::string fields = name + "\t" + version + "\t" + deviceTypeName(type) + "\t";
    expected.push_back("10.0.0." + host + "\t10.0.0.1\t0\t0x06\t" + fields);
    expected.push_back("10.0.0." + host + "\t255.255.255.255\t0\t0x06\t" + fields);
  }
  const pid_t tcpdump = lan.startCapture("finder", lan.scratchFile("run.pcap"));
  ASSERT_GT(tcpdump, 0);
  const pid_t finder =
      lan.spawn("finder", {kBin + "/app/varnock", "--morl", "-T", "2"}, lan.scratchFile("out"));
  ASSERT_TRUE(lan.waitForPort("finder", "udp", 4792));
  // One well-formed Discovery request, by broadcast, without the unicast flag.
  auto asker =
      lan.run("d3", {kBin + "/lab/varnock-hostile", "morl", "10.0.0.1", "2", "0.9", "100"});
  ASSERT_EQ(asker.out.rfind("morl: 1 packets", 0), 0u) << asker.out;
  EXPECT_EQ(lan.stop(finder, std::chrono::seconds(1), std::chrono::seconds(10)), 0);
  std::sort(expected.begin(), expected.end());
  for (const auto& [version, out] :
       stopCapture(lan, tcpdump,
                   {"ip.src", "ip.dst", "morl.type", "morl.flags", "morl.name", "morl.version",
                    "morl.device_type", "morl.ignored"}))
    EXPECT_EQ(sortedLines(out), expected) << version;
}

// The hostile host sends every malformed kind it knows, and responses whose sequence, destination
// or source the finder does not take: each one is flagged, none looks like a device's answer.
TEST(MorlCapture, FlagsEveryHostilePacket) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({10, 66});
  ASSERT_TRUE(lan.ok());
  ASSERT_GT(startDevice(lan, "d10", {"--name", "Dev-10", "--no-mdns", "--no-http"}), 0);
  const pid_t tcpdump = lan.startCapture("finder", lan.scratchFile("run.pcap"));
  ASSERT_GT(tcpdump, 0);
  // The finder's request comes first, so its UUID is known as 10.0.0.1's.
  const pid_t finder =
      lan.spawn("finder", {kBin + "/app/varnock", "--morl", "-T", "3"}, lan.scratchFile("out"));
  ASSERT_TRUE(lan.waitForPort("finder", "udp", 4792));
  auto hostile = lan.run("d66", {kBin + "/lab/varnock-hostile", "morl", "10.0.0.1", "800", "1"});
  std::smatch sent;
  ASSERT_TRUE(
      std::regex_search(hostile.out, sent, std::regex("morl: (\\d+) packets.*, 0 not sent")))
      << hostile.out;
  EXPECT_EQ(lan.stop(finder, std::chrono::seconds(1), std::chrono::seconds(10)), 0);
  for (const auto& [version, out] : stopCapture(lan, tcpdump, {"ip.src", "_ws.col.Info"})) {
    std::map<std::string, int> kinds;
    for (const std::string& line : sortedLines(out)) {
      const std::string info = std::regex_replace(
          line, std::regex("^10\\.0\\.0\\.66\t(Malformed|Ignored): .*"), "hostile, flagged");
      kinds[std::regex_replace(info, std::regex("^10\\.0\\.0\\.66\t.* request, seq 0x.*"),
                               "hostile request")]++;
    }
    // Requests for UUIDs nobody has, and Discovery requests from the finder's UUID (flagged).
    const int requests = kinds["hostile request"];
    kinds.erase("hostile request");
    EXPECT_GT(requests, 0) << version;
    EXPECT_EQ(kinds, (std::map<std::string, int>{
                         {"10.0.0.1\tDiscovery request, seq 0x5f16", 1},
                         {"10.0.0.10\tDiscovery response: Dev-10 1.0.0 pallor_module", 1},
                         {"hostile, flagged", std::stoi(sent[1]) - requests},
                     }))
        << version;
  }
}
