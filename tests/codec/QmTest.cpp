#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"
#include "qm/MathFuncs.h"
#include "qm/Span.h"
#include "tests/codec/Bytes.h"

namespace {

struct CrcVector {
  std::string input;
  unsigned int jamcrc;
  unsigned int crc32;
};

TEST(CrcSoft32, KnownVectorsGiveJamcrcAndCrc32) {
  const CrcVector vectors[] = {
      {"", 0xFFFFFFFFu, 0x00000000u},
      {"a", 0x174841BCu, 0xE8B7BE43u},
      {"123456789", 0x340BC6D9u, 0xCBF43926u},
      {"The quick brown fox jumps over the lazy dog", 0xBEB05CC6u, 0x414FA339u},
  };
  for (const CrcVector& v : vectors) {
    QM::CRCSoft32 crc;
    crc.updateBlock(reinterpret_cast<const unsigned char*>(v.input.data()),
                    static_cast<unsigned int>(v.input.size()));
    EXPECT_EQ(crc.getCRCSum(), v.jamcrc) << '"' << v.input << '"';
    EXPECT_EQ(crc.getNCRCSum(), v.crc32) << '"' << v.input << '"';
  }
}

TEST(CrcSoft32, ReadOutKeepsRegisterAndMoreBytesMayFollow) {
  const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  QM::CRCSoft32 crc;
  crc.updateBlock(digits, 4);
  const unsigned int partial = crc.getCRCSum();
  EXPECT_EQ(crc.getCRCSum(), partial);
  EXPECT_EQ(crc.getNCRCSum(), ~partial);
  for (int i = 4; i < 9; ++i) crc.update(digits[i]);
  EXPECT_EQ(crc.getCRCSum(), 0x340BC6D9u);
}

TEST(CrcSoft32, InitAndResetThroughInterfaceStartOver) {
  const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  QM::CRCSoft32 soft;
  QM::ICRC& crc = soft;
  crc.updateBlock(digits, 3);
  crc.init();
  EXPECT_EQ(crc.getCRCSum(), 0xFFFFFFFFu);
  crc.updateBlock(digits, 9);
  EXPECT_EQ(crc.getNCRCSum(), 0xCBF43926u);
  crc.reset();
  EXPECT_EQ(crc.getNCRCSum(), 0u);
}

TEST(CrcSoft32, ByteStepIsStatelessAndMatchesUpdate) {
  QM::CRCSoft32 crc;
  crc.update('1');
  EXPECT_EQ(QM::CRCSoft32::crc32ByteUpdate(0xFFFFFFFFu, '1'), crc.getCRCSum());
  EXPECT_EQ(QM::CRCSoft32::crc32ByteUpdate(0, 0), 0u);
  // One set bit in the low byte walks through all eight steps of the polynomial.
  EXPECT_EQ(QM::CRCSoft32::crc32ByteUpdate(0, 0x80), 0xEDB88320u);
}

TEST(LittleEndianOutput, WritesLeastSignificantByteFirst) {
  Bytes out(15, 0xAA);
  QM::LittleEndianOutputSerializer w(area(out));
  EXPECT_TRUE(w.addUint8(0x9C));
  EXPECT_TRUE(w.addUint16(0x1234));
  EXPECT_TRUE(w.addUint32(0xDEADBEEFu));
  EXPECT_TRUE(w.addUint64(0x0102030405060708ull));
  EXPECT_EQ(toHex(out), "9C 34 12 EF BE AD DE 08 07 06 05 04 03 02 01");
  EXPECT_FALSE(w.addUint8(0));
}

TEST(LittleEndianOutput, TooLittleRoomWritesNothingAndKeepsPosition) {
  Bytes out(7, 0xAA);
  QM::LittleEndianOutputSerializer w(area(out));
  ASSERT_TRUE(w.addUint16(0x0201));
  ASSERT_TRUE(w.addUint16(0x0403));
  EXPECT_FALSE(w.addUint32(0x11223344u));  // 3 bytes free
  EXPECT_FALSE(w.addUint64(1));
  const unsigned char block[4] = {9, 9, 9, 9};
  EXPECT_FALSE(w.addByteBlock(block, 4));
  EXPECT_EQ(toHex(out), "01 02 03 04 AA AA AA");
  EXPECT_TRUE(w.addByteBlock(block, 0));
  EXPECT_TRUE(w.addByteBlock(block, 3));  // the failed calls left the cursor in place
  EXPECT_EQ(toHex(out), "01 02 03 04 09 09 09");
  EXPECT_FALSE(w.addUint8(0));
  EXPECT_TRUE(w.addByteBlock(nullptr, 0));
}

TEST(LittleEndianOutput, ExactlyFourBytesTakeUint32ThenNothingMore) {
  Bytes out(4, 0);
  QM::LittleEndianOutputSerializer w(area(out));
  EXPECT_TRUE(w.addUint32(0x0A0B0C0Du));
  EXPECT_FALSE(w.addUint8(1));
  EXPECT_EQ(toHex(out), "0D 0C 0B 0A");

  unsigned char other[2] = {0, 0};
  w.init(other, 2);
  EXPECT_FALSE(w.addUint32(1));
  EXPECT_TRUE(w.addUint16(0xBEEF));
  EXPECT_EQ(other[0], 0xEF);
  EXPECT_EQ(other[1], 0xBE);
}

TEST(LittleEndianInput, ReadsLittleEndianAndAdvances) {
  const Bytes in = hex("34 12 EF BE AD DE 08 07 06 05 04 03 02 01 7F AA BB CC");
  QM::LittleEndianInputDeserializer r(in.data());
  EXPECT_EQ(r.Uint16(), 0x1234);
  EXPECT_EQ(r.Uint32(), 0xDEADBEEFu);
  EXPECT_EQ(r.Uint64(), 0x0102030405060708ull);
  EXPECT_EQ(r.Uint8(), 0x7F);
  const unsigned char* block = r.byteBlock(2);
  EXPECT_EQ(block, in.data() + 15);  // a view into the input, not a copy
  EXPECT_EQ(r.Uint8(), 0xCC);
  r.init(in.data() + 1);
  EXPECT_EQ(r.Uint8(), 0x12);
}

TEST(Span, EmptyDependsOnSizeOnly) {
  QM::Span<const unsigned char> none;
  EXPECT_EQ(none.data(), nullptr);
  EXPECT_TRUE(none.empty());
  QM::Span<const unsigned char> nullThree(nullptr, 3);
  EXPECT_FALSE(nullThree.empty());
  EXPECT_EQ(nullThree.size(), 3u);
  unsigned char one = 5;
  EXPECT_TRUE(QM::Span<unsigned char>(&one, 0).empty());
}

TEST(Span, WritableConvertsToReadOnlyOverTheSameElements) {
  unsigned char bytes[4] = {1, 2, 3, 4};
  QM::Span<unsigned char> writable(bytes, 4);
  writable[2] = 30;
  QM::Span<const unsigned char> readOnly = writable;
  EXPECT_EQ(readOnly.data(), bytes);
  EXPECT_EQ(readOnly.size(), 4u);
  EXPECT_EQ(readOnly.end() - readOnly.begin(), 4);
  int sum = 0;
  for (unsigned char b : readOnly) sum += b;
  EXPECT_EQ(sum, 37);
  QM::Span<const unsigned char> copy;
  copy = readOnly;
  EXPECT_EQ(copy[2], 30);
}

struct Tagged {
  int key;
  char tag;
  bool operator<(const Tagged& other) const { return key < other.key; }
};

TEST(MathFuncs, MaxOfTwoAndThreeKeepsFirstOnTies) {
  EXPECT_EQ(QM::MathFuncs::max(67, 8, 17), 67);
  EXPECT_EQ(QM::MathFuncs::max(8, 17, 67), 67);
  EXPECT_EQ(QM::MathFuncs::max(8, 67, 17), 67);
  EXPECT_EQ(QM::MathFuncs::max(3, 9), 9);
  EXPECT_EQ(QM::MathFuncs::max(Tagged{5, 'a'}, Tagged{5, 'b'}).tag, 'a');
  EXPECT_EQ(QM::MathFuncs::max(Tagged{5, 'a'}, Tagged{5, 'b'}, Tagged{5, 'c'}).tag, 'a');
  EXPECT_EQ(QM::MathFuncs::max(Tagged{1, 'a'}, Tagged{5, 'b'}, Tagged{5, 'c'}).tag, 'b');
}

}  // namespace
