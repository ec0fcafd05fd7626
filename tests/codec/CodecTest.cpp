#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <utility>

#include "fuzz/ReferenceScan.h"
#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"
#include "qm/MathFuncs.h"
#include "tests/codec/Bytes.h"

namespace {

TEST(Qm, ChecksumIsZlibsComplementAndIntegersGoLowByteFirst) {
  const std::pair<std::string, unsigned int> rows[] = {{"", 0}, {"123456789", 0xCBF43926u}};
  for (const auto& [text, zlib] : rows) {
    QM::CRCSoft32 crc;
    crc.updateBlock(reinterpret_cast<const unsigned char*>(text.data()),
                    static_cast<unsigned int>(text.size()));
    EXPECT_EQ(crc.getNCRCSum(), zlib) << text;
    EXPECT_EQ(crc.getCRCSum(), ~zlib) << text;
  }

  Bytes out(15, 0xAA);
  QM::LittleEndianOutputSerializer w({out.data(), out.size()});
  EXPECT_TRUE(w.addUint8(0x9C) && w.addUint16(0x1234) && w.addUint32(0xDEADBEEFu) &&
              w.addUint64(0x0102030405060708u));
  EXPECT_EQ(toHex(out), " 9C 34 12 EF BE AD DE 08 07 06 05 04 03 02 01");
  QM::LittleEndianInputDeserializer r(out.data());
  r.init(out.data() + 7);
  EXPECT_EQ(r.Uint64(), 0x0102030405060708u);

  w.init(out.data(), 7);
  EXPECT_TRUE(w.addUint16(0x0201) && w.addUint16(0x0403));
  const unsigned char block[4] = {9, 9, 9, 9};
  EXPECT_FALSE(w.addUint32(0) || w.addUint64(0) || w.addByteBlock(block, 4));
  EXPECT_TRUE(w.addByteBlock(block, 0) && w.addByteBlock(block, 3));
  EXPECT_FALSE(w.addUint8(0) || w.addUint16(0));
  EXPECT_EQ(toHex(out), " 01 02 03 04 09 09 09 08 07 06 05 04 03 02 01");
}

/// `value` packs to exactly `wire` and into nothing shorter; `wire` (and what
/// follows it) unpacks to a value that packs to `wire` again, while a prefix, a
/// null span or any single bit changed fails and leaves the object as it was.
template <typename T>
void expectWire(const T& value, const std::string& wire) {
  const Bytes bytes = hex(wire);
  Bytes out(bytes.size() + 1, 0xAA), small(bytes.size() - 1, 0xAA);
  EXPECT_TRUE(value.pack({out.data(), out.size()}));
  EXPECT_FALSE(value.pack({small.data(), small.size()}) || value.pack({nullptr, out.size()}));
  EXPECT_EQ(toHex(out) + toHex(small),
            toHex(bytes) + repeat(" AA", static_cast<int>(bytes.size())));
  T back{};
  ASSERT_TRUE(back.unpack(view(hex(wire + " 00 FF"))));
  std::vector<Bytes> bad = {Bytes(bytes.begin(), bytes.end() - 1)};
  for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    bad.push_back(bytes);
    bad.back()[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
  }
  for (const Bytes& b : bad) EXPECT_FALSE(back.unpack(view(b))) << toHex(b);
  EXPECT_FALSE(back.unpack({nullptr, bytes.size()}) || back.unpack({bytes.data(), 0}));
  EXPECT_TRUE(back.pack({out.data(), out.size()}));
  EXPECT_EQ(toHex(out), toHex(bytes) + " AA");
}

TEST(MorlCodec, HeaderAndBlocksHaveTheirWireBytes) {
  MORL::Header discovery;
  discovery.flags = MORL::Header::FlagRequest | MORL::Header::FlagUnicast;
  discovery.sequenceNumber = 0x1234;
  std::memset(discovery.sourceUuid, 0x01, 12);
  expectWire(discovery, " 00 05 34 12 01*12 00*12 00 00 9D B3 19 7E");
  expectWire(MORL::SupportedServiceBlock{MORL::ServiceType::PallorModule, 1}, Svc2);
  expectWire(MORL::TameStatusBlock{}, Tame0);
  MORL::DeviceInfoBlock info;
  std::memset(info.uuid, 0x07, 12);
  std::memcpy(info.deviceName, "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123", 30);
  std::memcpy(info.softwareVersion, "v1.2.3-rc.4+build.56", 20);
  expectWire(info, InfoFull);
}

TEST(MorlCodec, RejectsUnknownTypesAndOtherBlocks) {
  EXPECT_FALSE(MORL::Header{}.unpack(view(hex(" 04 05 34 12 01*12 00*12 00 00 BD 3F 9A 8F"))));
  EXPECT_FALSE(MORL::DeviceInfoBlock{}.unpack(view(hex(Svc2 + repeat(Tame0, 4)))));
  EXPECT_FALSE(MORL::SupportedServiceBlock{}.unpack(view(hex(Tame0))));
  EXPECT_FALSE(MORL::TameStatusBlock{}.unpack(view(hex(Svc2 + Svc2 + Svc2))));
  for (int code = 0; code < 256; ++code) {
    const unsigned long size = code == 1 ? 67 : code == 3 ? 8 : code == 4 ? 17 : 0;
    EXPECT_EQ(MORL::blockSize(static_cast<unsigned char>(code)), size) << code;
  }
  EXPECT_EQ(QM::MathFuncs::max(8ul, 67ul, 17ul), 67ul);
}

// Blocks of unknown type 02 with a checksum over their first 1, 6 and 63 bytes.
const std::string Unknown5 = " 02 5E 71 F3 C3";
const std::string Unknown10 = " 02 A1 A2 A3 A4 A5 4C 55 39 1E";
const std::string Unknown67 = " 02 33*62 00 7A 57 AA";

TEST(MorlParser, KeepsTheValidKnownBlocks) {
  const std::pair<std::string, std::string> rows[] = {
      {InfoDev + Svc2 + Svc4 + Tame0, "0+67 67+8 75+8 83+17"},
      {Unknown5 + Svc1 + Unknown10 + Svc2 + Unknown67 + Tame0, "5+8 23+8 98+17"},
      {Svc1 + Tame0 + " 03 03 03 03", "0+8 8+17"},
      {Svc3, "0+8"},  // a block of the smallest size, ending where the payload ends
      // A damaged block costs 67 bytes, and with them the blocks that start there.
      {BadTame0 + repeat(Svc1, 6) + " 00 00" + Svc2 + Tame0, "67+8 75+17"},
      {Svc1 + BadTame0 + Svc2 + Tame0, "0+8"},
      {repeat(Svc0, 20),
       "0+8 8+8 16+8 24+8 32+8 40+8 48+8 56+8 64+8 72+8 80+8 88+8 96+8 104+8 112+8 120+8"},
  };
  for (const auto& [text, blocks] : rows) {
    const Bytes payload = hex(text);
    MORLParser parser(view(payload), 0, 0);
    EXPECT_EQ(parserBlocks(parser, view(payload)), blocks) << text;
  }
  MORLParser none({nullptr, 8}, 0, 0);
  MORL::BlockType type;
  EXPECT_FALSE(none.getNextBlockType(type) || none.getTotalBlockCount());
  EXPECT_EQ(type, MORL::BlockType::Invalid);
}

TEST(MorlParser, AgreesWithThePlainScanOnAlteredPayloads) {
  const Bytes valid = hex(InfoDev + Svc2 + Unknown10 + Svc4 + Tame0);
  std::mt19937 rng(1024);
  for (int round = 0; round < 3000; ++round) {
    Bytes p = valid;
    for (unsigned edits = 1 + rng() % 6; edits > 0; --edits) {
      const auto at = p.begin() + static_cast<long>(rng() % p.size());
      const auto kind = rng() % 3, byte = rng();
      if (kind == 0) *at = static_cast<unsigned char>(byte);
      if (kind == 1) p.erase(at);
      if (kind == 2) p.insert(at, static_cast<unsigned char>(byte));
      if (p.empty()) p.push_back(0);
    }
    if (round % 3 == 0) {
      p.resize(rng() % 300);
      for (auto& b : p) b = static_cast<unsigned char>(rng());
    }
    MORLParser parser(view(p), 0, 0);
    ASSERT_EQ(parserBlocks(parser, view(p)), referenceScan(view(p))) << toHex(p);
  }
}

}  // namespace
