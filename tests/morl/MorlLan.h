#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "RequireLan.h"

/// Helpers of the MORL tests on the simulated LAN.
namespace morltest {

/// The varnock-device executable of this build.
std::string devicePath();
/// The scriptable MORL peer (tests/morl/morl_peer.py), run with /usr/bin/python3.
std::vector<std::string> peer(const std::vector<std::string>& args);

/// A scratch folder removed with this object.
class Scratch {
 public:
  Scratch();
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  std::string path(const std::string& name) const { return dir + "/" + name; }

 private:
  std::string dir;
};

inline std::string readText(const std::string& path) { return Lan::readText(path); }
/// Waits until the file holds `text`.
inline bool waitForText(const std::string& path, const std::string& text,
                        std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) {
  return Lan::waitForText(path, text, timeout);
}

/// Binds a UDP socket to 0.0.0.0:`port` in the calling thread's namespace, so
/// that nobody else can; returns its descriptor, or -1.
int occupyUdpPort(unsigned short port);

struct Datagram {
  std::string from;
  std::vector<unsigned char> bytes;
};
/// The "SENDERIP HEX" lines of a peer's output.
std::vector<Datagram> datagramsIn(const std::string& output);
/// Only the datagrams whose flags byte is `flags`.
std::vector<Datagram> withFlags(const std::vector<Datagram>& all, unsigned char flags);

std::vector<unsigned char> fromHex(const std::string& hex);

/// A datagram built by the codec: header with the given fields, then blocks.
std::vector<unsigned char> packet(unsigned char type, unsigned char flags, unsigned short sequence,
                                  const std::vector<unsigned char>& source,
                                  const std::vector<unsigned char>& destination,
                                  const std::vector<std::vector<unsigned char>>& blocks);
std::vector<unsigned char> deviceInfoBlock(const std::vector<unsigned char>& uuid,
                                           const std::string& name, const std::string& version);
std::vector<unsigned char> serviceBlock(unsigned char type, unsigned short value);
std::vector<unsigned char> tameBlock(const std::vector<unsigned char>& owner);

}  // namespace morltest
