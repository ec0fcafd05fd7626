#include "morl/MORLManager.h"

#include <cstdlib>
#include <cstring>

#include "morl/DeviceInfoBlock.h"
#include "morl/IMORLEndpoint.h"
#include "morl/MORLParser.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/TameStatusBlock.h"
#include "qm/CRCSoft32.h"

namespace {

const unsigned int BroadcastAddress = 0xFFFFFFFFu;

bool sameUuid(const unsigned char (&a)[12], const unsigned char (&b)[12]) {
  return std::memcmp(a, b, 12) == 0;
}

bool isZeroUuid(const unsigned char (&uuid)[12]) {
  static const unsigned char zero[12] = {};
  return sameUuid(uuid, zero);
}

// The header fields requests and responses fill alike: the sender is this
// endpoint, and it offers unicast replies when the endpoint takes them.
MORL::Header outgoingHeader(const IMORLEndpoint& e, MORL::Header::Type type, unsigned char flag,
                            std::uint16_t sequence, const unsigned char (&destinationUuid)[12]) {
  MORL::Header header;
  header.type = type;
  header.flags = flag;
  if (e.unicastSupported()) header.flags |= MORL::Header::FlagUnicast;
  header.sequenceNumber = sequence;
  e.getMyUUID(header.sourceUuid);
  std::memcpy(header.destinationUuid, destinationUuid, 12);
  return header;
}

}  // namespace

MORLManager::MORLManager() : endpoint(nullptr), nextSequence(0), pendingSequence(0) {}

void MORLManager::init(IMORLEndpoint* e) {
  endpoint = e;
  if (e == nullptr) return;
  unsigned char uuid[12];
  e->getMyUUID(uuid);
  if (isZeroUuid(uuid)) {
    endpoint = nullptr;
    return;
  }
  QM::CRCSoft32 crc;
  crc.init();
  crc.updateBlock(uuid, sizeof uuid);
  // Seeded from the UUID, so a device starts from the same number every run.
  // The modulus 65535 (not 65536) is what every node uses; 65535 is never a start.
  std::srand(crc.getCRCSum());
  nextSequence = static_cast<std::uint16_t>(std::rand() % 65535);
}

bool MORLManager::receive(QM::Span<const unsigned char> datagram, unsigned int senderAddress,
                          void* context) {
  IMORLEndpoint* const e = endpoint;
  if (e == nullptr) return false;

  MORL::Header header;
  if (!header.unpack(datagram)) return false;
  QM::Span<const unsigned char> payload = datagram;
  MORL::cut(payload, MORL::Header::PackedSize);
  if (payload.size() != header.payloadLength) return false;

  const unsigned int replyAddress =
      (header.flags & MORL::Header::FlagUnicast) ? senderAddress : BroadcastAddress;

  unsigned char myUuid[12];
  e->getMyUUID(myUuid);
  if (sameUuid(header.sourceUuid, myUuid)) return false;

  if (header.flags & MORL::Header::FlagRequest) {
    switch (header.type) {
      case MORL::Header::Discovery:
        return sendResponse(MORL::Header::Discovery, replyAddress, header.sourceUuid, context,
                            header.sequenceNumber);
      case MORL::Header::DirectedDiscovery:
        if (!sameUuid(header.destinationUuid, myUuid)) return false;
        return sendResponse(MORL::Header::DirectedDiscovery, replyAddress, header.sourceUuid,
                            context, header.sequenceNumber);
      case MORL::Header::Tame:
        // No destination test: the endpoint alone decides whom it lets tame it.
        if (!e->acceptsIncomingTameRequests(header.sourceUuid)) return false;
        e->onTameRequest(header.sourceUuid, senderAddress, replyAddress, context);
        return sendResponse(MORL::Header::Tame, replyAddress, header.sourceUuid, context,
                            header.sequenceNumber);
      case MORL::Header::Whistle:
        if (!sameUuid(header.destinationUuid, myUuid)) return false;
        e->onWhistleRequest(header.sourceUuid);
        return sendResponse(MORL::Header::Whistle, replyAddress, header.sourceUuid, context,
                            header.sequenceNumber);
      default:
        return false;
    }
  }

  if ((header.flags & MORL::Header::FlagResponse) && header.sequenceNumber == pendingSequence &&
      sameUuid(header.destinationUuid, myUuid)) {
    MORLParser parser(payload, senderAddress, replyAddress);
    switch (header.type) {
      case MORL::Header::Discovery:
      case MORL::Header::DirectedDiscovery:
      case MORL::Header::Whistle:
        e->onResponse(header.type, parser);
        break;
      case MORL::Header::Tame: {
        MORL::TameStatusBlock status;
        if (!parser.getNext(status)) return false;
        e->onTameResponse(header.sourceUuid);
        break;
      }
      default:
        break;
    }
    return true;
  }
  return false;
}

bool MORLManager::sendRequest(MORL::Header::Type type, unsigned int address,
                              const unsigned char (&destinationUuid)[12], void* context) {
  IMORLEndpoint* const e = endpoint;
  if (e == nullptr) return false;

  const std::uint16_t sequence = nextSequence;
  MORL::Header header =
      outgoingHeader(*e, type, MORL::Header::FlagRequest, sequence, destinationUuid);
  header.payloadLength = 0;

  unsigned char buffer[BufferSize];
  const QM::Span<unsigned char> out(buffer, sizeof buffer);
  if (!header.pack(out)) return false;

  // Set before the request leaves, so that no answer can arrive before it.
  pendingSequence = sequence;
  nextSequence = static_cast<std::uint16_t>(sequence + 1);
  e->send(QM::Span<const unsigned char>(buffer, MORL::Header::PackedSize), address, context);
  return true;
}

bool MORLManager::sendResponse(MORL::Header::Type type, unsigned int address,
                               const unsigned char (&destinationUuid)[12], void* context,
                               unsigned short sequenceNumber) {
  IMORLEndpoint* const e = endpoint;
  unsigned char buffer[BufferSize];
  const QM::Span<MORL::SupportedServiceBlock const> services = e->getSupportedServiceSet();

  MORL::Header header =
      outgoingHeader(*e, type, MORL::Header::FlagResponse, sequenceNumber, destinationUuid);
  const unsigned long payloadLength =
      type == MORL::Header::Tame
          ? MORL::TameStatusBlock::PackedSize
          : MORL::TameStatusBlock::PackedSize + MORL::DeviceInfoBlock::PackedSize +
                MORL::SupportedServiceBlock::PackedSize * services.size();
  header.payloadLength = static_cast<std::uint16_t>(payloadLength);

  QM::Span<unsigned char> rest(buffer, sizeof buffer);
  if (!header.pack(rest)) return false;
  MORL::cut(rest, MORL::Header::PackedSize);

  if (type != MORL::Header::Tame) {
    MORL::DeviceInfoBlock info;
    e->getMyUUID(info.uuid);
    e->getDeviceName(info.deviceName);
    e->getSoftwareVersion(info.softwareVersion);
    if (!info.pack(rest)) return false;
    MORL::cut(rest, MORL::DeviceInfoBlock::PackedSize);
    for (const MORL::SupportedServiceBlock& service : services) {
      if (!service.pack(rest)) return false;
      MORL::cut(rest, MORL::SupportedServiceBlock::PackedSize);
    }
  }

  MORL::TameStatusBlock status;
  e->getOwnerUUID(status.ownerUuid);
  if (!status.pack(rest)) return false;

  e->send(QM::Span<const unsigned char>(buffer, MORL::Header::PackedSize + header.payloadLength),
          address, context);
  return true;
}
