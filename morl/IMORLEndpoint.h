#pragma once

#include "morl/Header.h"
#include "morl/SupportedServiceBlock.h"
#include "qm/Span.h"

class MORLParser;

/// What one MORL node is and does; implemented by the owner of a MORLManager.
/// Addresses are IPv4 in host order, 0xFFFFFFFF for broadcast. The `void*`
/// peer context is passed through the manager unchanged.
class IMORLEndpoint {
 public:
  virtual void getMyUUID(unsigned char (&uuid)[12]) const = 0;
  virtual void getOwnerUUID(unsigned char (&uuid)[12]) const = 0;
  /// Zero-padded 30-byte field.
  virtual void getDeviceName(char (&name)[30]) const = 0;
  /// Zero-padded 20-byte field.
  virtual void getSoftwareVersion(char (&version)[20]) const = 0;
  /// The services offered, in the order they are announced; the memory stays
  /// the endpoint's.
  virtual QM::Span<const MORL::SupportedServiceBlock> getSupportedServiceSet() const = 0;
  /// True when replies may be sent straight to this endpoint's address.
  virtual bool unicastSupported() const = 0;
  virtual bool acceptsIncomingTameRequests(const unsigned char (&requester)[12]) const = 0;
  virtual void onTameRequest(const unsigned char (&requester)[12], unsigned int senderAddress,
                             unsigned int replyAddress, void* context) = 0;
  virtual void onTameResponse(const unsigned char (&responder)[12]) = 0;
  /// A Discovery, DirectedDiscovery or Whistle response; the parser is at its
  /// first block and lives only for the call.
  virtual void onResponse(MORL::Header::Type type, MORLParser& parser) = 0;
  virtual void onWhistleRequest(const unsigned char (&requester)[12]) = 0;
  /// Sends a finished datagram; the bytes live only for the call.
  virtual void send(QM::Span<const unsigned char> packet, unsigned int address, void* context) = 0;
  virtual ~IMORLEndpoint() = default;
};
