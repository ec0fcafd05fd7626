#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "morl/IMORLEndpoint.h"
#include "morl/MORLManager.h"
#include "morl/MORLParser.h"

namespace {

// A node with the finder's identity that accepts tame requests and walks
// every response it is given, the way a discovery endpoint does.
class Endpoint : public IMORLEndpoint {
 public:
  void getMyUUID(unsigned char (&out)[12]) const override { std::memset(out, 0x01, 12); }
  void getOwnerUUID(unsigned char (&out)[12]) const override { std::memset(out, 0x02, 12); }
  void getDeviceName(char (&out)[30]) const override { std::strncpy(out, "d14e", sizeof out); }
  void getSoftwareVersion(char (&out)[20]) const override {
    std::strncpy(out, "current", sizeof out);
  }
  QM::Span<const MORL::SupportedServiceBlock> getSupportedServiceSet() const override {
    return {services, 2};
  }
  bool unicastSupported() const override { return true; }
  bool acceptsIncomingTameRequests(const unsigned char (&)[12]) const override { return true; }
  void onTameRequest(const unsigned char (&)[12], unsigned int, unsigned int, void*) override {}
  void onTameResponse(const unsigned char (&)[12]) override {}
  /// Takes each block by its reported type.
  void onResponse(MORL::Header::Type, MORLParser& parser) override {
    MORL::BlockType type;
    for (unsigned long i = 0; i < parser.getTotalBlockCount(); ++i) {
      if (!parser.getNextBlockType(type)) std::abort();
      MORL::DeviceInfoBlock info;
      MORL::SupportedServiceBlock service;
      MORL::TameStatusBlock tame;
      const bool taken = type == MORL::BlockType::DeviceInfo         ? parser.getNext(info)
                         : type == MORL::BlockType::SupportedService ? parser.getNext(service)
                                                                     : parser.getNext(tame);
      if (!taken) std::abort();
    }
  }
  void onWhistleRequest(const unsigned char (&)[12]) override {}
  void send(QM::Span<const unsigned char> packet, unsigned int, void*) override {
    // Every answer is a valid datagram of its own.
    MORL::Header h;
    if (!h.unpack(packet) || packet.size() != MORL::Header::PackedSize + h.payloadLength)
      std::abort();
  }

 private:
  const MORL::SupportedServiceBlock services[2] = {{MORL::ServiceType::PallorModule, 1},
                                                   {MORL::ServiceType::ExtenderFell, 2}};
};

}  // namespace

// MORLManager::receive over any datagram, by a manager that has just sent its
// first request: a response that carries that request's sequence number (the
// same every run, seeded from the UUID) reaches the block walk.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Endpoint endpoint;
  MORLManager manager;
  manager.init(&endpoint);
  const unsigned char any[12] = {};
  if (!manager.sendRequest(MORL::Header::Discovery, 0xFFFFFFFFu, any, nullptr)) std::abort();
  manager.receive(QM::Span<const unsigned char>(data, size), 0x0A000002u, nullptr);
  return 0;
}
