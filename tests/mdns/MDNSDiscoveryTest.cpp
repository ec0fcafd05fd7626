#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <tuple>

#include "RequireLan.h"
#include "mdns/MDNSDiscovery.h"
#include "qm/log.h"
#include "tests/mdns/MDNSDatagram.h"

namespace {

const Bytes A = record(1, {10, 0, 0, 20}), hidden = name({"b"}) + A;
const Bytes body = question() + pointer(12) + record(12, name({"dev"})) + pointer(12) +
                   record(33, {0, 0, 0, 0, 0, 80, 0xC0, 12}) + pointer(12) + A;
const Bytes typical = header(1, 1, 0, 2) + body;
Bytes labels(int count) { return name(std::vector<std::string>(count, "a")); }
Bytes cut(const Bytes& b, size_t size) { return Bytes(b.begin(), b.begin() + size); }
// Read from an invalid owner name's first byte on, the data length is 2.
const Bytes tail{0, 1, 0, 0, 0, 120, 0, 2, 0xAB, 0xCD};

TEST(MdnsReply, RecordsTheSenderOncePerWellFormedRecord) {
  // clang-format off
  const std::vector<std::tuple<const char*, Bytes, size_t>> replies{
      {"OneQuestionPtrSrvAndA", typical, 3},
      {"AnyQueryIdCounts", header(1, 1, 0, 2, 0x1234) + body, 3},
      {"TwoQuestionsAddNothing", header(2, 1, 0, 2) + body, 0},
      {"ElevenBytesAddNothing", cut(typical, 11), 0},
      {"QuestionCutShortAddsNothing", cut(typical, 20), 0},
      {"CountsPastTheEndAddNothing", header(0, 0xFFFF, 0xFFFF, 0xFFFF), 0},
      {"SectionsFollowOneAnother", header(0, 1, 1, 1) + hidden + hidden + hidden, 3},
      {"DataOverrunEndsEveryLaterSection", header(0, 2, 0, 1) + hidden + name({"c"}) + record(1, hidden, hidden.size() + 1), 1},
      {"DataEndingAtTheEndCounts", header(0, 2, 0, 0) + hidden + name({"c"}) + record(1, hidden), 2},
      {"OwnerPointerAtTheEnd", header(0, 1, 0, 0) + pointer(24) + tail, 1},
      {"OwnerPointerPastTheEnd", header(0, 1, 0, 0) + pointer(0x3FFF) + tail, 1},
      {"OwnerPointerToALabelThatDoesNotFit", header(0, 1, 0, 0) + pointer(23) + tail, 1},
      {"OwnerPointerToALabelEndingAtTheEnd", header(0, 1, 0, 0) + pointer(24) + record(16, {1, 'x'}), 1},
      {"PointerCutAfterItsFirstByte", header(0, 2, 0, 0) + hidden + Bytes{0xC0}, 1},
      {"QuestionOf64Labels", header(1, 1, 0, 0) + labels(64) + u16(12) + u16(1) + hidden, 1},
      {"QuestionOf65Labels", header(1, 1, 0, 0) + labels(65) + u16(12) + u16(1) + hidden, 0},
      {"OwnerOf65LabelsIsReadAsFixedPart", header(0, 1, 0, 0) + labels(65) + A, 0},
      {"64LabelsEndingInAPointer", header(0, 1, 0, 0) + cut(labels(64), 128) + pointer(12) + A, 1},
  };
  // clang-format on
  const sockaddr_in from{AF_INET, htons(kMdnsPort), {inet_addr("192.168.1.20")}, {}};
  const auto* sa = reinterpret_cast<const sockaddr*>(&from);
  for (const auto& [what, datagram, records] : replies) {
    // Exactly the datagram's size, so that AddressSanitizer sees any read past it.
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[datagram.size()]);
    std::copy(datagram.begin(), datagram.end(), buffer.get());
    MDNS_Discover::entries.clear();
    EXPECT_EQ(mdns_read_reply(buffer.get(), datagram.size(), sa, sizeof from), records) << what;
    // Records compare by address alone; the others stay empty.
    EXPECT_EQ(MDNS_Discover::entries, std::vector<Entry>(records, {"192.168.1.20", "", "", ""}))
        << what;
  }
}

long handles() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }
std::string times(int n, const std::string& s) { return n ? s + times(n - 1, s) : ""; }
const std::string v4 = "Local IPv4 address: 0.0.0.0\n",
                  count = "mDNS socket count: ", read = "Reading mDNS replies\nSockets closed\n";

