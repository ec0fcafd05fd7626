#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "mdns/MDNSDiscovery.h"
#include "tests/mdns/MDNSDatagram.h"

namespace {

enum class Sender { V4, V4NoPort, V6, V6NoPort, V6Scoped };

struct ReplyCase {
  const char* name;
  std::vector<uint8_t> datagram;
  Sender sender;
  std::vector<std::string> recorded;
};

void PrintTo(const ReplyCase& c, std::ostream* os) { *os << c.name; }

std::vector<std::string> recordedAddresses() {
  std::vector<std::string> ips;
  for (const auto& e : MDNS_Discover::entries) ips.push_back(e.ip);
  return ips;
}

Datagram answerOnly(uint16_t answers) { return Datagram().header(0, 0, answers, 0, 0); }

std::vector<uint8_t> withLength(std::vector<uint8_t> d, size_t size) {
  d.resize(size);
  return d;
}

const std::vector<std::string> kNone;
const std::string kA = "192.168.1.20";

std::vector<ReplyCase> replyCases() {
  std::vector<ReplyCase> cases;
  auto add = [&](const char* name, std::vector<uint8_t> d, std::vector<std::string> recorded,
                 Sender sender = Sender::V4) {
    cases.push_back({name, std::move(d), sender, std::move(recorded)});
  };

  add("TypicalServiceReply", typicalReply("dev20"), {kA, kA, kA, kA});
  {
    Datagram d;
    d.header(0, 1, 1, 0, 2).question();
    d.pointer(12).rdata(12, Datagram().label("dev20").pointer(12).bytes);
    d.pointer(46).rdata(33, {0, 0, 0, 0, 0, 80, 0xC0, 46});
    d.pointer(46).rdata(1, {192, 168, 1, 20});
    add("OneQuestionOnePtrSrvAndA", d.bytes, {kA, kA, kA});
    std::vector<uint8_t> twoQuestions = d.bytes;
    twoQuestions[5] = 2;
    add("TwoQuestionsAddNothing", twoQuestions, kNone);
    std::vector<uint8_t> anyId = d.bytes;
    anyId[0] = 0x12;
    anyId[1] = 0x34;
    add("IdOtherThanOursCounts", anyId, {kA, kA, kA});
    add("ElevenBytesAddNothing", withLength(d.bytes, 11), kNone);
    add("EmptyDatagramAddsNothing", {}, kNone);
    add("TruncatedQuestionAddsNothing", withLength(d.bytes, 20), kNone);
    add("QuestionWithoutTypeAndClassAddsNothing", withLength(d.bytes, 12 + 18), kNone);
    add("LastRecordCutShortIsNotCounted", withLength(d.bytes, d.size() - 1), {kA, kA});
  }
  add("HeaderOnly", Datagram().header(0, 0, 0, 0, 0).bytes, kNone);
  add("CountsBeyondTheDataAddNothing", Datagram().header(0, 0, 0xFFFF, 0xFFFF, 0xFFFF).bytes,
      kNone);
  {
    Datagram d = Datagram().header(0, 0, 0, 0, 2);
    d.name({"dev20", "local"}).rdata(1, {192, 168, 1, 20});
    d.pointer(12).rdata(28, std::vector<uint8_t>(16, 0xFE));
    add("NoAnswersTwoAdditionals", d.bytes, {kA, kA});
  }
  {
    // The three sections continue from one another.
    Datagram d = Datagram().header(0, 0, 1, 1, 1);
    d.name({"x"}).rdata(1, {1, 2, 3, 4});
    d.name({"y"}).rdata(2, encodedName({"ns"}));
    d.name({"z"}).rdata(16, {});
    add("OneRecordInEachSection", d.bytes, {kA, kA, kA});
  }
  {
    // The second record claims one byte more than is left, and the bytes it
    // covers hold a well-formed record that must not be counted.
    Datagram d = answerOnly(3);
    d.name({"a"}).rdata(1, {1, 2, 3, 4});
    Datagram hidden;
    hidden.name({"b"}).rdata(1, {5, 6, 7, 8});
    d.name({"c"}).fixed(1, static_cast<uint16_t>(hidden.size() + 1));
    d.bytes.insert(d.bytes.end(), hidden.bytes.begin(), hidden.bytes.end());
    add("DataOverrunEndsTheSection", d.bytes, {kA});
    Datagram exact = answerOnly(2);
    exact.name({"a"}).rdata(1, {1, 2, 3, 4});
    exact.name({"c"}).fixed(1, static_cast<uint16_t>(hidden.size()));
    exact.bytes.insert(exact.bytes.end(), hidden.bytes.begin(), hidden.bytes.end());
    add("DataEndingExactlyAtTheEndCounts", exact.bytes, {kA, kA});
    Datagram overrunThenAdditional = Datagram().header(0, 0, 1, 0, 1);
    overrunThenAdditional.name({"c"}).fixed(1, static_cast<uint16_t>(hidden.size() + 1));
    overrunThenAdditional.bytes.insert(overrunThenAdditional.bytes.end(), hidden.bytes.begin(),
                                       hidden.bytes.end());
    add("DataOverrunAlsoEndsLaterSections", overrunThenAdditional.bytes, kNone);
  }
  {
    // An invalid owner name leaves the walk on its first byte: the pointer's
    // own bytes become type and class, and the data length is read 8 bytes on.
    auto badPointer = [](uint16_t target) {
      Datagram d = answerOnly(1);
      d.pointer(target).raw({0x00, 0x01, 0x00, 0x00, 0x00, 0x78}).u16(2).raw({0xAB, 0xCD});
      return d.bytes;
    };
    add("OwnerPointerAtTheEndIsReadAsFixedPart", badPointer(24), {kA});
    add("OwnerPointerPastTheEndIsReadAsFixedPart", badPointer(0x3FFF), {kA});
    // Pointing at offset 23 (0xCD) is inside the datagram, but the label
    // there (205 bytes) does not fit.
    add("OwnerPointerToALabelThatDoesNotFit", badPointer(23), {kA});
    Datagram valid = answerOnly(2);
    valid.name({"dev"}).rdata(1, {1, 2, 3, 4});
    valid.pointer(12).rdata(1, {1, 2, 3, 4});
    add("OwnerPointerToAFittingLabel", valid.bytes, {kA, kA});
    Datagram last = answerOnly(2);
    last.name({"dev"}).rdata(1, {1, 2, 3, 4}).u8(0xC0);
    add("PointerCutAfterItsFirstByte", last.bytes, {kA});
    Datagram selfLoop = Datagram().header(0, 1, 1, 0, 0);
    selfLoop.pointer(12).u16(12).u16(1);
    selfLoop.pointer(12).rdata(1, {1, 2, 3, 4});
    add("QuestionPointingAtItselfIsInvalid", selfLoop.bytes, kNone);
  }
  {
    Datagram q64 = Datagram().header(0, 1, 1, 0, 0);
    q64.longName(64).u16(12).u16(1);
    q64.name({"r"}).rdata(1, {1, 2, 3, 4});
    add("QuestionOfSixtyFourLabelsAccepted", q64.bytes, {kA});
    Datagram q65 = Datagram().header(0, 1, 1, 0, 0);
    q65.longName(65).u16(12).u16(1);
    q65.name({"r"}).rdata(1, {1, 2, 3, 4});
    add("QuestionOfSixtyFiveLabelsRejected", q65.bytes, kNone);
    Datagram o64 = answerOnly(1);
    o64.longName(64).rdata(1, {1, 2, 3, 4});
    add("OwnerOfSixtyFourLabelsAccepted", o64.bytes, {kA});
    // Read from the name's first byte, the data length is 0x0161, far past the end.
    Datagram o65 = answerOnly(1);
    o65.longName(65).rdata(1, {1, 2, 3, 4});
    add("OwnerOfSixtyFiveLabelsRejected", o65.bytes, kNone);
    Datagram p64 = answerOnly(1);
    for (int i = 0; i < 64; ++i) p64.label("a");
    p64.pointer(12).rdata(1, {1, 2, 3, 4});
    add("SixtyFourLabelsEndingInAPointerAccepted", p64.bytes, {kA});
  }
  {
    Datagram d = answerOnly(1);
    d.name({"dev"}).rdata(1, {});
    add("EmptyDataCounts", d.bytes, {kA});
    add("SenderWithoutPort", d.bytes, {kA}, Sender::V4NoPort);
    add("IPv6SenderGivesBracketAndFirstGroup", d.bytes, {"[fe80"}, Sender::V6);
    add("IPv6SenderWithoutPortGivesFirstGroup", d.bytes, {"fe80"}, Sender::V6NoPort);
    add("ScopedIPv6SenderGivesBracketAndFirstGroup", d.bytes, {"[fe80"}, Sender::V6Scoped);
  }
  return cases;
}

class MDNSReply : public testing::TestWithParam<ReplyCase> {};

TEST_P(MDNSReply, RecordsTheSenderOncePerWellFormedRecord) {
  const ReplyCase& c = GetParam();
  MDNS_Discover::entries.clear();
  // A buffer of exactly the datagram's size, so that any read past it is caught
  // under AddressSanitizer.
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[c.datagram.size()]);
  if (!c.datagram.empty()) std::memcpy(buffer.get(), c.datagram.data(), c.datagram.size());
  sockaddr_in v4 = ipv4Sender(kA.c_str(), c.sender == Sender::V4NoPort ? 0 : 5353);
  sockaddr_in6 v6 = ipv6Sender("fe80::1:2", c.sender == Sender::V6NoPort ? 0 : 5353,
                               c.sender == Sender::V6Scoped ? 1 : 0);
  const bool isV6 =
      c.sender == Sender::V6 || c.sender == Sender::V6NoPort || c.sender == Sender::V6Scoped;
  const sockaddr* from =
      isV6 ? reinterpret_cast<const sockaddr*>(&v6) : reinterpret_cast<const sockaddr*>(&v4);
  const size_t counted =
      mdns_read_reply(buffer.get(), c.datagram.size(), from, isV6 ? sizeof v6 : sizeof v4);
  EXPECT_EQ(recordedAddresses(), c.recorded);
  EXPECT_EQ(counted, c.recorded.size());
}

