#include "mdns/MDNSDiscovery.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qm/log.h"

std::vector<Entry> MDNS_Discover::entries;

namespace {

enum mdns_entry_type {
  MDNS_ENTRYTYPE_ANSWER = 1,
  MDNS_ENTRYTYPE_AUTHORITY = 2,
  MDNS_ENTRYTYPE_ADDITIONAL = 3,
};

using mdns_record_callback_fn = int (*)(int sock, const sockaddr* from, size_t addrlen,
                                        mdns_entry_type entry, uint16_t queryId, uint16_t rtype,
                                        uint16_t rclass, uint32_t ttl, const void* data,
                                        size_t size, size_t nameOffset, size_t nameLength,
                                        size_t recordOffset, size_t recordLength, void* userData);

constexpr int kMaxSockets = 32;
constexpr size_t kBufferSize = 2048;
constexpr uint16_t kClassIn = 1;
constexpr uint16_t kClassInUnicastResponse = 0x8001;
constexpr uint16_t kTypePtr = 12;
// Labels, the zero byte or the pointer that ends a name: at most 64 labels fit before the end.
constexpr int kMaxNameParts = 65;

uint16_t read16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

uint32_t read32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

void write16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

// Moves *offset past one encoded name. Compression pointers are checked but
// not followed, so a loop of pointers cannot trap the walk. On an invalid name
// *offset stays where it was.
bool mdns_name_skip(const uint8_t* buffer, size_t size, size_t* offset) {
  size_t cur = *offset;
  for (int part = 0; part < kMaxNameParts; ++part) {
    if (cur >= size) return false;
    const uint8_t length = buffer[cur];
    if (length == 0) {
      *offset = cur + 1;
      return true;
    }
    if (length >= 0xC0) {
      if (size - cur < 2) return false;
      const size_t target = read16(buffer + cur) & 0x3FFF;
      if (target >= size || size - target - 1 < buffer[target]) return false;
      *offset = cur + 2;
      return true;
    }
    if (size - cur - 1 < length) return false;
    cur += 1 + length;
  }
  return false;
}

// "host:port" or "[host]:port" as getnameinfo gives them numerically, the bare
// host when the port is 0; an empty text when the address cannot be converted.
void formatAddress(const sockaddr* addr, size_t addrlen, char* out, size_t capacity) {
  out[0] = '\0';
  if (addr == nullptr) return;
  char host[NI_MAXHOST] = {};
  char service[NI_MAXSERV] = {};
  if (getnameinfo(addr, static_cast<socklen_t>(addrlen), host, sizeof host, service, sizeof service,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return;
  uint16_t port = 0;
  if (addr->sa_family == AF_INET6)
    port = reinterpret_cast<const sockaddr_in6*>(addr)->sin6_port;
  else
    port = reinterpret_cast<const sockaddr_in*>(addr)->sin_port;
  if (port == 0)
    std::snprintf(out, capacity, "%s", host);
  else if (addr->sa_family == AF_INET6)
    std::snprintf(out, capacity, "[%s]:%s", host, service);
  else
    std::snprintf(out, capacity, "%s:%s", host, service);
}

// The sender's address text, converted once per datagram: every record of it
// has the same sender.
struct SenderText {
  bool converted = false;
  char text[64];
};

int query_callback(int /*sock*/, const sockaddr* from, size_t addrlen, mdns_entry_type /*entry*/,
                   uint16_t /*queryId*/, uint16_t /*rtype*/, uint16_t /*rclass*/, uint32_t /*ttl*/,
                   const void* /*data*/, size_t /*size*/, size_t /*nameOffset*/,
                   size_t /*nameLength*/, size_t /*recordOffset*/, size_t /*recordLength*/,
                   void* userData) {
  SenderText local;
  SenderText& sender = userData ? *static_cast<SenderText*>(userData) : local;
  if (!sender.converted) {
    formatAddress(from, addrlen, sender.text, sizeof sender.text);
    sender.converted = true;
  }
  // Cutting at the first ':' drops the port of an IPv4 sender; an IPv6 sender
  // keeps only "[" and its first group, which later stages treat as no address.
  const size_t length = strnlen(sender.text, sizeof sender.text - 1);
  const char* colon = static_cast<const char*>(std::memchr(sender.text, ':', length));
  MDNS_Discover::AddIP(
      std::string(sender.text, colon ? static_cast<size_t>(colon - sender.text) : length));
  return 0;
}

size_t mdns_records_parse(int sock, const sockaddr* from, size_t addrlen, const void* buffer,
                          size_t size, size_t* offset, mdns_entry_type type, uint16_t queryId,
                          size_t records, mdns_record_callback_fn callback, void* userData) {
  const uint8_t* data = static_cast<const uint8_t*>(buffer);
  size_t parsed = 0;
  bool doCallback = true;
  for (size_t i = 0; i < records; ++i) {
    const size_t nameOffset = *offset;
    // An invalid owner name leaves the offset on it; its bytes are then read
    // as the fixed part, and the bounds checks below still hold.
    mdns_name_skip(data, size, offset);
    const size_t nameLength = *offset - nameOffset;
    if (*offset > size || size - *offset < 10) break;
    const uint16_t rtype = read16(data + *offset);
    const uint16_t rclass = read16(data + *offset + 2);
    const uint32_t ttl = read32(data + *offset + 4);
    const size_t length = read16(data + *offset + 8);
    *offset += 10;
    if (length <= size - *offset && doCallback) {
      ++parsed;
      if (callback(sock, from, addrlen, type, queryId, rtype, rclass, ttl, buffer, size, nameOffset,
                   nameLength, *offset, length, userData) != 0)
        doCallback = false;
    }
    // Skipping data that overruns the datagram puts the next name past the
    // end, which ends the section.
    *offset += length;
  }
  return parsed;
}

bool makeNonBlocking(int sock) {
  const int flags = fcntl(sock, F_GETFL, 0);
  return flags >= 0 && fcntl(sock, F_SETFL, flags | O_NONBLOCK) == 0;
}

// One socket per call: the caller keeps the handle. Plain option failures are
// harmless here; a failed join, bind or switch to non-blocking is not.
int openIPv4Socket(sockaddr_in* saddr, unsigned short port) {
  saddr->sin_port = htons(port);
  const int sock = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (sock < 0) return -1;
  // select() cannot watch a handle at or above FD_SETSIZE.
  if (sock >= FD_SETSIZE) {
    close(sock);
    return -1;
  }
  const int on = 1;
  const unsigned char ttl = 1;
  const unsigned char loop = 1;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  setsockopt(sock, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
  setsockopt(sock, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
  ip_mreq req{};
  req.imr_multiaddr.s_addr = htonl(kGroupIPv4);
  req.imr_interface = saddr->sin_addr;
  if (setsockopt(sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &req, sizeof req) != 0) {
    close(sock);
    return -1;
  }
  setsockopt(sock, IPPROTO_IP, IP_MULTICAST_IF, &saddr->sin_addr, sizeof saddr->sin_addr);
  saddr->sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(sock, reinterpret_cast<const sockaddr*>(saddr), sizeof *saddr) != 0 ||
      !makeNonBlocking(sock)) {
    close(sock);
    return -1;
  }
  return sock;
}

int openIPv6Socket(sockaddr_in6* saddr, unsigned short port) {
  saddr->sin6_port = htons(port);
  const int sock = socket(AF_INET6, SOCK_DGRAM, IPPROTO_UDP);
  if (sock < 0) return -1;
  if (sock >= FD_SETSIZE) {
    close(sock);
    return -1;
  }
  const int on = 1;
  const int hops = 1;
  const int loop = 1;
  const unsigned int anyInterface = 0;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  setsockopt(sock, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops);
  setsockopt(sock, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &loop, sizeof loop);
  ipv6_mreq req{};
  inet_pton(AF_INET6, kGroupIPv6, &req.ipv6mr_multiaddr);
  req.ipv6mr_interface = anyInterface;
  if (setsockopt(sock, IPPROTO_IPV6, IPV6_JOIN_GROUP, &req, sizeof req) != 0) {
    close(sock);
    return -1;
  }
  setsockopt(sock, IPPROTO_IPV6, IPV6_MULTICAST_IF, &anyInterface, sizeof anyInterface);
  // A scope left over from a link-local address means nothing for "::" and
  // would only show up as "%N" in the log line.
  saddr->sin6_addr = in6addr_any;
  saddr->sin6_scope_id = 0;
  if (bind(sock, reinterpret_cast<const sockaddr*>(saddr), sizeof *saddr) != 0 ||
      !makeNonBlocking(sock)) {
    close(sock);
    return -1;
  }
  return sock;
}

void closeSockets(const int* sockets, int count) {
  for (int i = 0; i < count; ++i) close(sockets[i]);
}

}  // namespace

size_t mdns_build_query(void* buffer, size_t capacity, uint16_t qclass) {
  static const char* const labels[] = {"_http", "_tcp", "local"};
  uint8_t* out = static_cast<uint8_t*>(buffer);
  if (capacity < 12) return 0;
  std::memset(out, 0, 12);
  write16(out + 4, 1);
  size_t offset = 12;
  for (const char* label : labels) {
    const size_t length = std::strlen(label);
    if (capacity - offset < 1 + length) return 0;
    out[offset] = static_cast<uint8_t>(length);
    std::memcpy(out + offset + 1, label, length);
    offset += 1 + length;
  }
  if (capacity - offset < 5) return 0;
  out[offset] = 0;
  write16(out + offset + 1, kTypePtr);
  write16(out + offset + 3, qclass);
  return offset + 5;
}

size_t mdns_read_reply(const void* buffer, size_t size, const sockaddr* from, size_t addrlen,
                       int sock) {
  // Shorter than a header: no record could start inside it.
  if (size < 12) return 0;
  const uint8_t* data = static_cast<const uint8_t*>(buffer);
  const uint16_t queryId = read16(data);
  const uint16_t questions = read16(data + 4);
  const uint16_t answers = read16(data + 6);
  const uint16_t authorities = read16(data + 8);
  const uint16_t additionals = read16(data + 10);
  if (questions > 1) return 0;
  size_t offset = 12;
  if (questions == 1) {
    if (!mdns_name_skip(data, size, &offset)) return 0;
    offset += 4;
  }
  // The ID is not compared with our own query's: answers to anybody's query count.
  SenderText sender;
  size_t counted = 0;
  counted += mdns_records_parse(sock, from, addrlen, buffer, size, &offset, MDNS_ENTRYTYPE_ANSWER,
                                queryId, answers, query_callback, &sender);
  counted +=
      mdns_records_parse(sock, from, addrlen, buffer, size, &offset, MDNS_ENTRYTYPE_AUTHORITY,
                         queryId, authorities, query_callback, &sender);
  counted +=
      mdns_records_parse(sock, from, addrlen, buffer, size, &offset, MDNS_ENTRYTYPE_ADDITIONAL,
                         queryId, additionals, query_callback, &sender);
  return counted;
}

void MDNS_Discover::AddIP(const std::string& address) {
  Entry entry;
  entry.ip = address;
  entries.push_back(std::move(entry));
}

int MDNS_Discover::discover(long waitSeconds) {
  entries.clear();
  if (!send_mdns_request(waitSeconds)) return 0;
  std::sort(entries.begin(), entries.end());
  entries.erase(std::unique(entries.begin(), entries.end()), entries.end());
  return 1;
}

int MDNS_Discover::open_client_sockets(int* sockets, unsigned short maxSockets,
                                       unsigned short port) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    logd("Unable to get interface addresses");
    return 0;
  }
  in6_addr loopback6{};
  in6_addr mappedLoopback{};
  inet_pton(AF_INET6, "::1", &loopback6);
  inet_pton(AF_INET6, "::ffff:127.0.0.1", &mappedLoopback);

  int count = 0;
  char text[128];
  for (ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
    if (ifa->ifa_addr == nullptr) continue;
    if (ifa->ifa_addr->sa_family == AF_INET) {
      auto* saddr = reinterpret_cast<sockaddr_in*>(ifa->ifa_addr);
      if (saddr->sin_addr.s_addr == htonl(INADDR_LOOPBACK)) continue;
      const bool first = !hasIPv4;
      if (first) firstIPv4 = saddr->sin_addr.s_addr;
      hasIPv4 = 1;
      bool log = first;
      if (count < maxSockets) {
        // The address is zeroed in the list's own record, so the log line of
        // an opened socket shows the bound address 0.0.0.0.
        const int sock = openIPv4Socket(saddr, port);
        log = sock >= 0;
        if (sock >= 0) sockets[count++] = sock;
      }
      if (log) {
        formatAddress(ifa->ifa_addr, sizeof(sockaddr_in), text, sizeof text);
        logd("Local IPv4 address: %.*s", 127, text);
      }
    } else if (ifa->ifa_addr->sa_family == AF_INET6) {
      auto* saddr = reinterpret_cast<sockaddr_in6*>(ifa->ifa_addr);
      if (std::memcmp(&saddr->sin6_addr, &loopback6, sizeof loopback6) == 0 ||
          std::memcmp(&saddr->sin6_addr, &mappedLoopback, sizeof mappedLoopback) == 0)
        continue;
      const bool first = !hasIPv6;
      if (first) std::memcpy(firstIPv6, &saddr->sin6_addr, sizeof firstIPv6);
      hasIPv6 = 1;
      bool log = first;
      if (count < maxSockets) {
        const int sock = openIPv6Socket(saddr, port);
        log = sock >= 0;
        if (sock >= 0) sockets[count++] = sock;
      }
      if (log) {
        formatAddress(ifa->ifa_addr, sizeof(sockaddr_in6), text, sizeof text);
        logd("Local IPv6 address: %.*s", 127, text);
      }
    }
  }
  freeifaddrs(list);
  return count;
}

int MDNS_Discover::send_mdns_request(long waitSeconds) {
  int sockets[kMaxSockets] = {};
  const int count = open_client_sockets(sockets, kMaxSockets, 0);
  if (count < 1) {
    logd("Failed to open any client sockets");
    return 0;
  }
  logd("mDNS socket count: %d, querying...", count);

  uint8_t buffer[kBufferSize];
  for (int i = 0; i < count; ++i) {
    sockaddr_storage local{};
    socklen_t localLength = sizeof local;
    uint16_t qclass = kClassInUnicastResponse;
    if (getsockname(sockets[i], reinterpret_cast<sockaddr*>(&local), &localLength) == 0) {
      const uint16_t localPort = local.ss_family == AF_INET6
                                     ? reinterpret_cast<sockaddr_in6*>(&local)->sin6_port
                                     : reinterpret_cast<sockaddr_in*>(&local)->sin_port;
      if (ntohs(localPort) == kMdnsPort) qclass = kClassIn;
    }
    const size_t length = mdns_build_query(buffer, sizeof buffer, qclass);
    localLength = sizeof local;
    bool sent = length != 0 &&
                getsockname(sockets[i], reinterpret_cast<sockaddr*>(&local), &localLength) == 0;
    if (sent) {
      if (local.ss_family == AF_INET6) {
        sockaddr_in6 to{};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(kMdnsPort);
        inet_pton(AF_INET6, kGroupIPv6, &to.sin6_addr);
        sent = sendto(sockets[i], buffer, length, 0, reinterpret_cast<const sockaddr*>(&to),
                      sizeof to) >= 0;
      } else {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(kMdnsPort);
        to.sin_addr.s_addr = htonl(kGroupIPv4);
        sent = sendto(sockets[i], buffer, length, 0, reinterpret_cast<const sockaddr*>(&to),
                      sizeof to) >= 0;
      }
    }
    if (!sent) {
      const int error = errno;
      logd("Failed to send mDNS query: %s", std::strerror(error));
      // Closed here too, so that a failed run leaks no handles.
      closeSockets(sockets, count);
      return 0;
    }
  }

  logd("Reading mDNS replies");
  entries.clear();
  while (true) {
    fd_set ready;
    FD_ZERO(&ready);
    int nfds = 0;
    for (int i = 0; i < count; ++i) {
      FD_SET(sockets[i], &ready);
      nfds = std::max(nfds, sockets[i] + 1);
    }
    // The silence time starts afresh with every pass, so each datagram extends the run.
    timeval timeout{waitSeconds, 0};
    if (select(nfds, &ready, nullptr, nullptr, &timeout) <= 0) break;
    for (int i = 0; i < count; ++i) {
      if (!FD_ISSET(sockets[i], &ready)) continue;
      sockaddr_in6 from{};
      socklen_t fromLength = sizeof from;
      const ssize_t received = recvfrom(sockets[i], buffer, sizeof buffer, 0,
                                        reinterpret_cast<sockaddr*>(&from), &fromLength);
      if (received <= 0) continue;
      mdns_read_reply(buffer, static_cast<size_t>(received), reinterpret_cast<sockaddr*>(&from),
                      fromLength, sockets[i]);
    }
  }
  closeSockets(sockets, count);
  logd("Socket%s closed", "s");
  return 1;
}
