#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>

#include "Tshark.h"
#include "fuzz/ReferenceScan.h"
#include "morl/Header.h"
#include "morl/udp_server.h"
#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"
#include "qm/MathFuncs.h"
#include "qm/PrintableText.h"
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

// The edges of UTF-8 that a LAN run does not reach: overlong forms, surrogates, past U+10FFFF,
// the last C1 control and the first printable after it, a lead byte cut short inside the text.
TEST(Qm, PrintableTextPassesOnlyWellFormedPrintableUtf8) {
  const std::pair<std::string, std::string> rows[] = {
      {"\xc0\xaf\xc1\xbf", "????"},
      {"\xe0\x9f\xbf\xe0\xa0\x80", "???\xe0\xa0\x80"},
      {"\xed\x9f\xbf\xed\xa0\x80", "\xed\x9f\xbf???"},
      {"\xf0\x8f\xbf\xbf\xf0\x90\x80\x80", "????\xf0\x90\x80\x80"},
      {"\xf4\x8f\xbf\xbf\xf4\x90\x80\x80\xf5", "\xf4\x8f\xbf\xbf?????"},
      {"\xc2\x9f\xc2\xa0\xc2", "??\xc2\xa0?"},
      {"\xe2\x82x\x80\t\n~ ", "??x???~ "},
      {std::string("\0\x1f\x7f", 3), "???"},
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(printableText(text), shown) << text;
  EXPECT_EQ(printableText("\t\x1b\n", "\t\n"), "\t?\n");
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

// Payloads and the blocks the parser keeps ("OFFSET+SIZE"); tests/codec/dissector-rows.txt holds
// what the Wireshark dissector shows of each: its Info column and packet tree, the same blocks
// and the bytes it skips or flags. Two decoders, one table.
struct ParserRow {
  std::string payload, blocks;
};
const ParserRow kParserRows[] = {
    {InfoDev + Svc2 + Svc4 + Tame0, "0+67 67+8 75+8 83+17"},
    {Unknown5 + Svc1 + Unknown10 + Svc2 + Unknown67 + Tame0, "5+8 23+8 98+17"},
    {Svc1 + Tame0 + " 03 03 03 03", "0+8 8+17"},
    {Svc3, "0+8"},  // the smallest block, ending the payload
    // A damaged block costs 67 bytes, and with them the blocks that start there.
    {BadTame0 + repeat(Svc1, 6) + " 00 00" + Svc2 + Tame0, "67+8 75+17"},
    {Svc1 + BadTame0 + Svc2 + Tame0, "0+8"},
    {repeat(Svc0, 20),
     "0+8 8+8 16+8 24+8 32+8 40+8 48+8 56+8 64+8 72+8 80+8 88+8 96+8 104+8 112+8 120+8"},
};

TEST(MorlParser, KeepsTheValidKnownBlocks) {
  for (const ParserRow& row : kParserRows) {
    const Bytes payload = hex(row.payload);
    MORLParser parser(view(payload), 0, 0);
    EXPECT_EQ(parserBlocks(parser, view(payload)), row.blocks) << row.payload;
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

/// Standard output of `command`, run by the shell.
std::string output(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    pclose(pipe);
  }
  return out;
}

/// "OFFSET+SIZE" of every block with a good CRC in one packet of tshark's PDML, offsets within
/// the payload.
std::string keptBlocks(const std::string& packet) {
  static const std::regex item(
      R"re(name="morl\.block" showname="([^"]*)" size="(\d+)" pos="(\d+)")re");
  constexpr int payloadStart = 14 + 20 + 8 + MORL::Header::PackedSize;
  std::string kept;
  for (std::sregex_iterator m(packet.begin(), packet.end(), item), end; m != end; ++m) {
    if ((*m)[1].str().find("bad CRC") == std::string::npos)
      appendBlock(kept, std::stoi((*m)[3]) - payloadStart, std::stoul((*m)[2]));
  }
  return kept;
}

/// The datagrams of a pcap written by bench/morl-capture.py (Ethernet, IPv4 without options).
std::vector<Bytes> generatedDatagrams(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<Bytes> out;
  for (std::size_t at = 24; at + 16 <= all.size();) {
    const auto* record = reinterpret_cast<const unsigned char*>(all.data() + at + 8);
    const std::size_t size = record[0] | record[1] << 8 | record[2] << 16;
    out.emplace_back(all.begin() + static_cast<long>(at + 16 + 42),
                     all.begin() + static_cast<long>(at + 16 + size));
    at += 16 + size;
  }
  return out;
}

// The table's rows, as responses to a request, and then 1,500 datagrams of bench/morl-capture.py's
// garbage, under each tshark: the rows show as tests/codec/dissector-rows.txt holds, no datagram
// raises a Lua error, every one that the finder would drop (its first 1024 bytes have no valid
// header or another length) is flagged as malformed for that reason, and every block shown with a
// good CRC is a block that the parser keeps.
TEST(MorlDissector, ShowsWhatTheParserKeepsAndFlagsWhatItDrops) {
  if (output("command -v tshark").empty()) GTEST_SKIP() << "needs tshark";
  char dir[] = "/tmp/morl-dissector.XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  chmod(dir, 0755);
  const std::string capture = dir + std::string("/morl.pcap");
  output("python3 " VARNOCK_SOURCE_DIR "/bench/morl-capture.py --garbage " + capture + " 1500");
  std::vector<Bytes> datagrams = generatedDatagrams(capture);
  ASSERT_EQ(datagrams.size(), 1500u);
  auto datagram = [](std::uint8_t flags, const Bytes& payload) {
    MORL::Header header;
    header.flags = flags;
    header.sequenceNumber = 0x1234;
    if (flags == MORL::Header::FlagResponse) std::memset(header.sourceUuid, 2, 12);
    header.payloadLength = static_cast<std::uint16_t>(payload.size());
    Bytes packet(MORL::Header::PackedSize);
    header.pack({packet.data(), packet.size()});
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
  };
  std::vector<Bytes> rows = {datagram(MORL::Header::FlagRequest, {})};
  for (const ParserRow& row : kParserRows)
    rows.push_back(datagram(MORL::Header::FlagResponse, hex(row.payload)));
  datagrams.insert(datagrams.begin(), rows.begin(), rows.end());
  // A pcap of Ethernet frames from 10.0.0.2 to 10.0.0.1.
  std::ofstream pcap(capture, std::ios::binary);
  auto le = [&](std::uint64_t v, int n) {
    for (int i = 0; i < n; ++i) pcap.put(static_cast<char>(v >> (8 * i)));
  };
  auto be = [&](std::uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) pcap.put(static_cast<char>(v >> (8 * i)));
  };
  le(0xA1B2C3D4, 4), le(2, 2), le(4, 2), le(0, 8), le(65535, 4), le(1, 4);
  for (const Bytes& packet : datagrams) {
    const auto udp = static_cast<std::uint32_t>(8 + packet.size());
    le(0, 8), le(42 + packet.size(), 4), le(42 + packet.size(), 4);
    be(0x0200, 2), be(1, 4), be(0x0200, 2), be(2, 4), be(0x0800, 2);
    be(0x45000000 | (20 + udp), 4), be(0, 4), be(0x40110000, 4), be(0x0A000002, 4),
        be(0x0A000001, 4);
    be(udp_server::port, 2), be(udp_server::port, 2), be(udp << 16, 4);
    pcap.write(reinterpret_cast<const char*>(packet.data()), static_cast<long>(packet.size()));
  }
  pcap.close();
  std::ifstream golden(VARNOCK_SOURCE_DIR "/tests/codec/dissector-rows.txt");
  const std::string expected((std::istreambuf_iterator<char>(golden)),
                             std::istreambuf_iterator<char>());
  for (const auto& [version, command] : tsharks(dir)) {
    std::string tshark;
    for (const std::string& arg : command) tshark += arg + " ";
    tshark += "-r " + capture + " 2>" + capture + ".err ";
    const std::string pdml = output(tshark + "-T pdml -J morl");
    std::istringstream info(output(tshark + "-T fields -e _ws.col.Info"));
    std::ifstream err(capture + ".err");
    EXPECT_EQ(tsharkErrors({std::istreambuf_iterator<char>(err), {}}), "") << version;
    EXPECT_EQ(pdml.find("Lua Error"), std::string::npos) << version;
    std::string shown, line;
    std::size_t at = 0;
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
      const std::size_t next = pdml.find("</packet>", at);
      ASSERT_NE(next, std::string::npos) << version;
      const std::string packet = pdml.substr(at, next - at);
      std::getline(info, line);
      at = next + 1;
      if (i < rows.size()) shown += "Info: " + line + "\n" + morlTrees(packet);
      const Bytes& d = datagrams[i];
      const Bytes received(d.begin(), d.begin() + static_cast<long>(std::min<std::size_t>(
                                                      d.size(), udp_server::bufferSize)));
      MORL::Header header;
      const bool valid = header.unpack(view(received));
      // Why the finder drops the datagram, in the dissector's words.
      const char* drop = d.size() < MORL::Header::PackedSize       ? "shorter than a header"
                         : !valid && d[0] <= MORL::Header::Whistle ? "bad header CRC"
                         : !valid                                  ? "invalid type"
                         : received.size() != d.size()             ? "cut to 1024 by the receiver"
                         : d.size() != MORL::Header::PackedSize + header.payloadLength
                             ? "payload length"
                             : nullptr;
      if (drop) {
        EXPECT_TRUE(line.rfind("Malformed: ", 0) == 0 && line.find(drop) != std::string::npos)
            << version << " " << drop << ": " << line << toHex(d);
        continue;
      }
      const Bytes payload(received.begin() + MORL::Header::PackedSize, received.end());
      MORLParser parser(view(payload), 0, 0);
      EXPECT_EQ(keptBlocks(packet), parserBlocks(parser, view(payload))) << version << toHex(d);
    }
    EXPECT_EQ(shown, expected) << version;
  }
  output("rm -r " + std::string(dir));
}
}  // namespace