INSTANTIATE_TEST_SUITE_P(Datagrams, MDNSReply, testing::ValuesIn(replyCases()),
                         [](const testing::TestParamInfo<ReplyCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(MDNSQuery, IsThirtyFourBytesAskingPtrHttpTcpLocal) {
  uint8_t buffer[2048];
  std::memset(buffer, 0xEE, sizeof buffer);
  ASSERT_EQ(mdns_build_query(buffer, sizeof buffer, 0x8001), 34u);
  const std::vector<uint8_t> expected{
      0, 0,   0,   0,   0,   1,   0, 0,    0,    0,    0,   0,  // ID, flags, 1 question
      5, '_', 'h', 't', 't', 'p', 4, '_',  't',  'c',  'p',     // _http._tcp
      5, 'l', 'o', 'c', 'a', 'l', 0, 0x00, 0x0C, 0x80, 0x01};   // local, PTR, unicast IN
  EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 34), expected);
  EXPECT_EQ(buffer[34], 0xEE);
  ASSERT_EQ(mdns_build_query(buffer, sizeof buffer, 1), 34u);
  EXPECT_EQ(buffer[32], 0x00);
  EXPECT_EQ(buffer[33], 0x01);
}

TEST(MDNSQuery, TooSmallBufferGivesZero) {
  uint8_t buffer[34];
  for (size_t capacity : {0, 11, 12, 20, 28, 29, 33})
    EXPECT_EQ(mdns_build_query(buffer, capacity, 0x8001), 0u) << capacity;
  EXPECT_EQ(mdns_build_query(buffer, 34, 0x8001), 34u);
}

TEST(MDNSRecords, AccumulateWithoutDeduplication) {
  MDNS_Discover::entries.clear();
  MDNS_Discover::AddIP("10.0.0.9");
  const std::vector<uint8_t> d = typicalReply("dev");
  const sockaddr_in from = ipv4Sender("10.0.0.9", 5353);
  EXPECT_EQ(
      mdns_read_reply(d.data(), d.size(), reinterpret_cast<const sockaddr*>(&from), sizeof from),
      4u);
  EXPECT_EQ(recordedAddresses(), std::vector<std::string>(5, "10.0.0.9"));
  for (const auto& e : MDNS_Discover::entries) {
    EXPECT_EQ(e.name, "");
    EXPECT_EQ(e.version, "");
    EXPECT_EQ(e.device_type, "");
  }
}

}  // namespace
