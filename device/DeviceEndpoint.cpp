#include "device/DeviceEndpoint.h"

#include <algorithm>
#include <cstring>
#include <iostream>

DeviceEndpoint::DeviceEndpoint(const DeviceConfig& config, Sender sender)
    : config(config),
      sender(std::move(sender)),
      label(config.address ? addressText(config.address) + ": " : "") {
  std::memcpy(owner, config.owner, sizeof owner);
}

void DeviceEndpoint::getMyUUID(unsigned char (&uuid)[12]) const {
  std::memcpy(uuid, config.uuid, sizeof uuid);
}

void DeviceEndpoint::getOwnerUUID(unsigned char (&uuid)[12]) const {
  std::memcpy(uuid, owner, sizeof uuid);
}

void DeviceEndpoint::getDeviceName(char (&name)[30]) const {
  std::memset(name, 0, sizeof name);
  std::memcpy(name, config.name.data(), std::min(config.name.size(), sizeof name));
}

void DeviceEndpoint::getSoftwareVersion(char (&version)[20]) const {
  std::memset(version, 0, sizeof version);
  std::memcpy(version, config.softwareVersion.data(),
              std::min(config.softwareVersion.size(), sizeof version));
}

QM::Span<const MORL::SupportedServiceBlock> DeviceEndpoint::getSupportedServiceSet() const {
  return {config.services.data(), config.services.size()};
}

bool DeviceEndpoint::unicastSupported() const { return config.unicast; }

bool DeviceEndpoint::acceptsIncomingTameRequests(const unsigned char (&)[12]) const {
  return config.acceptTame;
}

void DeviceEndpoint::onTameRequest(const unsigned char (&requester)[12], unsigned int, unsigned int,
                                   void*) {
  std::memcpy(owner, requester, sizeof owner);
  std::cout << label << "tamed by " << uuidText(requester) << std::endl;
}

void DeviceEndpoint::onTameResponse(const unsigned char (&)[12]) {}

void DeviceEndpoint::onResponse(MORL::Header::Type, MORLParser&) {}

void DeviceEndpoint::onWhistleRequest(const unsigned char (&requester)[12]) {
  std::cout << label << "whistle from " << uuidText(requester) << std::endl;
}

void DeviceEndpoint::send(QM::Span<const unsigned char> packet, unsigned int address, void*) {
  sender(packet, address);
}
