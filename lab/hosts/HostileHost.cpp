// A hostile host of the simulated LAN. Run it only inside a namespace that
// lab/lan/lan.sh built: every packet goes to the finder's addresses or to the
// segment's broadcast, spoofed ones from addresses the caller gives. Each mode
// stops by itself after SECONDS of attack (or on SIGTERM), RATE packets a
// second, and prints one summary line.
//
//   varnock-hostile morl FINDER RATE SECONDS [REQUESTS%]
//     MORL packets to port 4792, one of two to 255.255.255.255 and the other
//     to FINDER: random bytes, truncated, oversized, wrong-CRC, wrong-length,
//     wrong-sequence, wrong-destination and self-sourced ones. The finder's
//     request, heard on port 4792, gives the sequence number to miss.
//     REQUESTS% of them are instead well-formed Discovery requests without
//     the unicast flag, which every node answers by broadcast.
//   varnock-hostile mdns FINDER RATE SECONDS SPOOF-FIRST SPOOF-COUNT
//     Waits for the finder's "_http._tcp.local" queries, then sends malformed
//     replies to the sockets they came from for SECONDS, and three times over
//     a well-formed reply from each of SPOOF-COUNT addresses from SPOOF-FIRST
//     on (last byte 0 and 255 skipped) through a raw socket.
//   varnock-hostile answer NAME VERSION SECONDS
//     Answers every Discovery request heard on port 4792 with one well-formed
//     response under NAME and VERSION, whatever bytes they hold (cut to their
//     fields), by unicast to the asker; prints "ready" once it listens.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "mdns/MDNSDiscovery.h"
#include "morl/DeviceInfoBlock.h"
#include "morl/Header.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/TameStatusBlock.h"
#include "morl/udp_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using Uuid = unsigned char[12];
const Uuid kFinderUuid = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
const unsigned char kHttpName[] = "\x05_http\x04_tcp\x05local";  // with its zero byte

std::mt19937 rng;
volatile std::sig_atomic_t stopped = 0;
unsigned int roll(unsigned int n) {
  return std::uniform_int_distribution<unsigned int>(0, n - 1)(rng);
}
// A draw per byte would cost more than sending the packet, so random bytes
// are cut at a random offset from one pool, drawn on first use.
void randomBytes(unsigned char* p, size_t n) {
  static const std::vector<unsigned char> pool = [] {
    std::vector<unsigned char> bytes(1 << 16);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(roll(256));
    return bytes;
  }();
  std::memcpy(p, pool.data() + roll(static_cast<unsigned>(pool.size() - n)), n);
}

sockaddr_in v4(uint32_t address, unsigned short port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = address;
  a.sin_port = htons(port);
  return a;
}

