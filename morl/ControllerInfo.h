#pragma once

#include <string>
#include <vector>

#include "morl/IMORLEndpoint.h"
#include "qm/Entry.h"

class udp_server;

/// Device-type name of a supported service type: "extender_dorn",
/// "extender_brask", "pallor_module", "extender_quin", "extender_fell" for 0
/// to 4, and "uknown" (spelled so, it reaches the output) for any other.
std::string deviceTypeName(unsigned char serviceType);

/// Dotted decimal text of an IPv4 address in host order.
std::string dottedAddress(unsigned int address);

/// The finder's own MORL endpoint: a fixed identity (UUID 12 x 0x01, owner
/// 12 x 0x02, "d14e", "current", no services, unicast, tame refused) that
/// turns Discovery responses into records. Every packet goes out as broadcast.
class ControllerInfo : public IMORLEndpoint {
 public:
  /// Both references must outlive this object; `entries` is appended to on
  /// the thread that delivers the responses.
  ControllerInfo(std::vector<Entry>& entries, udp_server& server);

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
  /// Appends one record per Discovery response; other types are ignored.
  void onResponse(MORL::Header::Type type, MORLParser& parser) override;
  void onWhistleRequest(const unsigned char (&requester)[12]) override;
  void send(QM::Span<const unsigned char> packet, unsigned int address, void* context) override;

 private:
  std::vector<Entry>& entries;
  udp_server& server;
};
