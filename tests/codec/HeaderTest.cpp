#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "morl/Header.h"
#include "tests/codec/Bytes.h"

namespace {

const char* const DiscoveryRequest =
    "00 05 34 12 01 01 01 01 01 01 01 01 01 01 01 01"
    " 00 00 00 00 00 00 00 00 00 00 00 00 00 00 9D B3 19 7E";

MORL::Header discoveryHeader() {
  MORL::Header h;
  h.type = MORL::Header::Discovery;
  h.flags = MORL::Header::FlagRequest | MORL::Header::FlagUnicast;
  h.sequenceNumber = 0x1234;
  std::memset(h.sourceUuid, 0x01, 12);
  std::memset(h.destinationUuid, 0x00, 12);
  h.payloadLength = 0;
  return h;
}

void expectSameFields(const MORL::Header& a, const MORL::Header& b) {
  EXPECT_EQ(a.type, b.type);
  EXPECT_EQ(a.flags, b.flags);
  EXPECT_EQ(a.sequenceNumber, b.sequenceNumber);
  EXPECT_EQ(0, std::memcmp(a.sourceUuid, b.sourceUuid, 12));
  EXPECT_EQ(0, std::memcmp(a.destinationUuid, b.destinationUuid, 12));
  EXPECT_EQ(a.payloadLength, b.payloadLength);
}

MORL::Header sentinelHeader() {
  MORL::Header h;
  h.type = MORL::Header::Whistle;
  h.flags = 0xEE;
  h.sequenceNumber = 0xBEEF;
  std::memset(h.sourceUuid, 0xEE, 12);
  std::memset(h.destinationUuid, 0xDD, 12);
  h.payloadLength = 0xCAFE;
  return h;
}

TEST(MorlHeader, DiscoveryRequestPacksToKnownBytes) {
  Bytes out(34, 0xAA);
  ASSERT_TRUE(discoveryHeader().pack(area(out)));
  EXPECT_EQ(toHex(out), toHex(hex(DiscoveryRequest)));
}

TEST(MorlHeader, DiscoveryRequestUnpacksToItsFields) {
  MORL::Header h;
  ASSERT_TRUE(h.unpack(view(hex(DiscoveryRequest))));
  expectSameFields(h, discoveryHeader());
}

TEST(MorlHeader, SingleBitFlipFailsUnpack) {
  const Bytes good = hex(DiscoveryRequest);
  for (std::size_t byte = 0; byte < good.size(); ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes bad = good;
      bad[byte] ^= static_cast<unsigned char>(1u << bit);
      MORL::Header h = sentinelHeader();
      EXPECT_FALSE(h.unpack(view(bad))) << "byte " << byte << " bit " << bit;
      expectSameFields(h, sentinelHeader());
    }
  }
}

TEST(MorlHeader, TypeAboveThreeWithCorrectCrcFailsUnpack) {
  Bytes body = hex(DiscoveryRequest);
  body.resize(30);
  for (int type = 0; type < 256; ++type) {
    body[0] = static_cast<unsigned char>(type);
    MORL::Header h;
    EXPECT_EQ(h.unpack(view(withCrc(body))), type <= 3) << "type " << type;
  }
}

TEST(MorlHeader, UnpackNeedsThirtyFourBytesAndIgnoresWhatFollows) {
  const Bytes good = hex(DiscoveryRequest);
  MORL::Header h = sentinelHeader();
  EXPECT_FALSE(h.unpack(QM::Span<const unsigned char>(good.data(), 33)));
  EXPECT_FALSE(h.unpack(QM::Span<const unsigned char>(good.data(), 0)));
  EXPECT_FALSE(h.unpack(QM::Span<const unsigned char>(nullptr, 34)));
  EXPECT_FALSE(h.unpack(QM::Span<const unsigned char>()));
  expectSameFields(h, sentinelHeader());

  EXPECT_TRUE(h.unpack(view(good + hex("FF 00 12"))));
  expectSameFields(h, discoveryHeader());
}