TEST(MdnsDiscoverLan, FinderAddressesDecideTheSocketsAndTheLog) {
  VARNOCK_REQUIRE_LAN();
  // clang-format off
  for (const auto& [commands, result, log] : std::vector<std::tuple<std::string, int, std::string>>{
           {"ip link del eth0", 0, "Failed to open any client sockets\n"},
           {"ip link del eth0; ip addr add 127.0.0.2/8 dev lo", 1, v4 + count + "1, querying...\n" + read},
           {"ip link del eth0; for i in $(seq 40); do ip addr add 10.9.0.$i/32 dev lo; done", 1,
            times(32, v4) + count + "32, querying...\n" + read},
           // The IPv6 query is refused after the IPv4 one went out.
           {"ip -6 rule add pref 100 table local; ip -6 rule del pref 0 table local; "
            "ip -6 rule add pref 10 ipproto udp dport " + std::to_string(kMdnsPort) + " prohibit", 0,
            v4 + "Local IPv6 address: ::\n" + count + "2, querying...\n"
               "Failed to send mDNS query: Permission denied\n"}}) {
    // clang-format on
    Lan lan({});
    ASSERT_TRUE(lan.ok() && lan.run("finder", {"sh", "-c", commands}).status == 0);
    ASSERT_TRUE(lan.enter("finder"));
    MDNS_Discover::entries = {Entry{"stale", "", "", ""}};
    const long open = handles();
    testing::internal::CaptureStdout();
    logEnable(true);
    EXPECT_EQ(MDNS_Discover().discover(0), result) << commands;
    logEnable(false);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), log) << commands;
    EXPECT_EQ(handles(), open) << commands;
    EXPECT_TRUE(MDNS_Discover::entries.empty()) << commands;
  }
}

// Two avahi responders, and one that answers thrice, each reply within the silence of the last.
TEST(MdnsDiscoverLan, RespondersGiveOneRecordPerAddressAndEveryReplyRestartsTheSilence) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({9, 10, 20});
  ASSERT_TRUE(lan.ok());
  ASSERT_GT(lan.startMdnsResponder(Lan::device(9), "dev9"), 0);
  ASSERT_GT(lan.startMdnsResponder(Lan::device(10), "dev10"), 0);
  ASSERT_TRUE(lan.enter(Lan::device(20)));
  const int responder = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in any{AF_INET, htons(kMdnsPort), {}, {}};
  ASSERT_EQ(bind(responder, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
  const ip_mreq group{{htonl(kGroupIPv4)}, {inet_addr("10.0.0.20")}};
  ASSERT_EQ(setsockopt(responder, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
  Bytes query(64);
  std::thread replies([&] {
    sockaddr_in finder{};
    socklen_t length = sizeof finder;
    query.resize(std::max<ssize_t>(0, recvfrom(responder, query.data(), query.size(), 0,
                                               reinterpret_cast<sockaddr*>(&finder), &length)));
    const Bytes reply = header(0, 1, 0, 0) + name({"dev20"}) + record(1, {10, 0, 0, 20});
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
      sendto(responder, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&finder),
             length);
    }
  });
  ASSERT_TRUE(lan.enter("finder"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(MDNS_Discover().discover(1), 1);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  replies.join();
  close(responder);
  // Every responder also answers the IPv6 query; such a sender is kept as "[fe80".
  std::vector<std::string> found;
  for (const Entry& e : MDNS_Discover::entries) found.push_back(e.ip);
  EXPECT_EQ(found, (std::vector<std::string>{"10.0.0.10", "10.0.0.20", "10.0.0.9", "[fe80"}));
  // ID 0, flags 0, one question: PTR "_http._tcp.local", class IN asking for a unicast answer.
  EXPECT_EQ(query, Bytes(5, 0) + Bytes{1} + Bytes(6, 0) + name({"_http", "_tcp", "local"}) +
                       u16(12) + u16(0x8001));
  uint8_t room[33];
  for (size_t capacity : {11, 28, 33}) EXPECT_EQ(mdns_build_query(room, capacity, 1), 0u);
  // The last reply 1.2 s after the query, then one second of silence.
  EXPECT_GE(took.count(), 2.2);
  EXPECT_LT(took.count(), 2.9);
}

}  // namespace
