#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "morl/IMORLEndpoint.h"
#include "morl/MORLManager.h"
#include "morl/MORLParser.h"
#include "qm/CRCSoft32.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Uuid = std::array<unsigned char, 12>;

Bytes hex(const std::string& text) {
  Bytes out;
  std::string digits;
  for (char c : text) {
    if (c != ' ') digits += c;
  }
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string toHex(const Bytes& b) {
  std::string out;
  char buf[4];
  for (std::size_t i = 0; i < b.size(); ++i) {
    std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", b[i]);
    out += buf;
  }
  return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes withCrc(Bytes body) {
  QM::CRCSoft32 crc;
  crc.updateBlock(body.data(), static_cast<unsigned int>(body.size()));
  const unsigned int sum = crc.getCRCSum();
  for (int k = 0; k < 4; ++k) body.push_back(static_cast<unsigned char>(sum >> (8 * k)));
  return body;
}

Uuid uuidOf(unsigned char b) {
  Uuid u;
  u.fill(b);
  return u;
}

const unsigned int ProberAddress = 0x0A000002u;  // 10.0.0.2
const unsigned int Broadcast = 0xFFFFFFFFu;

struct Sent {
  Bytes bytes;
  unsigned int address;
  void* context;
};

/// An endpoint that records what the manager makes it do. By default it has
/// the finder's identity: UUID 12 x 01, owner 12 x 02, "d14e", "current",
/// no services, unicast supported, tame requests refused.
class RecordingEndpoint : public IMORLEndpoint {
 public:
  Uuid uuid = uuidOf(0x01);
  Uuid owner = uuidOf(0x02);
  std::string name = "d14e";
  std::string version = "current";
  std::vector<MORL::SupportedServiceBlock> services;
  bool unicast = true;
  bool acceptTame = false;

  std::vector<Sent> sent;
  std::vector<Uuid> tameRequests;
  std::vector<unsigned int> tameRequestAddresses;  // sender, reply, ...
  std::vector<Uuid> tameResponses;
  std::vector<Uuid> whistles;
  std::vector<MORL::Header::Type> responseTypes;
  std::vector<unsigned long> responseBlockCounts;
  std::vector<std::string> responseNames;
  std::vector<unsigned int> responseAddresses;  // sender, reply, ...

  void getMyUUID(unsigned char (&out)[12]) const override { std::memcpy(out, uuid.data(), 12); }
  void getOwnerUUID(unsigned char (&out)[12]) const override { std::memcpy(out, owner.data(), 12); }
  void getDeviceName(char (&out)[30]) const override {
    std::memset(out, 0, sizeof out);
    std::memcpy(out, name.data(), std::min(name.size(), sizeof out));
  }
  void getSoftwareVersion(char (&out)[20]) const override {
    std::memset(out, 0, sizeof out);
    std::memcpy(out, version.data(), std::min(version.size(), sizeof out));
  }
  QM::Span<const MORL::SupportedServiceBlock> getSupportedServiceSet() const override {
    return {services.data(), services.size()};
  }
  bool unicastSupported() const override { return unicast; }
  bool acceptsIncomingTameRequests(const unsigned char (&)[12]) const override {
    return acceptTame;
  }
  void onTameRequest(const unsigned char (&requester)[12], unsigned int senderAddress,
                     unsigned int replyAddress, void* context) override {
    tameRequests.push_back(toUuid(requester));
    tameRequestAddresses.push_back(senderAddress);
    tameRequestAddresses.push_back(replyAddress);
    EXPECT_EQ(context, this);
  }
  void onTameResponse(const unsigned char (&responder)[12]) override {
    tameResponses.push_back(toUuid(responder));
  }
  void onResponse(MORL::Header::Type type, MORLParser& parser) override {
    responseTypes.push_back(type);
    responseBlockCounts.push_back(parser.getTotalBlockCount());
    responseAddresses.push_back(parser.senderAddress());
    responseAddresses.push_back(parser.replyAddress());
    MORL::DeviceInfoBlock info;
    if (parser.getNext(info)) responseNames.push_back(std::string(info.deviceName, 30).c_str());
  }
  void onWhistleRequest(const unsigned char (&requester)[12]) override {
    whistles.push_back(toUuid(requester));
  }
  void send(QM::Span<const unsigned char> packet, unsigned int address, void* context) override {
    sent.push_back({Bytes(packet.begin(), packet.end()), address, context});
  }

 private:
  static Uuid toUuid(const unsigned char (&u)[12]) {
    Uuid out;
    std::memcpy(out.data(), u, 12);
    return out;
  }
};

struct Packet {
  MORL::Header::Type type = MORL::Header::Discovery;
  std::uint8_t flags = MORL::Header::FlagRequest | MORL::Header::FlagUnicast;
  std::uint16_t sequence = 0x1234;
  Uuid source = uuidOf(0x07);
  Uuid destination = uuidOf(0x00);
  Bytes payload;
  int lengthDelta = 0;  ///< added to the payload length written in the header

  Bytes bytes() const {
    MORL::Header h;
    h.type = type;
    h.flags = flags;
    h.sequenceNumber = sequence;
    std::memcpy(h.sourceUuid, source.data(), 12);
    std::memcpy(h.destinationUuid, destination.data(), 12);
    h.payloadLength = static_cast<std::uint16_t>(static_cast<int>(payload.size()) + lengthDelta);
    Bytes out(34);
    EXPECT_TRUE(h.pack({out.data(), out.size()}));
    return out + payload;
  }
};

QM::Span<const unsigned char> view(const Bytes& b) { return {b.data(), b.size()}; }

class MorlManagerTest : public ::testing::Test {
 protected:
  RecordingEndpoint endpoint;
  MORLManager manager;

  void SetUp() override { manager.init(&endpoint); }

  bool receive(const Packet& p, unsigned int from = ProberAddress) {
    return manager.receive(view(p.bytes()), from, &endpoint);
  }

  /// Sends a request with the manager and returns its sequence number.
  std::uint16_t request(MORL::Header::Type type = MORL::Header::Discovery) {
    static const unsigned char zero[12] = {};
    EXPECT_TRUE(manager.sendRequest(type, Broadcast, zero, nullptr));
    const Bytes& b = endpoint.sent.back().bytes;
    return static_cast<std::uint16_t>(b[2] | b[3] << 8);
  }

  /// A response from 12 x 07 to the finder carrying `payload`.
  Packet response(MORL::Header::Type type, std::uint16_t sequence, const Bytes& payload) {
    Packet p;
    p.type = type;
    p.flags = MORL::Header::FlagResponse;
    p.sequence = sequence;
    p.destination = endpoint.uuid;
    p.payload = payload;
    return p;
  }
};

// The finder's answer to a Discovery request from 12 x 07, sequence 0x1234.
const char* const FinderAnswer =
    "00 06 34 12 01 01 01 01 01 01 01 01 01 01 01 01 07 07 07 07 07 07 07 07 07 07 07 07 54 00"
    " 86 93 B9 3E"
    " 01 01 01 01 01 01 01 01 01 01 01 01 01 64 31 34 65 00 00 00 00 00 00 00 00 00 00 00 00 00"
    " 00 00 00 00 00 00 00 00 00 00 00 00 00 63 75 72 72 65 6E 74 00 00 00 00 00 00 00 00 00 00"
    " 00 00 00 B6 A8 36 CE"
    " 04 02 02 02 02 02 02 02 02 02 02 02 02 7A F7 61 39";

TEST_F(MorlManagerTest, DiscoveryRequestGetsFinderAnswerBytes) {
  EXPECT_TRUE(receive(Packet{}));
  ASSERT_EQ(endpoint.sent.size(), 1u);
  EXPECT_EQ(endpoint.sent[0].bytes.size(), 118u);
  EXPECT_EQ(toHex(endpoint.sent[0].bytes), toHex(hex(FinderAnswer)));
  EXPECT_EQ(endpoint.sent[0].address, ProberAddress);
  EXPECT_EQ(endpoint.sent[0].context, &endpoint);
}

TEST_F(MorlManagerTest, RequestWithoutUnicastIsAnsweredToBroadcast) {
  Packet p;
  p.flags = MORL::Header::FlagRequest;
  endpoint.unicast = false;
  EXPECT_TRUE(receive(p));
  ASSERT_EQ(endpoint.sent.size(), 1u);
  EXPECT_EQ(endpoint.sent[0].address, Broadcast);
  EXPECT_EQ(endpoint.sent[0].bytes[1], MORL::Header::FlagResponse);
}

TEST_F(MorlManagerTest, DiscoveryIsAnsweredWhateverItsDestination) {
  Packet p;
  p.destination = uuidOf(0x55);
  EXPECT_TRUE(receive(p));
  EXPECT_EQ(endpoint.sent.size(), 1u);
}

TEST_F(MorlManagerTest, TenServicesFillTheBufferElevenSendNothing) {
  for (int i = 0; i < 10; ++i) {
    endpoint.services.push_back(
        {static_cast<MORL::ServiceType>(i % 5), static_cast<std::uint16_t>(0x100 + i)});
  }
  EXPECT_TRUE(receive(Packet{}));
  ASSERT_EQ(endpoint.sent.size(), 1u);
  const Bytes& b = endpoint.sent[0].bytes;
  ASSERT_EQ(b.size(), 198u);
  EXPECT_EQ(b[28] | b[29] << 8, 164);
  for (int i = 0; i < 10; ++i) {
    const Bytes block(b.begin() + 101 + 8 * i, b.begin() + 101 + 8 * i + 8);
    const Bytes expected = withCrc(
        hex("03") + Bytes{static_cast<unsigned char>(i % 5), static_cast<unsigned char>(i), 0x01});
    EXPECT_EQ(toHex(block), toHex(expected)) << "service " << i;
  }
  EXPECT_EQ(toHex(Bytes(b.end() - 17, b.end())),
            "04 02 02 02 02 02 02 02 02 02 02 02 02 7A F7 61 39");

  endpoint.services.push_back({MORL::ServiceType::ExtenderDorn, 0});
  endpoint.sent.clear();
  EXPECT_FALSE(receive(Packet{}));
  EXPECT_TRUE(endpoint.sent.empty());
}

TEST_F(MorlManagerTest, LengthOffByOneIsDropped) {
  Packet shortBy;
  shortBy.lengthDelta = 1;
  EXPECT_FALSE(receive(shortBy));
  Packet longBy;
  longBy.payload = hex("00");
  longBy.lengthDelta = -1;
  EXPECT_FALSE(receive(longBy));
  Packet truncated;
  const Bytes wire = truncated.bytes();
  EXPECT_FALSE(manager.receive({wire.data(), 33}, ProberAddress, nullptr));
  EXPECT_TRUE(endpoint.sent.empty());
}

TEST_F(MorlManagerTest, OwnBroadcastHeardBackIsDropped) {
  for (auto type : {MORL::Header::Discovery, MORL::Header::DirectedDiscovery, MORL::Header::Tame,
                    MORL::Header::Whistle}) {
    Packet p;
    p.type = type;
    p.source = endpoint.uuid;
    p.destination = endpoint.uuid;
    endpoint.acceptTame = true;
    EXPECT_FALSE(receive(p)) << type;
  }
  const std::uint16_t seq = request();
  Packet own = response(MORL::Header::Discovery, seq, {});
  own.source = endpoint.uuid;
  EXPECT_FALSE(receive(own));
  EXPECT_EQ(endpoint.sent.size(), 1u);  // the request only
  EXPECT_TRUE(endpoint.tameRequests.empty());
  EXPECT_TRUE(endpoint.whistles.empty());
  EXPECT_TRUE(endpoint.responseTypes.empty());
}

TEST_F(MorlManagerTest, DirectedDiscoveryAndWhistleAnswerOnlyTheirAddressee) {
  for (auto type : {MORL::Header::DirectedDiscovery, MORL::Header::Whistle}) {
    endpoint.sent.clear();
    Packet other;
    other.type = type;
    other.destination = uuidOf(0x09);
    EXPECT_FALSE(receive(other)) << type;
    EXPECT_TRUE(endpoint.sent.empty());
    EXPECT_TRUE(endpoint.whistles.empty());

    Packet mine;
    mine.type = type;
    mine.sequence = 0xFFFF;
    mine.destination = endpoint.uuid;
    EXPECT_TRUE(receive(mine)) << type;
    ASSERT_EQ(endpoint.sent.size(), 1u);
    Bytes expected = hex(FinderAnswer);
    expected[0] = static_cast<unsigned char>(type);
    expected[2] = expected[3] = 0xFF;
    // Only the header's own CRC changes with type and sequence number.
    const Bytes headerBody(expected.begin(), expected.begin() + 30);
    const Bytes newHeader = withCrc(headerBody);
    std::copy(newHeader.begin(), newHeader.end(), expected.begin());
    EXPECT_EQ(toHex(endpoint.sent[0].bytes), toHex(expected)) << type;
  }
  ASSERT_EQ(endpoint.whistles.size(), 1u);
  EXPECT_EQ(endpoint.whistles[0], uuidOf(0x07));
}

TEST_F(MorlManagerTest, TameRequestIsAnsweredWithTameStatusOnlyWhenAccepted) {
  Packet p;
  p.type = MORL::Header::Tame;
  p.destination = uuidOf(0x66);  // the endpoint alone decides, not the destination
  EXPECT_FALSE(receive(p));
  EXPECT_TRUE(endpoint.sent.empty());
  EXPECT_TRUE(endpoint.tameRequests.empty());

  endpoint.acceptTame = true;
  p.flags = MORL::Header::FlagRequest;
  EXPECT_TRUE(receive(p));
  ASSERT_EQ(endpoint.tameRequests.size(), 1u);
  EXPECT_EQ(endpoint.tameRequests[0], uuidOf(0x07));
  EXPECT_EQ(endpoint.tameRequestAddresses, (std::vector<unsigned int>{ProberAddress, Broadcast}));
  ASSERT_EQ(endpoint.sent.size(), 1u);
  const Bytes expected =
      withCrc(hex("02 06 34 12") + Bytes(12, 0x01) + Bytes(12, 0x07) + hex("11 00")) +
      hex("04 02 02 02 02 02 02 02 02 02 02 02 02 7A F7 61 39");
  EXPECT_EQ(toHex(endpoint.sent[0].bytes), toHex(expected));
  EXPECT_EQ(endpoint.sent[0].address, Broadcast);
}

TEST_F(MorlManagerTest, RequestAndResponseFlagsTogetherCountAsRequest) {
  Packet p;
  p.flags = MORL::Header::FlagRequest | MORL::Header::FlagResponse;
  p.destination = endpoint.uuid;
  p.sequence = request();
  EXPECT_TRUE(receive(p));
  EXPECT_EQ(endpoint.sent.size(), 2u);
  EXPECT_TRUE(endpoint.responseTypes.empty());

  Packet neither;
  neither.flags = MORL::Header::FlagUnicast;
  EXPECT_FALSE(receive(neither));
}

TEST_F(MorlManagerTest, RequestIsAHeaderWithTheNextSequenceNumber) {
  const unsigned char target[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  int context = 0;
  ASSERT_TRUE(manager.sendRequest(MORL::Header::Whistle, 0x0A000009u, target, &context));
  ASSERT_EQ(endpoint.sent.size(), 1u);
  const Sent& s = endpoint.sent[0];
  EXPECT_EQ(s.address, 0x0A000009u);
  EXPECT_EQ(s.context, &context);
  const Bytes body = hex("03 05") + Bytes(s.bytes.begin() + 2, s.bytes.begin() + 4) +
                     Bytes(12, 0x01) + hex("01 02 03 04 05 06 07 08 09 0A 0B 0C 00 00");
  EXPECT_EQ(toHex(s.bytes), toHex(withCrc(body)));

  endpoint.unicast = false;
  ASSERT_TRUE(manager.sendRequest(MORL::Header::Discovery, Broadcast, target, nullptr));
  EXPECT_EQ(endpoint.sent[1].bytes[1], MORL::Header::FlagRequest);
}

TEST_F(MorlManagerTest, SequenceStartsFromUuidSeededRandAndWraps) {
  // JAMCRC of twelve 0x01 bytes.
  std::srand(0x6D3B28F8u);
  const int expectedStart = std::rand() % 65535;
  std::srand(12345);  // init must seed again
  MORLManager seeded;
  seeded.init(&endpoint);
  const unsigned char zero[12] = {};
  ASSERT_TRUE(seeded.sendRequest(MORL::Header::Discovery, Broadcast, zero, nullptr));
  const Bytes& first = endpoint.sent.back().bytes;
  EXPECT_EQ(first[2] | first[3] << 8, expectedStart);

  std::uint16_t previous = static_cast<std::uint16_t>(expectedStart);
  bool wrapped = false;
  for (int i = 0; i < 65536; ++i) {
    ASSERT_TRUE(seeded.sendRequest(MORL::Header::Discovery, Broadcast, zero, nullptr));
    const Bytes& b = endpoint.sent.back().bytes;
    const std::uint16_t seq = static_cast<std::uint16_t>(b[2] | b[3] << 8);
    EXPECT_EQ(seq, static_cast<std::uint16_t>(previous + 1));
    wrapped = wrapped || (previous == 0xFFFF && seq == 0);
    previous = seq;
    endpoint.sent.pop_back();
  }
  EXPECT_TRUE(wrapped);
}

TEST_F(MorlManagerTest, ResponseToLatestRequestReachesEndpoint) {
  const std::uint16_t seq = request();
  const Bytes answer = hex(FinderAnswer);
  const Bytes info(answer.begin() + 34, answer.end());
  Packet p = response(MORL::Header::Discovery, seq, info);
  p.flags |= MORL::Header::FlagUnicast;
  EXPECT_TRUE(receive(p, 0x0A000005u));
  EXPECT_EQ(endpoint.responseTypes, (std::vector<MORL::Header::Type>{MORL::Header::Discovery}));
  EXPECT_EQ(endpoint.responseBlockCounts, (std::vector<unsigned long>{2}));
  EXPECT_EQ(endpoint.responseNames, (std::vector<std::string>{"d14e"}));
  EXPECT_EQ(endpoint.responseAddresses, (std::vector<unsigned int>{0x0A000005u, 0x0A000005u}));

  p.type = MORL::Header::Whistle;
  p.flags = MORL::Header::FlagResponse;
  EXPECT_TRUE(receive(p, 0x0A000006u));
  EXPECT_EQ(endpoint.responseAddresses.back(), Broadcast);
  EXPECT_EQ(endpoint.responseTypes.back(), MORL::Header::Whistle);
  EXPECT_EQ(endpoint.sent.size(), 1u);  // responses are never answered
}

TEST_F(MorlManagerTest, StaleSequenceAndWrongDestinationAreDropped) {
  const std::uint16_t first = request();
  const std::uint16_t second = request();
  ASSERT_NE(first, second);
  EXPECT_FALSE(receive(response(MORL::Header::Discovery, first, {})));
  Packet foreign = response(MORL::Header::Discovery, second, {});
  foreign.destination = uuidOf(0x08);
  EXPECT_FALSE(receive(foreign));
  foreign.destination = uuidOf(0x00);
  EXPECT_FALSE(receive(foreign));
  EXPECT_TRUE(endpoint.responseTypes.empty());
  EXPECT_TRUE(receive(response(MORL::Header::Discovery, second, {})));
  EXPECT_EQ(endpoint.responseBlockCounts, (std::vector<unsigned long>{0}));
}

TEST_F(MorlManagerTest, TameResponseNeedsValidTameStatusBlock) {
  const std::uint16_t seq = request(MORL::Header::Tame);
  const Bytes tame = withCrc(hex("04") + Bytes(12, 0x07));
  Bytes broken = tame;
  broken[6] ^= 0x10;
  EXPECT_FALSE(receive(response(MORL::Header::Tame, seq, broken)));
  EXPECT_FALSE(receive(response(MORL::Header::Tame, seq, {})));
  const Bytes service = withCrc(hex("03 01 00 00"));
  EXPECT_FALSE(receive(response(MORL::Header::Tame, seq, service + tame)));
  EXPECT_TRUE(endpoint.tameResponses.empty());

  EXPECT_TRUE(receive(response(MORL::Header::Tame, seq, tame)));
  EXPECT_EQ(endpoint.tameResponses, (std::vector<Uuid>{uuidOf(0x07)}));
  EXPECT_TRUE(endpoint.responseTypes.empty());
}

TEST(MorlManagerOff, ZeroUuidOrNullEndpointSwitchesManagerOff) {
  RecordingEndpoint anonymous;
  anonymous.uuid = uuidOf(0x00);
  const unsigned char zero[12] = {};
  Packet p;
  const Bytes wire = p.bytes();

  MORLManager never;
  EXPECT_FALSE(never.sendRequest(MORL::Header::Discovery, Broadcast, zero, nullptr));
  EXPECT_FALSE(never.receive(view(wire), ProberAddress, nullptr));

  MORLManager off;
  off.init(&anonymous);
  EXPECT_FALSE(off.sendRequest(MORL::Header::Discovery, Broadcast, zero, nullptr));
  EXPECT_FALSE(off.receive(view(wire), ProberAddress, nullptr));
  EXPECT_TRUE(anonymous.sent.empty());

  RecordingEndpoint finder;
  MORLManager reset;
  reset.init(&finder);
  reset.init(nullptr);
  EXPECT_FALSE(reset.receive(view(wire), ProberAddress, nullptr));
  EXPECT_TRUE(finder.sent.empty());
}

}  // namespace