int udpSocket(int family, unsigned short port, uint32_t address = INADDR_ANY) {
  int s = socket(family, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const int on = 1;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(s, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  if (family == AF_INET6) {
    setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    return bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? s : -1;
  }
  sockaddr_in a = v4(address, port);
  return bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? s : -1;
}

// Runs `tick(now, due)` about every millisecond for `seconds` or until
// SIGTERM, where `due` is how many packets the rate allows by now; `tick`
// returns how many it sent.
template <class Tick>
double paced(unsigned long rate, double seconds, Tick tick) {
  const auto start = Clock::now();
  unsigned long sent = 0;
  while (true) {
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    if (elapsed >= seconds || stopped) return elapsed;
    sent += tick(elapsed, static_cast<unsigned long>(elapsed * rate) - sent);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

using H = MORL::Header;
using Info = MORL::DeviceInfoBlock;
using Service = MORL::SupportedServiceBlock;
using Tame = MORL::TameStatusBlock;

// A complete Discovery response that the finder would accept if its sequence,
// destination and source were right.
constexpr size_t kResponseSize =
    H::PackedSize + Info::PackedSize + Service::PackedSize + Tame::PackedSize;
size_t morlResponse(unsigned char* out, uint16_t sequence, const Uuid& source, const Uuid& to,
                    const std::string& name = "hostile", const std::string& version = "6.6.6") {
  H h;
  h.flags = H::FlagResponse | H::FlagUnicast;
  h.sequenceNumber = sequence;
  std::memcpy(h.sourceUuid, source, 12);
  std::memcpy(h.destinationUuid, to, 12);
  h.payloadLength = kResponseSize - H::PackedSize;
  Info info;
  std::memcpy(info.uuid, source, 12);
  name.copy(info.deviceName, sizeof info.deviceName);
  version.copy(info.softwareVersion, sizeof info.softwareVersion);
  Service service;
  service.serviceType = MORL::ServiceType::PallorModule;
  unsigned char* at = out;
  h.pack({at, H::PackedSize});
  info.pack({at += H::PackedSize, Info::PackedSize});
  service.pack({at += Info::PackedSize, Service::PackedSize});
  Tame().pack({at += Service::PackedSize, Tame::PackedSize});
  return kResponseSize;
}

size_t morlRequest(unsigned char* out, MORL::Header::Type type, const Uuid& source, const Uuid& to,
                   uint8_t flags = MORL::Header::FlagUnicast) {
  MORL::Header h;
  h.type = type;
  h.flags = MORL::Header::FlagRequest | flags;
  h.sequenceNumber = static_cast<uint16_t>(roll(65536));
  std::memcpy(h.sourceUuid, source, 12);
  std::memcpy(h.destinationUuid, to, 12);
  h.pack({out, H::PackedSize});
  return H::PackedSize;
}

// One hostile MORL datagram of kind `kind` % 8; `pending` is the finder's
// sequence number, once its request was heard.
size_t morlAttack(unsigned kind, const uint16_t* pending, unsigned char (&out)[1500]) {
  Uuid stranger;
  randomBytes(stranger, 12);
  // Before the finder's number is known, a "wrong" one might be right by chance.
  if (!pending && kind % 8 == 5) kind = 0;
  const uint16_t sequence = pending ? *pending : 0;
  const uint16_t wrong = static_cast<uint16_t>(sequence + 1 + roll(65535));
  switch (kind % 8) {
    case 0: {  // random bytes
      size_t n = 1 + roll(1400);
      randomBytes(out, n);
      return n;
    }
    case 1:  // truncated
      return 1 +
             roll(static_cast<unsigned>(morlResponse(out, sequence, stranger, kFinderUuid)) - 1);
    case 2: {  // oversized: longer than the finder's 1024-byte buffer, length field to match
      MORL::Header h;
      h.flags = MORL::Header::FlagResponse;
      h.sequenceNumber = sequence;
      std::memcpy(h.sourceUuid, stranger, 12);
      std::memcpy(h.destinationUuid, kFinderUuid, 12);
      h.payloadLength = sizeof out - H::PackedSize;
      randomBytes(out, sizeof out);
      h.pack({out, H::PackedSize});
      return sizeof out;
    }
    case 3: {  // wrong CRC: one bit of the header flipped
      size_t n = morlResponse(out, sequence, stranger, kFinderUuid);
      out[roll(H::PackedSize)] ^= static_cast<unsigned char>(1u << roll(8));
      return n;
    }
    case 4: {  // wrong length: one byte more or less than the header says
      size_t n = morlResponse(out, sequence, stranger, kFinderUuid);
      return roll(2) ? n - 1 : n + 1;
    }
    case 5:  // wrong sequence
      return morlResponse(out, wrong, stranger, kFinderUuid);
    case 6:  // wrong destination: a response or a directed request for somebody else
      if (roll(2)) return morlResponse(out, sequence, stranger, stranger);
      return morlRequest(out, roll(2) ? MORL::Header::DirectedDiscovery : MORL::Header::Whistle,
                         stranger, stranger);
    default:  // self-sourced: the finder's own UUID as source
      if (roll(2)) return morlResponse(out, sequence, kFinderUuid, kFinderUuid);
      return morlRequest(out, MORL::Header::Discovery, kFinderUuid, stranger);
  }
}

int morl(uint32_t finder, unsigned long rate, double seconds, unsigned requestShare) {
  int out = udpSocket(AF_INET, 0);
  // Bound to the broadcast address, so that connecting it does not narrow it
  // to the host's own address: it hears only the finder's broadcasts.
  int ear = udpSocket(AF_INET, udp_server::port, INADDR_BROADCAST);
  sockaddr_in finderMorl = v4(finder, udp_server::port);
  if (out < 0 || ear < 0 ||
      connect(ear, reinterpret_cast<sockaddr*>(&finderMorl), sizeof finderMorl) != 0) {
    std::perror("varnock-hostile morl: socket");
    return 1;
  }
  const sockaddr_in targets[2] = {v4(INADDR_BROADCAST, udp_server::port), finderMorl};
  uint16_t pending = 0;
  double heard = -1;
  unsigned long sent = 0, failed = 0;
  unsigned char packet[1500];
  double took = paced(rate, seconds, [&](double now, unsigned long due) {
    MORL::Header h;
    ssize_t n;
    while ((n = recv(ear, packet, sizeof packet, 0)) > 0)
      if (h.unpack({packet, static_cast<unsigned long>(n)}) &&
          (h.flags & MORL::Header::FlagRequest)) {
        pending = h.sequenceNumber;
        if (heard < 0) heard = now;
      }
    for (unsigned long i = 0; i < due; ++i, ++sent) {
      Uuid stranger;
      randomBytes(stranger, 12);
      size_t size =
          roll(100) < requestShare
              ? morlRequest(packet, MORL::Header::Discovery, stranger, stranger, 0)
              : morlAttack(static_cast<unsigned>(sent / 2), heard < 0 ? nullptr : &pending, packet);
      const sockaddr_in& to = targets[sent % 2];
      if (sendto(out, packet, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0)
        ++failed;
    }
    return due;
  });
  std::printf(
      "morl: %lu packets in %.1f s (%.0f/s, half to broadcast), %lu not sent; "
      "finder's request heard after %.2f s (-1: never)\n",
      sent, took, sent / took, failed, heard);
  return 0;
}

int answer(const std::string& name, const std::string& version, double seconds) {
  int s = udpSocket(AF_INET, udp_server::port, INADDR_BROADCAST), out = udpSocket(AF_INET, 0);
  if (s < 0 || out < 0) {
    std::perror("varnock-hostile answer: socket");
    return 1;
  }
  std::printf("ready\n");
  std::fflush(stdout);
  rng.seed(static_cast<unsigned>(getpid()));  // a UUID of its own beside other hosts
  Uuid self;
  randomBytes(self, 12);
  unsigned char packet[1500];
  paced(0, seconds, [&](double, unsigned long) {
    sockaddr_in from{};
    socklen_t length = sizeof from;
    MORL::Header h;
    ssize_t n;
    while ((n = recvfrom(s, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from),
                         &length)) > 0)
      if (h.unpack({packet, static_cast<unsigned long>(n)}) && h.type == H::Discovery &&
          (h.flags & H::FlagRequest)) {
        const size_t size =
            morlResponse(packet, h.sequenceNumber, self, h.sourceUuid, name, version);
        from.sin_port = htons(udp_server::port);
        sendto(out, packet, size, 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
      }
    return 0ul;
  });
  return 0;
}

// A reply that breaks one rule of the format, by kind % 6.
size_t mdnsAttack(unsigned kind, unsigned char (&out)[600]) {
  const unsigned char answer[] = {0, 12, 0, 1, 0, 0, 0, 120, 0, 2, 0xC0, 12};
  std::memset(out, 0, 12);
  out[2] = 0x84;
  size_t n = 12;
  auto put = [&](const void* p, size_t size) {
    std::memcpy(out + n, p, size);
    n += size;
  };
  switch (kind % 6) {
    case 0:  // two questions
      out[5] = 2, out[7] = 1;
      put(kHttpName, sizeof kHttpName), put("\0\x0c\0\x01", 4), put(kHttpName, sizeof kHttpName);
      put(answer, sizeof answer);
      return n;
    case 1:  // counts far beyond the datagram
      std::memset(out + 4, 0xFF, 8);
      randomBytes(out + 12, 20);
      return 32;
    case 2:  // a label longer than what is left
      out[7] = 1;
      put("\x3f_http", 6);
      return n;
    case 3:  // names that point at each other
      out[5] = 1, out[7] = 1;
      put("\xC0\x0E\xC0\x0C", 4), put("\0\x0c\0\x01", 4), put("\xC0\x0C", 2);
      put(answer, sizeof answer);
      return n;
    case 4:  // 65 labels, one part too many
      out[7] = 1;
      for (int i = 0; i < 65; ++i) put("\x01x", 2);
      put("", 1), put(answer, sizeof answer);
      return n;
    default:  // record data running past the end, or a cut header
      if (roll(2)) return 1 + roll(11);
      out[7] = 3;
      put(kHttpName, sizeof kHttpName), put("\0\x0c\0\x01\0\0\0\x78\xFF\xFF", 10);
      return n;
  }
}

bool isFinderQuery(const unsigned char* p, ssize_t n, const sockaddr_storage& from) {
  const unsigned short port =
      ntohs(from.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(from).sin6_port
                                       : reinterpret_cast<const sockaddr_in&>(from).sin_port);
  return n >= 12 + static_cast<ssize_t>(sizeof kHttpName) && !(p[2] & 0x80) && p[5] == 1 &&
         port != kMdnsPort && std::memcmp(p + 12, kHttpName, sizeof kHttpName) == 0;
}

int mdns(uint32_t finder, unsigned long rate, double seconds, uint32_t spoofFirst,
         unsigned spoofCount) {
  int s4 = udpSocket(AF_INET, kMdnsPort), s6 = udpSocket(AF_INET6, kMdnsPort);
  int raw = socket(AF_INET, SOCK_RAW, IPPROTO_RAW);
  ip_mreq group4{};
  group4.imr_multiaddr.s_addr = htonl(kGroupIPv4);
  ipv6_mreq group6{};
  inet_pton(AF_INET6, kGroupIPv6, &group6.ipv6mr_multiaddr);
  group6.ipv6mr_interface = if_nametoindex("eth0");
  if (s4 < 0 || s6 < 0 || raw < 0 ||
      setsockopt(s4, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group4, sizeof group4) != 0 ||
      setsockopt(s6, IPPROTO_IPV6, IPV6_JOIN_GROUP, &group6, sizeof group6) != 0) {
    std::perror("varnock-hostile mdns: socket");
    return 1;
  }
  // The finder's query sockets, IPv4 first; heard for as long as the attack lasts.
  std::vector<sockaddr_storage> targets;
  auto listen = [&] {
    unsigned char p[600];
    for (int s : {s4, s6}) {
      sockaddr_storage from{};
      socklen_t length = sizeof from;
      ssize_t n;
      while ((n = recvfrom(s, p, sizeof p, 0, reinterpret_cast<sockaddr*>(&from), &length)) > 0) {
        bool known = false;
        for (auto& t : targets) known |= std::memcmp(&t, &from, length) == 0;
        if (!known && isFinderQuery(p, n, from) &&
            (s == s6 || reinterpret_cast<sockaddr_in&>(from).sin_addr.s_addr == finder))
          targets.push_back(from);
        length = sizeof from;
      }
    }
  };
  const auto waitStart = Clock::now();
  while (targets.empty() && Clock::now() - waitStart < std::chrono::duration<double>(seconds)) {
    listen();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (targets.empty()) {
    std::printf("mdns: no query from the finder within %.1f s\n", seconds);
    return 1;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // its other query too
  listen();
  sockaddr_in finderSocket{};  // spoofed replies go to the IPv4 one
  for (auto& t : targets)
    if (t.ss_family == AF_INET) finderSocket = reinterpret_cast<const sockaddr_in&>(t);

  struct Spoofed {
    iphdr ip;
    udphdr udp;
    unsigned char dns[12 + sizeof kHttpName + 12];
  } __attribute__((packed)) spoofed{};
  spoofed.ip.version = 4, spoofed.ip.ihl = 5, spoofed.ip.ttl = 255;
  spoofed.ip.protocol = IPPROTO_UDP, spoofed.ip.tot_len = htons(sizeof spoofed);
  spoofed.ip.daddr = finder;
  spoofed.udp.source = htons(kMdnsPort), spoofed.udp.dest = finderSocket.sin_port;
  spoofed.udp.len = htons(sizeof spoofed - sizeof(iphdr));
  const unsigned char reply[] = {0, 0, 0x84, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  std::memcpy(spoofed.dns, reply, 12);
  std::memcpy(spoofed.dns + 12, kHttpName, sizeof kHttpName);
  std::memcpy(spoofed.dns + 12 + sizeof kHttpName, "\0\x0c\0\x01\0\0\0\x78\0\x02\xC0\x0C", 12);
  std::vector<uint32_t> spoofs;
  for (uint32_t a = ntohl(spoofFirst); finderSocket.sin_port && spoofs.size() < spoofCount; ++a)
    if ((a & 0xFF) != 0 && (a & 0xFF) != 0xFF) spoofs.push_back(htonl(a));

  unsigned long malformed = 0, spoofedSent = 0, failed = 0;
  unsigned char packet[600];
  double took = paced(rate, seconds, [&](double now, unsigned long due) {
    for (unsigned long i = 0; i < due; ++i, ++malformed) {
      const sockaddr_storage& to = targets[malformed % targets.size()];
      size_t n = mdnsAttack(static_cast<unsigned>(malformed / targets.size()), packet);
      int s = to.ss_family == AF_INET6 ? s6 : s4;
      if (sendto(s, packet, n, 0, reinterpret_cast<const sockaddr*>(&to),
                 to.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in)) < 0)
        ++failed;
    }
    // Three rounds over the spoofed addresses within the first half of the attack.
    const unsigned long spoofDue =
        std::min<unsigned long>(3 * spoofs.size(), 6 * spoofs.size() * now / seconds);
    for (; spoofedSent < spoofDue; ++spoofedSent) {
      spoofed.ip.saddr = spoofs[spoofedSent % spoofs.size()];
      if (sendto(raw, &spoofed, sizeof spoofed, 0, reinterpret_cast<const sockaddr*>(&finderSocket),
                 sizeof finderSocket) < 0)
        ++failed;
    }
    listen();
    return due;
  });
  const double last =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  std::printf(
      "mdns: %lu malformed replies in %.1f s (%.0f/s) to %zu finder sockets, %lu spoofed "
      "from %zu addresses, %lu not sent; last=%.3f\n",
      malformed, took, malformed / took, targets.size(), spoofedSent, spoofs.size(), failed, last);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGTERM, [](int) { stopped = 1; });
  const std::string mode = argc > 1 ? argv[1] : "";
  in_addr finder{}, spoof{};
  if (mode == "morl" && (argc == 5 || argc == 6) && inet_pton(AF_INET, argv[2], &finder) == 1)
    return morl(finder.s_addr, std::stoul(argv[3]), std::stod(argv[4]),
                argc == 6 ? static_cast<unsigned>(std::stoul(argv[5])) : 0);
  if (mode == "mdns" && argc == 7 && inet_pton(AF_INET, argv[2], &finder) == 1 &&
      inet_pton(AF_INET, argv[5], &spoof) == 1)
    return mdns(finder.s_addr, std::stoul(argv[3]), std::stod(argv[4]), spoof.s_addr,
                static_cast<unsigned>(std::stoul(argv[6])));
  if (mode == "answer" && argc == 5) return answer(argv[2], argv[3], std::stod(argv[4]));
  std::fprintf(stderr,
               "usage: varnock-hostile morl FINDER RATE SECONDS [REQUESTS%%]\n"
               "       varnock-hostile mdns FINDER RATE SECONDS SPOOF-FIRST SPOOF-COUNT\n"
               "       varnock-hostile answer NAME VERSION SECONDS\n"
               "Run it only inside a namespace of the simulated LAN (lab/lan/lan.sh).\n");
  return 2;
}
