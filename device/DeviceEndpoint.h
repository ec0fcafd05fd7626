#pragma once

#include <functional>

#include "device/DeviceConfig.h"
#include "morl/IMORLEndpoint.h"

/// The simulated device's MORL identity: name, version, services and owner
/// from its configuration. An accepted tame request makes the requester the
/// owner; tame and whistle requests are reported on standard output (after
/// "ADDRESS: " when the device has an address).
class DeviceEndpoint : public IMORLEndpoint {
 public:
  using Sender = std::function<void(QM::Span<const unsigned char> packet, unsigned int address)>;

  /// `config` must outlive this object; `sender` carries out every send.
  DeviceEndpoint(const DeviceConfig& config, Sender sender);

  void getMyUUID(unsigned char (&uuid)[12]) const override;
  void getOwnerUUID(unsigned char (&uuid)[12]) const override;
  void getDeviceName(char (&name)[30]) const override;
  void getSoftwareVersion(char (&version)[20]) const override;
  QM::Span<const MORL::SupportedServiceBlock> getSupportedServiceSet() const override;
  bool unicastSupported() const override;
  bool acceptsIncomingTameRequests(const unsigned char (&requester)[12]) const override;
  void onTameRequest(const unsigned char (&requester)[12], unsigned int senderAddress,
                     unsigned int replyAddress, void* context) override;
  void onTameResponse(const unsigned char (&responder)[12]) override;
  void onResponse(MORL::Header::Type type, MORLParser& parser) override;
  void onWhistleRequest(const unsigned char (&requester)[12]) override;
  void send(QM::Span<const unsigned char> packet, unsigned int address, void* context) override;

 private:
  const DeviceConfig& config;
  Sender sender;
  unsigned char owner[12];
  std::string label;
};
