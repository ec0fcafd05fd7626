#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "morl/BlockType.h"
#include "morl/DeviceInfoBlock.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/TameStatusBlock.h"
#include "tests/codec/Bytes.h"

namespace {

using MORL::BlockType;
using MORL::ServiceType;

MORL::DeviceInfoBlock deviceInfo(unsigned char uuidByte, const std::string& name,
                                 const std::string& version) {
  MORL::DeviceInfoBlock b;
  std::memset(b.uuid, uuidByte, sizeof b.uuid);
  std::memcpy(b.deviceName, name.data(), std::min(name.size(), sizeof b.deviceName));
  std::memcpy(b.softwareVersion, version.data(),
              std::min(version.size(), sizeof b.softwareVersion));
  return b;
}

template <typename Block>
Bytes packed(const Block& b) {
  Bytes out(Block::PackedSize);
  EXPECT_TRUE(b.pack(area(out)));
  return out;
}

TEST(MorlBlockType, CodesMapToTypesAndSizes) {
  for (int code = 0; code < 256; ++code) {
    const auto c = static_cast<unsigned char>(code);
    BlockType expected = BlockType::Invalid;
    unsigned long size = 0;
    if (code == 1) expected = BlockType::DeviceInfo, size = 67;
    if (code == 3) expected = BlockType::SupportedService, size = 8;
    if (code == 4) expected = BlockType::TameStatus, size = 17;
    EXPECT_EQ(MORL::toBlockType(c), expected) << code;
    EXPECT_EQ(MORL::blockSize(c), size) << code;
    EXPECT_EQ(MORL::blockSize(MORL::toBlockType(c)), size) << code;
  }
  EXPECT_EQ(MORL::blockSize(BlockType::Invalid), 0u);
  EXPECT_EQ(MORL::largestBlockSize(), 67u);
}

TEST(MorlBlockType, ServiceCodesAboveFourAreUnknown) {
  for (int code = 0; code < 256; ++code) {
    const ServiceType t = MORL::toServiceType(static_cast<unsigned char>(code));
    EXPECT_EQ(static_cast<int>(t), code <= 4 ? code : 255) << code;
  }
}

TEST(MorlBlockType, UnassignedCodeTwoIsNeverAValidKnownBlock) {
  for (unsigned long length = 5; length <= 67; ++length) {
    Bytes body(length - 4, 0x5A);
    body[0] = 0x02;
    const Bytes block = withCrc(body) + Bytes(70, 0);
    EXPECT_FALSE(MORL::containsValidKnownBlock(view(block))) << length;
  }
}

TEST(MorlBlockType, ValidKnownBlockNeedsWholeBlockAndCrc) {
  const Bytes service = hex("03 02 01 00 22 6A 91 D6");
  EXPECT_TRUE(MORL::containsValidKnownBlock(view(service)));
  EXPECT_TRUE(MORL::containsValidKnownBlock(view(service + hex("FF"))));
  EXPECT_FALSE(MORL::containsValidKnownBlock(QM::Span<const unsigned char>(service.data(), 7)));
  EXPECT_FALSE(MORL::containsValidKnownBlock(QM::Span<const unsigned char>(nullptr, 8)));
  EXPECT_FALSE(MORL::containsValidKnownBlock(QM::Span<const unsigned char>(service.data(), 0)));
  EXPECT_TRUE(MORL::preValidateBlock(view(service), BlockType::SupportedService));
  EXPECT_FALSE(MORL::preValidateBlock(view(service), BlockType::TameStatus));
  EXPECT_FALSE(MORL::preValidateBlock(view(service), BlockType::Invalid));
}

TEST(MorlTameStatusBlock, ZeroOwnerPacksToKnownBytes) {
  MORL::TameStatusBlock b;
  EXPECT_EQ(toHex(packed(b)), "04 00 00 00 00 00 00 00 00 00 00 00 00 EB D3 32 30");
}

TEST(MorlSupportedServiceBlock, PacksToKnownBytes) {
  const MORL::SupportedServiceBlock b{ServiceType::PallorModule, 1};
  EXPECT_EQ(toHex(packed(b)), "03 02 01 00 22 6A 91 D6");
  const MORL::SupportedServiceBlock c{ServiceType::ExtenderFell, 0xABCD};
  EXPECT_EQ(toHex(packed(c)), toHex(withCrc(hex("03 04 CD AB"))));
}

TEST(MorlSupportedServiceBlock, UnknownServiceCodeArrivesAsUnknown) {
  MORL::SupportedServiceBlock b;
  ASSERT_TRUE(b.unpack(view(hex("03 02 01 00 22 6A 91 D6"))));
  EXPECT_EQ(b.serviceType, ServiceType::PallorModule);
  EXPECT_EQ(b.serviceValue, 1);
  ASSERT_TRUE(b.unpack(view(withCrc(hex("03 07 01 00")))));
  EXPECT_EQ(b.serviceType, ServiceType::Unknown);
  EXPECT_EQ(b.serviceValue, 1);
  // An out-of-range code is sent as it stands.
  const MORL::SupportedServiceBlock raw{static_cast<ServiceType>(7), 2};
  EXPECT_EQ(toHex(packed(raw)), toHex(withCrc(hex("03 07 02 00"))));
}

TEST(MorlDeviceInfoBlock, PacksFieldsAtTheirOffsets) {
  const MORL::DeviceInfoBlock b = deviceInfo(0x11, "d14e", "current");
  const Bytes expected = withCrc(hex("01") + Bytes(12, 0x11) + hex("64 31 34 65") + Bytes(26, 0) +
                                 hex("63 75 72 72 65 6E 74") + Bytes(13, 0));
  EXPECT_EQ(toHex(packed(b)), toHex(expected));
}

TEST(MorlDeviceInfoBlock, FullWidthTextsWithoutTerminatorSurvive) {
  const std::string name = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123";  // 30 characters
  const std::string version = "v1.2.3-rc.4+build.56";         // 20 characters
  ASSERT_EQ(name.size(), 30u);
  ASSERT_EQ(version.size(), 20u);
  const Bytes wire = packed(deviceInfo(0x42, name, version));
  EXPECT_EQ(std::string(wire.begin() + 13, wire.begin() + 43), name);
  EXPECT_EQ(std::string(wire.begin() + 43, wire.begin() + 63), version);
  MORL::DeviceInfoBlock out;
  ASSERT_TRUE(out.unpack(view(wire)));
  EXPECT_EQ(std::string(out.deviceName, 30), name);
  EXPECT_EQ(std::string(out.softwareVersion, 20), version);
  EXPECT_EQ(out.uuid[11], 0x42);
}

TEST(MorlDeviceInfoBlock, RejectsOtherTypeAndShortPrefix) {
  MORL::DeviceInfoBlock b = deviceInfo(0x77, "keep", "me");
  EXPECT_FALSE(b.unpack(view(hex("03 02 01 00 22 6A 91 D6"))));
  const Bytes wire = packed(deviceInfo(0x01, "other", "1.0"));
  EXPECT_FALSE(b.unpack(QM::Span<const unsigned char>(wire.data(), 66)));
  EXPECT_FALSE(b.unpack(QM::Span<const unsigned char>(nullptr, 67)));
  EXPECT_EQ(std::string(b.deviceName), "keep");
  EXPECT_EQ(b.uuid[0], 0x77);
  EXPECT_TRUE(b.unpack(view(wire + hex("00"))));
  EXPECT_EQ(std::string(b.deviceName), "other");
}

TEST(MorlBlocks, OtherTypeCodesFailUnpack) {
  MORL::SupportedServiceBlock s;
  MORL::TameStatusBlock t;
  const Bytes tame = hex("04 00 00 00 00 00 00 00 00 00 00 00 00 EB D3 32 30");
  EXPECT_FALSE(s.unpack(view(tame)));
  EXPECT_FALSE(t.unpack(view(hex("03 02 01 00 22 6A 91 D6"))));
  EXPECT_TRUE(t.unpack(view(tame)));
}

// Every block type: one byte too little room writes nothing, exact room works,
// any single bit flip fails unpack and leaves the object as it was.
template <typename Block>
void checkPackRoomAndBitFlips(const Block& sample) {
  const unsigned long size = Block::PackedSize;
  Bytes shortArea(size - 1, 0xAA);
  EXPECT_FALSE(sample.pack(area(shortArea)));
  EXPECT_EQ(shortArea, Bytes(size - 1, 0xAA));
  EXPECT_FALSE(sample.pack(QM::Span<unsigned char>(nullptr, size)));
  const Bytes good = packed(sample);
  for (std::size_t byte = 0; byte < size; ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes bad = good;
      bad[byte] ^= static_cast<unsigned char>(1u << bit);
      Block out = sample;
      EXPECT_FALSE(out.unpack(view(bad))) << "byte " << byte << " bit " << bit;
      EXPECT_EQ(packed(out), good);
    }
  }
}

