#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "morl/ControllerInfo.h"
#include "morl/MORLManager.h"
#include "morl/MORLParser.h"
#include "morl/udp_server.h"
#include "tests/codec/Bytes.h"

namespace {

using H = MORL::Header;
constexpr H::Type Disc = H::Discovery, Directed = H::DirectedDiscovery, Tame = H::Tame;

std::string uuid(const unsigned char (&u)[12]) { return toHex(Bytes(u, u + 12)); }

// What the finder's endpoint refers to; built before it.
struct FinderParts {
  std::vector<Entry> found;
  udp_server unused{nullptr};
};

/// The finder's own endpoint, writing down what the manager makes it do instead
/// of sending; a few switches make it another node.
class Node : public FinderParts, public ControllerInfo {
 public:
  Node() : ControllerInfo(found, unused) {}

  std::vector<MORL::SupportedServiceBlock> services;
  bool acceptTame = false, unicast = true, anonymous = false;
  void* context = nullptr;
  std::string log;

  void getMyUUID(unsigned char (&u)[12]) const override {
    ControllerInfo::getMyUUID(u);
    if (anonymous) std::memset(u, 0, 12);
  }
  QM::Span<const MORL::SupportedServiceBlock> getSupportedServiceSet() const override {
    if (services.empty()) return ControllerInfo::getSupportedServiceSet();
    return {services.data(), services.size()};
  }
  bool unicastSupported() const override { return unicast && ControllerInfo::unicastSupported(); }
  bool acceptsIncomingTameRequests(const unsigned char (&requester)[12]) const override {
    return acceptTame || ControllerInfo::acceptsIncomingTameRequests(requester);
  }
  void onTameRequest(const unsigned char (&requester)[12], unsigned int senderAddress,
                     unsigned int replyAddress, void* c) override {
    log += "\ntame request from" + uuid(requester) + " at " + dottedAddress(senderAddress) +
           " reply " + dottedAddress(replyAddress);
    EXPECT_EQ(c, context);
  }
  void onTameResponse(const unsigned char (&u)[12]) override { log += "\ntamed by" + uuid(u); }
  void onWhistleRequest(const unsigned char (&u)[12]) override { log += "\nwhistle" + uuid(u); }
  void onResponse(H::Type type, MORLParser& parser) override {
    log += "\nresponse " + std::to_string(type) + " from " + dottedAddress(parser.senderAddress()) +
           " reply " + dottedAddress(parser.replyAddress()) + " blocks " +
           std::to_string(parser.getTotalBlockCount());
    ControllerInfo::onResponse(type, parser);
  }
  void send(QM::Span<const unsigned char> packet, unsigned int address, void* c) override {
    log += "\nsent to " + dottedAddress(address) + ":" + toHex(Bytes(packet.begin(), packet.end()));
    EXPECT_EQ(c, context);
  }
};

TEST(MorlManager, RequestsCountOnFromASequenceSeededByTheUuid) {
  Node node;
  MORLManager manager;
  manager.init(&node);
  const unsigned char anyone[12] = {}, target[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  EXPECT_TRUE(manager.sendRequest(Disc, 0xFFFFFFFFu, anyone, nullptr));
  EXPECT_TRUE(manager.sendRequest(H::Whistle, 0x0A000009u, target, nullptr));
  EXPECT_EQ(node.log, expand("\nsent to 255.255.255.255: 00 05 16 5F 01*12 00*12 00 00 9C E7 21 24"
                             "\nsent to 10.0.0.9: 03 05 17 5F 01*13 02 03 04 05 06 07 08 09 0A"
                             " 0B 0C 00 00 6A 08 9C 44"));
}

enum Setup { TenServices = 1, ElevenServices = 2, AcceptsTame = 4, NoUnicast = 8, Anonymous = 16 };
const int Pending = 0x5F16;  // the node's request, as above

/// A datagram from 12 x 07 at 10.0.0.5 to a node that has just sent a request.
struct Row {
  const char* name;
  H::Type type;
  int flags, sequence;
  std::string payload, expected;  ///< receive's result, what the node did, its records
  int destination = 0x01, setup = 0, lengthDelta = 0, source = 0x07;
};

std::string run(const Row& row) {
  Node node;
  node.acceptTame = row.setup & AcceptsTame;
  node.unicast = !(row.setup & NoUnicast);
  node.anonymous = row.setup & Anonymous;
  for (int i = 0; i < (row.setup & TenServices ? 10 : row.setup & ElevenServices ? 11 : 0); ++i)
    node.services.push_back(
        {i % 2 ? MORL::ServiceType::ExtenderFell : MORL::ServiceType::ExtenderDorn,
         static_cast<std::uint16_t>(i % 2 ? 0xFFFF : 0x0100)});
  MORLManager manager;
  manager.init(&node);
  const unsigned char anyone[12] = {};
  std::string out = manager.sendRequest(Disc, 0xFFFFFFFFu, anyone, nullptr) ? "" : "off ";
  node.log.clear();

  H h{row.type, static_cast<std::uint8_t>(row.flags), static_cast<std::uint16_t>(row.sequence)};
  std::memset(h.sourceUuid, row.source, 12);
  std::memset(h.destinationUuid, row.destination, 12);
  Bytes datagram(H::PackedSize), payload = hex(row.payload);
  h.payloadLength = static_cast<std::uint16_t>(payload.size() + row.lengthDelta);
  EXPECT_TRUE(h.pack({datagram.data(), datagram.size()}));
  datagram.insert(datagram.end(), payload.begin(), payload.end());
  int context;
  node.context = &context;
  out += manager.receive(view(datagram), 0x0A000005u, &context) ? "true" : "false";
  out += node.log;
  for (const Entry& e : node.found)
    out += "\nrecord " + e.ip + "|" + e.name + "|" + e.version + "|" + e.device_type;
  return out;
}

// The finder's blocks and answers; checksums from Python's zlib.
const std::string Finder = " 01 01*12 64 31 34 65 00*26 63 75 72 72 65 6E 74 00*13 B6 A8 36 CE";
const std::string FinderTame = " 04 02*12 7A F7 61 39";
const std::string Answer = " 00 06 34 12 01*12 07*12 54 00 86 93 B9 3E" + Finder + FinderTame;
const std::string ToProber = "true\nsent to 10.0.0.5:", ToAll = "true\nsent to 255.255.255.255:";
const std::string Response = "true\nresponse 0 from 10.0.0.5 reply 10.0.0.5 blocks ";
const std::string Device = "\nrecord 10.0.0.5|ext-7|2.4.1|";

const Row rows[] = {
    {"discovery", Disc, 5, 0x1234, "", ToProber + Answer, 0x00},
    {"discovery without unicast", Disc, 1, 0x1234, "", ToAll + Answer},
    {"directed discovery", Directed, 5, 0x1234, "",
     ToProber + " 01 06 34 12 01*12 07*12 54 00 8E 70 D9 02" + Finder + FinderTame},
    {"directed discovery to another", Directed, 5, 0x1234, "", "false", 0x09},
    {"whistle", H::Whistle, 5, 0x1234, "",
     "true\nwhistle 07*12\nsent to 10.0.0.5: 03 06 34 12 01*12 07*12 54 00 9E B6 18 7A" + Finder +
         FinderTame},
    {"whistle to another", H::Whistle, 5, 0x1234, "", "false", 0x09},
    {"tame refused", Tame, 5, 0x1234, "", "false"},
    {"tame accepted from anyone", Tame, 1, 0x1234, "",
     "true\ntame request from 07*12 at 10.0.0.5 reply 255.255.255.255\nsent to 255.255.255.255:"
     " 02 06 34 12 01*12 07*12 11 00 D6 EE 76 CB" +
         FinderTame,
     0x66, AcceptsTame},
    {"node without unicast", Disc, 5, 0x1234, "",
     ToProber + " 00 02 34 12 01*12 07*12 54 00 57 F1 D7 69" + Finder + FinderTame, 1, NoUnicast},
    {"ten services", Disc, 5, 0x1234, "",
     ToProber + " 00 06 34 12 01*12 07*12 A4 00 3B 72 05 2A" + Finder +
         repeat(" 03 00 00 01 9B BF 09 BB 03 04 FF FF 2E 35 21 75", 5) + FinderTame,
     1, TenServices},
    {"eleven services do not fit", Disc, 5, 0x1234, "", "false", 1, ElevenServices},
    {"node without identity", Disc, 5, 0x1234, "", "off false", 1, Anonymous},
    {"unknown type", H::Type(4), 5, 0x1234, "", "false"},
    {"own request heard back", Disc, 5, 0x1234, "", "false", 1, 0, 0, 0x01},
    {"payload a byte short", Disc, 5, 0x1234, "", "false", 1, 0, 1},
    {"payload a byte long", Disc, 5, 0x1234, " 00", "false", 1, 0, -1},
    {"neither request nor response", Disc, 4, Pending, "", "false"},
    {"request and response", Disc, 3, Pending, InfoDev,
     ToAll + " 00 06 16 5F 01*12 07*12 54 00 87 C7 81 64" + Finder + FinderTame},

    {"device", Disc, 6, Pending, InfoDev + Svc1 + Svc4 + Tame0,
     Response + "4" + Device + "extender_fell"},
    // Types 0, 2 and 7: VarnockLan.EachRunPrintsExactlyWhatItsMethodsFind (--json).
    {"type 1", Disc, 6, Pending, InfoDev + Svc1, Response + "2" + Device + "extender_brask"},
    {"type 3", Disc, 6, Pending, InfoDev + Svc3, Response + "2" + Device + "extender_quin"},
    {"no service", Disc, 6, Pending, InfoDev + Tame0, Response + "2" + Device},
    {"no device info", Disc, 6, Pending, Svc3 + Tame0, Response + "2\nrecord |||extender_quin"},
    {"tame status first", Disc, 6, Pending, Tame0 + InfoDev + Svc1, Response + "3\nrecord |||"},
    {"no blocks", Disc, 6, Pending, "", Response + "0\nrecord |||"},
    {"full-width texts", Disc, 6, Pending, InfoFull,
     Response + "1\nrecord 10.0.0.5|ABCDEFGHIJKLMNOPQRSTUVWXYZ0123|v1.2.3-rc.4+build.56|"},
    {"answer without unicast", Disc, 2, Pending, Svc4,
     "true\nresponse 0 from 10.0.0.5 reply 255.255.255.255 blocks 1\nrecord |||extender_fell"},
    {"answer to an earlier request", Disc, 6, Pending - 1, InfoDev, "false"},
    {"answer to another", Disc, 6, Pending, InfoDev, "false", 0x08},
    {"answer to anyone", Disc, 6, Pending, InfoDev, "false", 0x00},
    {"own answer heard back", Disc, 6, Pending, InfoDev, "false", 1, 0, 0, 0x01},
    {"directed discovery answer", Directed, 6, Pending, InfoDev,
     "true\nresponse 1 from 10.0.0.5 reply 10.0.0.5 blocks 1"},
    {"whistle answer", H::Whistle, 6, Pending, InfoDev,
     "true\nresponse 3 from 10.0.0.5 reply 10.0.0.5 blocks 1"},
    {"tame answer", Tame, 6, Pending, Tame0, "true\ntamed by 07*12"},
    {"tame answer damaged", Tame, 6, Pending, BadTame0, "false"},
    {"tame answer empty", Tame, 6, Pending, "", "false"},
    {"tame answer after a service", Tame, 6, Pending, Svc1 + Tame0, "false"},
};

TEST(MorlManager, AnswersRecordsOrDropsEachDatagram) {
  for (const Row& row : rows) EXPECT_EQ(run(row), expand(row.expected)) << row.name;
}

}  // namespace
