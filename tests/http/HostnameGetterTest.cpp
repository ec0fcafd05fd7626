#include "http/HostnameGetter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <tuple>

#include "VarnockOnLan.h"

namespace {

using Strings = std::vector<std::string>;
const std::string full = R"({"data":{"name":"A","version":"1.2","device_type":"x","other":1}})";

// Options of the varnock-device asked, the device type before, and name, version
// and type after (none: the record is unchanged).
// clang-format off
const std::vector<std::tuple<Strings, std::string, Strings>> modes{
    {{"--http-body", full}, "unknown", {"A", "1.2", "x"}},
    {{"--http-body", full, "--http-content-type", "text/plain"}, "", {}},
    {{"--http-body", full, "--http-status", "500"}, "", {}},
    {{"--http-body", R"({"data":{"name":"A"}})"}, "", {"A", "", ""}},
    {{"--http-body", "[1]"}, "", {"", "", ""}},
    {{"--http-body", "not json"}, "", {}},
    {{"--http-body", R"({"data":{"version":[1]}})"}, "", {}},
    {{"--http-body", R"({"data":{"device_type":{}}})"}, "", {}},
    {{"--name", "B", "--service", "4:1", "--http-content-type", "application/vnd.maker+json",
      "--http-delay", "1500"}, "", {"B", "1.0.0", "extender_fell"}},
    {{"--http-delay", "6000"}, "", {}},
    {{"--no-http"}, "", {}},
    {{"--http-body", full}, "Unknown", {}}};
// clang-format on

TEST(GatherLan, EveryDeviceModeGivesItsRecordWithinTheFixedDeadlines) {
  VARNOCK_REQUIRE_LAN();
  const int peer = 2 + modes.size();
  Lan lan({2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14});
  ASSERT_TRUE(lan.ok());
  std::vector<Entry> entries;
  std::vector<Strings> want;
  for (int host = 2; host < peer; ++host) {
    const auto& [options, type, after] = modes[host - 2];
    ASSERT_GT(startDevice(lan, Lan::device(host), options, Lan::device(host)), 0)
        << Lan::readText(lan.scratchFile(Lan::device(host)));
    entries.push_back({lan.ip(host), "old", "0.9", type});
    want.push_back(after.empty() ? Strings{"old", "0.9", type} : after);
  }
  // A stock HTTP peer sees the exact request bytes.
  const std::string
      request = lan.scratchFile("request"),
      nc = "printf 'HTTP/1.1 200 OK\\r\\nContent-Type: application/json\\r\\n"
           "Content-Length: 22\\r\\n\\r\\n{\"data\":{\"name\":\"nc\"}}' | nc -N -l 80 >";
  ASSERT_GT(lan.spawn(Lan::device(peer), {"sh", "-c", nc + request}), 0);
  ASSERT_TRUE(lan.waitForPort(Lan::device(peer), "tcp", 80));
  // Nobody takes the frames to 10.0.0.99: the connect deadline. "[fe80" is no address.
  const Strings neigh{"ip",  "neigh", "add", "10.0.0.99", "lladdr", "02:00:00:00:00:99",
                      "dev", "eth0",  "nud", "permanent"};
  ASSERT_EQ(lan.run("finder", neigh).status, 0);
  for (const std::string& ip : {lan.ip(peer), std::string("10.0.0.99"), std::string("[fe80")})
    entries.push_back({ip, "old", "0.9", ""});
  want.insert(want.end(), {{"nc", "", ""}, {"old", "0.9", ""}, {"old", "0.9", ""}});
  ASSERT_TRUE(lan.enter("finder"));
  const auto start = std::chrono::steady_clock::now();
  HostnameGetter::gather(entries);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  ASSERT_EQ(entries.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i)
    EXPECT_EQ(Strings({entries[i].name, entries[i].version, entries[i].device_type}), want[i])
        << entries[i].ip;
  ASSERT_TRUE(Lan::waitForText(request, "\r\n\r\n"));
  EXPECT_EQ(Lan::readText(request),
            "GET /api/v1/info HTTP/1.1\r\nHost: " + lan.ip(peer) + "\r\nConnection: close\r\n\r\n");
  // Connect and read are each given up after 5 seconds.
  EXPECT_GE(took.count(), 5.0);
  EXPECT_LT(took.count(), 8.0);
}

}  // namespace