TEST(MorlHeader, PackNeedsThirtyFourBytesAndWritesNothingOtherwise) {
  Bytes out(33, 0xAA);
  EXPECT_FALSE(discoveryHeader().pack(area(out)));
  EXPECT_EQ(out, Bytes(33, 0xAA));
  EXPECT_FALSE(discoveryHeader().pack(QM::Span<unsigned char>(nullptr, 200)));
  EXPECT_FALSE(discoveryHeader().pack(QM::Span<unsigned char>(out.data(), 0)));

  Bytes larger(40, 0xAA);
  EXPECT_TRUE(discoveryHeader().pack(area(larger)));
  EXPECT_EQ(toHex(larger.data(), 34), toHex(hex(DiscoveryRequest)));
  EXPECT_EQ(Bytes(larger.begin() + 34, larger.end()), Bytes(6, 0xAA));
}

TEST(MorlHeader, PackThenUnpackKeepsEveryField) {
  std::mt19937 rng(4792);
  for (int i = 0; i < 2000; ++i) {
    MORL::Header in;
    in.type = static_cast<MORL::Header::Type>(rng() % 4);
    in.flags = static_cast<std::uint8_t>(rng());
    in.sequenceNumber = static_cast<std::uint16_t>(rng());
    for (auto& b : in.sourceUuid) b = static_cast<unsigned char>(rng());
    for (auto& b : in.destinationUuid) b = static_cast<unsigned char>(rng());
    in.payloadLength = static_cast<std::uint16_t>(rng());
    Bytes wire(34);
    ASSERT_TRUE(in.pack(area(wire)));
    EXPECT_EQ(wire[2], in.sequenceNumber & 0xFF);
    EXPECT_EQ(wire[29], in.payloadLength >> 8);
    MORL::Header out;
    ASSERT_TRUE(out.unpack(view(wire)));
    expectSameFields(out, in);
  }
}

TEST(MorlFraming, ContainsValidBlockChecksTrailingCrcOfFirstNBytes) {
  EXPECT_TRUE(MORL::containsValidBlock(view(hex("FF FF FF FF")), 4));
  EXPECT_FALSE(MORL::containsValidBlock(view(hex("FF FF FF FE")), 4));
  EXPECT_FALSE(MORL::containsValidBlock(view(hex("FF FF FF")), 4));
  // Lengths below the CRC's own four bytes are never a block.
  EXPECT_FALSE(MORL::containsValidBlock(view(hex("FF FF FF FF")), 3));
  EXPECT_FALSE(MORL::containsValidBlock(view(hex("FF FF FF FF")), 0));

  const Bytes block = withCrc(hex("02 10 20 30"));
  EXPECT_TRUE(MORL::containsValidBlock(view(block + hex("99 98")), 8));
  EXPECT_FALSE(MORL::containsValidBlock(view(block), 9));
  // Not 00: without a final inversion, a block followed by a zero byte is
  // also a valid block one byte longer.
  EXPECT_FALSE(MORL::containsValidBlock(view(block + hex("01")), 9));
  EXPECT_FALSE(MORL::containsValidBlock(QM::Span<const unsigned char>(nullptr, 8), 8));
}

TEST(MorlFraming, IsSmallerThanCoversNullEmptyAndShort) {
  const Bytes five(5, 0);
  EXPECT_TRUE(MORL::isSmallerThan(QM::Span<const unsigned char>(nullptr, 5), 1));
  EXPECT_TRUE(MORL::isSmallerThan(QM::Span<const unsigned char>(five.data(), 0), 0));
  EXPECT_TRUE(MORL::isSmallerThan(view(five), 6));
  EXPECT_FALSE(MORL::isSmallerThan(view(five), 5));
  EXPECT_FALSE(MORL::isSmallerThan(view(five), 0));
}

TEST(MorlFraming, CutAdvancesOrLeavesEmptySpanAtOldEnd) {
  unsigned char bytes[10] = {};
  QM::Span<unsigned char> s(bytes, 10);
  MORL::cut(s, 0);
  EXPECT_EQ(s.data(), bytes);
  EXPECT_EQ(s.size(), 10u);
  MORL::cut(s, 3);
  EXPECT_EQ(s.data(), bytes + 3);
  EXPECT_EQ(s.size(), 7u);
  MORL::cut(s, 7);
  EXPECT_EQ(s.data(), bytes + 10);
  EXPECT_TRUE(s.empty());

  QM::Span<const unsigned char> c(bytes, 10);
  MORL::cut(c, 4);
  MORL::cut(c, 100);
  EXPECT_EQ(c.data(), bytes + 10);
  EXPECT_EQ(c.size(), 0u);
  MORL::cut(c, 1);
  EXPECT_EQ(c.data(), bytes + 10);
  EXPECT_EQ(c.size(), 0u);
}

}  // namespace
