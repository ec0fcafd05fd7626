#pragma once

#include <atomic>
#include <cstdint>

#include "morl/Header.h"
#include "qm/Span.h"

class IMORLEndpoint;

/// The MORL protocol engine of one endpoint: checks received datagrams,
/// answers requests for the endpoint, hands it responses to its latest
/// request, and builds requests and responses that the endpoint sends.
/// Knows no sockets. `receive` may run on another thread than `init` and
/// `sendRequest`.
class MORLManager {
 public:
  /// Size of the buffer a datagram is built in; a response that does not fit
  /// (more than 10 services) is not sent.
  static constexpr unsigned long BufferSize = 200;

  MORLManager();
  MORLManager(const MORLManager&) = delete;
  MORLManager& operator=(const MORLManager&) = delete;

  /// Attaches `endpoint` (not owned) and seeds the sequence numbers from its
  /// UUID through srand/rand. A null endpoint or one whose UUID is all zero
  /// leaves the manager switched off.
  void init(IMORLEndpoint* endpoint);
  /// One received datagram from `senderAddress` (IPv4, host order). True when
  /// it was valid and was answered or delivered to the endpoint.
  bool receive(QM::Span<const unsigned char> datagram, unsigned int senderAddress, void* context);
  /// Builds a request without blocks and hands it to the endpoint's send;
  /// only responses to the latest request are accepted afterwards.
  bool sendRequest(MORL::Header::Type type, unsigned int address,
                   const unsigned char (&destinationUuid)[12], void* context);
  /// Builds the answer to the request with `sequenceNumber`: the tame status
  /// alone for Tame, else device info, the services and the tame status.
  /// Only for an initialised manager.
  bool sendResponse(MORL::Header::Type type, unsigned int address,
                    const unsigned char (&destinationUuid)[12], void* context,
                    unsigned short sequenceNumber);

 private:
  // Written by init/sendRequest on one thread, read by receive on the I/O thread.
  std::atomic<IMORLEndpoint*> endpoint;
  std::atomic<std::uint16_t> nextSequence;
  std::atomic<std::uint16_t> pendingSequence;
};
