#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qm/Entry.h"

constexpr uint16_t kMdnsPort = 5353;
constexpr uint32_t kGroupIPv4 = 0xE00000FB;  ///< 224.0.0.251, in host order
constexpr const char* kGroupIPv6 = "ff02::fb";

/// Finds hosts that answer a multicast DNS query for PTR "_http._tcp.local" on
/// every interface address. One object per run; runs must not overlap, since
/// they share `entries`.
class MDNS_Discover {
 public:
  /// Runs one discovery that ends after `waitSeconds` without any reply.
  /// Returns 1 with `entries` sorted and one record per address, 0 on failure.
  int discover(long waitSeconds);

  /// Opens the sockets, sends the queries and reads replies into `entries`
  /// (unsorted, one record per counted resource record). Returns 1 when the
  /// reading phase ran, 0 when no socket opened or a query could not be sent.
  int send_mdns_request(long waitSeconds);

  /// Opens one non-blocking UDP socket per usable interface address into
  /// `sockets` and returns how many were opened (0 to `maxSockets`).
  int open_client_sockets(int* sockets, unsigned short maxSockets, unsigned short port);

  /// Appends a record with only `ip` filled; duplicates are kept.
  static void AddIP(const std::string& address);

  /// Found addresses of the current or last run (process-wide).
  static std::vector<Entry> entries;

  uint32_t firstIPv4 = 0;  ///< network byte order
  uint8_t firstIPv6[16] = {};
  uint8_t hasIPv4 = 0;
  uint8_t hasIPv6 = 0;
};

/// Builds the query for PTR "_http._tcp.local" with question class `qclass`
/// into `buffer`; returns its length (34), or 0 when it does not fit.
size_t mdns_build_query(void* buffer, size_t capacity, uint16_t qclass);

/// Handles one received datagram of `size` bytes from `from` (read on `sock`,
/// -1 when there is none): checks the header and question, then records the
/// sender once per well-formed record of the three sections. Returns how many
/// records were counted.
size_t mdns_read_reply(const void* buffer, size_t size, const sockaddr* from, size_t addrlen,
                       int sock = -1);
