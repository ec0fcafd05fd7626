#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "morl/Header.h"
#include "morl/IMORLEndpoint.h"
#include "morl/MORLManager.h"
#include "morl/MORLParser.h"
#include "qm/CRCSoft32.h"

namespace {

using Bytes = std::vector<unsigned char>;

MORL::Header responseHeader(std::uint16_t payloadLength) {
  MORL::Header h;
  h.type = MORL::Header::Discovery;
  h.flags = MORL::Header::FlagResponse | MORL::Header::FlagUnicast;
  h.sequenceNumber = 0x1234;
  std::memset(h.sourceUuid, 0x07, 12);
  std::memset(h.destinationUuid, 0x01, 12);
  h.payloadLength = payloadLength;
  return h;
}

/// A Discovery response with device info, 10 services and tame status: 198 bytes.
Bytes fullResponse(std::uint16_t sequence = 0x1234) {
  Bytes out(198);
  QM::Span<unsigned char> rest(out.data(), out.size());
  MORL::Header h = responseHeader(164);
  h.sequenceNumber = sequence;
  h.pack(rest);
  MORL::cut(rest, 34);
  MORL::DeviceInfoBlock info;
  std::memset(info.uuid, 0x07, 12);
  std::memcpy(info.deviceName, "pallor-7", 8);
  std::memcpy(info.softwareVersion, "2.4.1", 5);
  info.pack(rest);
  MORL::cut(rest, 67);
  for (int i = 0; i < 10; ++i) {
    MORL::SupportedServiceBlock{static_cast<MORL::ServiceType>(i % 5),
                                static_cast<std::uint16_t>(i)}
        .pack(rest);
    MORL::cut(rest, 8);
  }
  MORL::TameStatusBlock tame;
  tame.pack(rest);
  return out;
}

/// Walks every block the way a discovery endpoint does; returns a checksum of
/// what it read so that nothing is optimised away.
unsigned walk(MORLParser& parser) {
  unsigned sum = 0;
  MORL::BlockType type;
  for (unsigned long i = 0; i < parser.getTotalBlockCount(); ++i) {
    if (!parser.getNextBlockType(type)) break;
    if (type == MORL::BlockType::DeviceInfo) {
      MORL::DeviceInfoBlock b;
      if (parser.getNext(b)) sum += static_cast<unsigned char>(b.deviceName[0]);
    } else if (type == MORL::BlockType::SupportedService) {
      MORL::SupportedServiceBlock b;
      if (parser.getNext(b)) sum += b.serviceValue;
    } else {
      MORL::TameStatusBlock b;
      if (parser.getNext(b)) sum += b.ownerUuid[0];
    }
  }
  return sum;
}

void BM_CrcPerByte(benchmark::State& state) {
  Bytes data(static_cast<std::size_t>(state.range(0)));
  std::mt19937 rng(1);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  for (auto _ : state) {
    QM::CRCSoft32 crc;
    crc.updateBlock(data.data(), static_cast<unsigned int>(data.size()));
    benchmark::DoNotOptimize(crc.getCRCSum());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_CrcPerByte)->Arg(34)->Arg(1024);

void BM_HeaderPack(benchmark::State& state) {
  const MORL::Header h = responseHeader(164);
  unsigned char out[34];
  for (auto _ : state) {
    benchmark::DoNotOptimize(h.pack(QM::Span<unsigned char>(out, sizeof out)));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_HeaderPack);

void BM_HeaderUnpack(benchmark::State& state) {
  const Bytes wire = fullResponse();
  for (auto _ : state) {
    MORL::Header h;
    benchmark::DoNotOptimize(h.unpack(QM::Span<const unsigned char>(wire.data(), wire.size())));
    benchmark::DoNotOptimize(h.sequenceNumber);
  }
}
BENCHMARK(BM_HeaderUnpack);

// Header check, length check, block scan and the walk of all 12 blocks.
void BM_FullResponseCheckParseWalk(benchmark::State& state) {
  const Bytes wire = fullResponse();
  for (auto _ : state) {
    QM::Span<const unsigned char> rest(wire.data(), wire.size());
    MORL::Header h;
    if (!h.unpack(rest)) state.SkipWithError("header");
    MORL::cut(rest, 34);
    if (rest.size() != h.payloadLength) state.SkipWithError("length");
    MORLParser parser(rest, 0x0A000005u, 0x0A000005u);
    if (parser.getTotalBlockCount() != 12) state.SkipWithError("blocks");
    benchmark::DoNotOptimize(walk(parser));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 198);
}
BENCHMARK(BM_FullResponseCheckParseWalk);

class WalkingEndpoint : public IMORLEndpoint {
 public:
  unsigned sum = 0;
  void getMyUUID(unsigned char (&out)[12]) const override { std::memset(out, 0x01, 12); }
  void getOwnerUUID(unsigned char (&out)[12]) const override { std::memset(out, 0x02, 12); }
  void getDeviceName(char (&out)[30]) const override { std::memset(out, 0, sizeof out); }
  void getSoftwareVersion(char (&out)[20]) const override { std::memset(out, 0, sizeof out); }
  QM::Span<const MORL::SupportedServiceBlock> getSupportedServiceSet() const override { return {}; }
  bool unicastSupported() const override { return true; }
  bool acceptsIncomingTameRequests(const unsigned char (&)[12]) const override { return false; }
  void onTameRequest(const unsigned char (&)[12], unsigned int, unsigned int, void*) override {}
  void onTameResponse(const unsigned char (&)[12]) override {}
  void onResponse(MORL::Header::Type, MORLParser& parser) override { sum += walk(parser); }
  void onWhistleRequest(const unsigned char (&)[12]) override {}
  void send(QM::Span<const unsigned char>, unsigned int, void*) override {}
};

// The same datagram through MORLManager::receive, as the discovery run sees it.
void BM_FullResponseThroughManager(benchmark::State& state) {
  WalkingEndpoint endpoint;
  MORLManager manager;
  manager.init(&endpoint);
  struct Capture : WalkingEndpoint {
    std::uint16_t sequence = 0;
    void send(QM::Span<const unsigned char> p, unsigned int, void*) override {
      sequence = static_cast<std::uint16_t>(p[2] | p[3] << 8);
    }
  } capture;
  MORLManager probe;
  probe.init(&capture);
  const unsigned char zero[12] = {};
  probe.sendRequest(MORL::Header::Discovery, 0xFFFFFFFFu, zero, nullptr);
  manager.sendRequest(MORL::Header::Discovery, 0xFFFFFFFFu, zero, nullptr);
  // Both managers seed from the same UUID, so they wait for the same number.
  const Bytes wire = fullResponse(capture.sequence);
  for (auto _ : state) {
    if (!manager.receive(QM::Span<const unsigned char>(wire.data(), wire.size()), 0x0A000005u,
                         nullptr)) {
      state.SkipWithError("dropped");
      break;
    }
  }
  benchmark::DoNotOptimize(endpoint.sum);
}
BENCHMARK(BM_FullResponseThroughManager);

// The worst case: 1024 random bytes force a resynchronisation search at
// almost every step of the scan.
void BM_GarbageDatagramResync(benchmark::State& state) {
  std::mt19937 rng(static_cast<unsigned>(state.range(0)));
  Bytes garbage(1024);
  for (auto& b : garbage) b = static_cast<unsigned char>(rng());
  for (auto _ : state) {
    MORLParser parser(QM::Span<const unsigned char>(garbage.data(), garbage.size()), 0, 0);
    benchmark::DoNotOptimize(parser.getTotalBlockCount());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 1024);
}
BENCHMARK(BM_GarbageDatagramResync)->Arg(1)->Arg(2)->Arg(3);

// Bytes chosen so that no trial length ever matches: every 67-byte stretch
// costs the full search over lengths 5 to 67.
void BM_ZeroDatagramResync(benchmark::State& state) {
  const Bytes zeros(1024, 0);
  for (auto _ : state) {
    MORLParser parser(QM::Span<const unsigned char>(zeros.data(), zeros.size()), 0, 0);
    benchmark::DoNotOptimize(parser.getTotalBlockCount());
  }
}
BENCHMARK(BM_ZeroDatagramResync);

}  // namespace
