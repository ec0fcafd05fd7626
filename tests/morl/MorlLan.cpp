#include "MorlLan.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "morl/DeviceInfoBlock.h"
#include "morl/Header.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/TameStatusBlock.h"

namespace morltest {

std::string devicePath() {
  const char* dir = std::getenv("VARNOCK_BIN_DIR");
  if (dir) return std::string(dir) + "/device/varnock-device";
  // Run by hand from the build tree: this binary is BUILD/tests/morl/morl_test.
  char self[4096] = {};
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string path(self, n > 0 ? static_cast<std::size_t>(n) : 0);
  return path.substr(0, path.rfind("/tests/")) + "/device/varnock-device";
}

std::vector<std::string> peer(const std::vector<std::string>& args) {
  std::string here = __FILE__;
  std::vector<std::string> argv{"/usr/bin/python3",
                                here.substr(0, here.rfind('/')) + "/morl_peer.py"};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

Scratch::Scratch() {
  char tmpl[] = "/tmp/varnock-morl.XXXXXX";
  if (mkdtemp(tmpl)) dir = tmpl;
}

Scratch::~Scratch() {
  std::error_code ignored;
  if (!dir.empty()) std::filesystem::remove_all(dir, ignored);
}

int occupyUdpPort(unsigned short port) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    fd = -1;
  }
  return fd;
}

std::vector<unsigned char> fromHex(const std::string& hex) {
  std::vector<unsigned char> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

std::vector<Datagram> datagramsIn(const std::string& output) {
  std::vector<Datagram> found;
  std::istringstream lines(output);
  std::string from, hex;
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    if (!(fields >> from >> hex) || from.find('.') == std::string::npos) continue;
    found.push_back({from, fromHex(hex)});
  }
  return found;
}

std::vector<Datagram> withFlags(const std::vector<Datagram>& all, unsigned char flags) {
  std::vector<Datagram> kept;
  for (const auto& d : all)
    if (d.bytes.size() > 1 && d.bytes[1] == flags) kept.push_back(d);
  return kept;
}

std::vector<unsigned char> packet(unsigned char type, unsigned char flags, unsigned short sequence,
                                  const std::vector<unsigned char>& source,
                                  const std::vector<unsigned char>& destination,
                                  const std::vector<std::vector<unsigned char>>& blocks) {
  MORL::Header h;
  h.type = static_cast<MORL::Header::Type>(type);
  h.flags = flags;
  h.sequenceNumber = sequence;
  std::memcpy(h.sourceUuid, source.data(), 12);
  std::memcpy(h.destinationUuid, destination.data(), 12);
  std::vector<unsigned char> payload;
  for (const auto& b : blocks) payload.insert(payload.end(), b.begin(), b.end());
  h.payloadLength = static_cast<unsigned short>(payload.size());
  std::vector<unsigned char> out(34);
  h.pack(QM::Span<unsigned char>(out.data(), out.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

std::vector<unsigned char> deviceInfoBlock(const std::vector<unsigned char>& uuid,
                                           const std::string& name, const std::string& version) {
  MORL::DeviceInfoBlock b;
  std::memcpy(b.uuid, uuid.data(), 12);
  std::memcpy(b.deviceName, name.data(), std::min<std::size_t>(name.size(), 30));
  std::memcpy(b.softwareVersion, version.data(), std::min<std::size_t>(version.size(), 20));
  std::vector<unsigned char> out(MORL::DeviceInfoBlock::PackedSize);
  b.pack(QM::Span<unsigned char>(out.data(), out.size()));
  return out;
}

std::vector<unsigned char> serviceBlock(unsigned char type, unsigned short value) {
  MORL::SupportedServiceBlock b;
  b.serviceType = static_cast<MORL::ServiceType>(type);
  b.serviceValue = value;
  std::vector<unsigned char> out(MORL::SupportedServiceBlock::PackedSize);
  b.pack(QM::Span<unsigned char>(out.data(), out.size()));
  return out;
}

std::vector<unsigned char> tameBlock(const std::vector<unsigned char>& owner) {
  MORL::TameStatusBlock b;
  std::memcpy(b.ownerUuid, owner.data(), 12);
  std::vector<unsigned char> out(MORL::TameStatusBlock::PackedSize);
  b.pack(QM::Span<unsigned char>(out.data(), out.size()));
  return out;
}

}  // namespace morltest
