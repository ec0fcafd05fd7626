#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mdns/MDNSDiscovery.h"

/// A domain name as its labels, "local" last.
using DnsName = std::vector<std::string>;

struct MdnsQuestion {
  DnsName name;
  std::uint16_t type = 0;
  /// Without the unicast-response bit.
  std::uint16_t qclass = 0;
  bool unicastResponse = false;
};

struct MdnsQuery {
  std::uint16_t id = 0;
  std::vector<MdnsQuestion> questions;
};

/// The questions of a DNS query message (QR clear, opcode 0, at least one
/// question); nothing for a response or a malformed message. Compression
/// pointers must point backwards; names hold at most 255 bytes.
std::optional<MdnsQuery> parseMdnsQuery(const std::uint8_t* data, std::size_t size);

/// What a device announces: PTR "_http._tcp.local" to "INSTANCE._http._tcp.local",
/// SRV of that to HOST.local and `port`, its TXT, and A of HOST.local.
struct MdnsIdentity {
  std::string instance;
  std::string host;
  std::uint32_t address = 0;  ///< host order
  std::uint16_t port = 80;
  std::vector<std::string> txt;
};

/// A device's records, as bits of a set.
enum MdnsRecord : unsigned { kMdnsPtr = 1, kMdnsSrv = 2, kMdnsTxt = 4, kMdnsA = 8, kMdnsAll = 15 };

/// The records of a response: the answers, and the rest that go along as
/// additional records.
struct MdnsRecords {
  unsigned answers = 0;
  unsigned additionals = 0;
};

/// The identity's records that answer the query's questions, and those of the
/// rest that help the querier use them (none when nothing answers).
MdnsRecords mdnsAnswerTo(const MdnsIdentity& identity, const MdnsQuery& query);

/// Whether a question asks for the service's PTR records, which every device
/// holds, so that many responders answer it at once.
bool asksSharedRecords(const MdnsQuery& query);

/// The response that carries `records` (additionals that are answers too left
/// out); empty when it has no answer. A legacy (one-shot) reply to `legacy`
/// repeats its ID and questions, has TTLs of at most 10 s and no cache-flush bits.
std::vector<std::uint8_t> encodeMdnsAnswer(const MdnsIdentity& identity, MdnsRecords records,
                                           const MdnsQuery* legacy = nullptr);

/// An unsolicited response with every record as an answer; TTLs of 0 when
/// `goodbye`.
std::vector<std::uint8_t> encodeMdnsAnnouncement(const MdnsIdentity& identity, bool goodbye);