TEST(MorlBlocks, ShortAreaAndBitFlipsFailForEveryType) {
  checkPackRoomAndBitFlips(deviceInfo(0x21, "module", "2.0"));
  checkPackRoomAndBitFlips(MORL::SupportedServiceBlock{ServiceType::ExtenderQuin, 0x0102});
  MORL::TameStatusBlock t;
  std::memset(t.ownerUuid, 0x02, 12);
  checkPackRoomAndBitFlips(t);
}

TEST(MorlBlocks, PackThenUnpackKeepsEveryField) {
  std::mt19937 rng(67);
  for (int i = 0; i < 500; ++i) {
    MORL::DeviceInfoBlock d;
    for (auto& b : d.uuid) b = static_cast<unsigned char>(rng());
    for (auto& c : d.deviceName) c = static_cast<char>(rng());
    for (auto& c : d.softwareVersion) c = static_cast<char>(rng());
    MORL::DeviceInfoBlock d2;
    ASSERT_TRUE(d2.unpack(view(packed(d))));
    EXPECT_EQ(0, std::memcmp(&d, &d2, sizeof d));

    const MORL::SupportedServiceBlock s{static_cast<ServiceType>(rng() % 5),
                                        static_cast<std::uint16_t>(rng())};
    MORL::SupportedServiceBlock s2;
    ASSERT_TRUE(s2.unpack(view(packed(s))));
    EXPECT_EQ(s2.serviceType, s.serviceType);
    EXPECT_EQ(s2.serviceValue, s.serviceValue);

    MORL::TameStatusBlock t;
    for (auto& b : t.ownerUuid) b = static_cast<unsigned char>(rng());
    MORL::TameStatusBlock t2;
    ASSERT_TRUE(t2.unpack(view(packed(t))));
    EXPECT_EQ(0, std::memcmp(t.ownerUuid, t2.ownerUuid, 12));
  }
}

}  // namespace
