#include "morl/ControllerInfo.h"

#include <cstring>

#include "morl/BlockType.h"
#include "morl/DeviceInfoBlock.h"
#include "morl/MORLParser.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/udp_server.h"
#include "qm/log.h"

namespace {

const char* const deviceTypeNames[] = {"extender_dorn", "extender_brask", "pallor_module",
                                       "extender_quin", "extender_fell"};

template <std::size_t N>
void copyPadded(char (&field)[N], const char* text) {
  std::memset(field, 0, N);
  std::strncpy(field, text, N);
}

// The text fields need not end in a zero byte when they are full.
template <std::size_t N>
std::string textOf(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

}  // namespace

std::string deviceTypeName(unsigned char serviceType) {
  if (serviceType < sizeof deviceTypeNames / sizeof deviceTypeNames[0])
    return deviceTypeNames[serviceType];
  return "uknown";
}

std::string dottedAddress(unsigned int address) {
  return std::to_string((address >> 24) & 0xFF) + "." + std::to_string((address >> 16) & 0xFF) +
         "." + std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

ControllerInfo::ControllerInfo(std::vector<Entry>& entries, udp_server& server)
    : entries(entries), server(server) {}

void ControllerInfo::getMyUUID(unsigned char (&uuid)[12]) const { std::memset(uuid, 0x01, 12); }

void ControllerInfo::getOwnerUUID(unsigned char (&uuid)[12]) const { std::memset(uuid, 0x02, 12); }

void ControllerInfo::getDeviceName(char (&name)[30]) const { copyPadded(name, "d14e"); }

void ControllerInfo::getSoftwareVersion(char (&version)[20]) const {
  copyPadded(version, "current");
}

QM::Span<const MORL::SupportedServiceBlock> ControllerInfo::getSupportedServiceSet() const {
  return {};
}

bool ControllerInfo::unicastSupported() const { return true; }

bool ControllerInfo::acceptsIncomingTameRequests(const unsigned char (&)[12]) const {
  return false;
}

void ControllerInfo::onTameRequest(const unsigned char (&)[12], unsigned int, unsigned int, void*) {
}

void ControllerInfo::onTameResponse(const unsigned char (&)[12]) {}

void ControllerInfo::onWhistleRequest(const unsigned char (&)[12]) {}

void ControllerInfo::send(QM::Span<const unsigned char> packet, unsigned int, void*) {
  server.send(packet.data(), packet.size());
}

void ControllerInfo::onResponse(MORL::Header::Type type, MORLParser& parser) {
  if (type != MORL::Header::Discovery) return;
  const std::string sender = dottedAddress(parser.senderAddress());
  logd("--- --- ---\nData from %s", sender.c_str());
  const std::size_t blocks = parser.getTotalBlockCount();
  logd("%zu blocks", blocks);

  Entry entry;
  for (std::size_t i = 0; i < blocks; ++i) {
    MORL::BlockType next;
    parser.getNextBlockType(next);
    if (next == MORL::BlockType::DeviceInfo) {
      MORL::DeviceInfoBlock info;
      if (parser.getNext(info)) {
        entry.name = textOf(info.deviceName);
        entry.version = textOf(info.softwareVersion);
        entry.ip = sender;
      }
    } else if (next == MORL::BlockType::SupportedService) {
      MORL::SupportedServiceBlock service;
      if (parser.getNext(service))
        entry.device_type = deviceTypeName(static_cast<unsigned char>(service.serviceType));
    }
    // Any other block is not taken, so later passes see it again and the
    // blocks behind it are never read: a well-formed response puts device
    // info and services before the tame status.
  }
  entries.push_back(entry);
}
