#include "device/DeviceConfig.h"

#include <cstdio>
#include <ostream>
#include <random>
#include <stdexcept>

#include <boost/program_options.hpp>

#include "morl/ControllerInfo.h"

namespace po = boost::program_options;

namespace {

bool parseUuid(const std::string& text, unsigned char (&uuid)[12]) {
  if (text.size() != 24) return false;
  for (int i = 0; i < 12; ++i) {
    unsigned int byte = 0;
    for (int j = 0; j < 2; ++j) {
      char c = text[2 * i + j];
      int v = c >= '0' && c <= '9'   ? c - '0'
              : c >= 'a' && c <= 'f' ? c - 'a' + 10
              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                     : -1;
      if (v < 0) return false;
      byte = byte * 16 + static_cast<unsigned int>(v);
    }
    uuid[i] = static_cast<unsigned char>(byte);
  }
  return true;
}

bool parseNumber(const std::string& text, unsigned long max, unsigned long& value) {
  if (text.empty() || text.size() > 6) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned long>(c - '0');
  }
  return value <= max;
}

bool parseService(const std::string& text, MORL::SupportedServiceBlock& service) {
  auto colon = text.find(':');
  if (colon == std::string::npos) return false;
  unsigned long type = 0, value = 0;
  if (!parseNumber(text.substr(0, colon), 255, type) ||
      !parseNumber(text.substr(colon + 1), 65535, value))
    return false;
  service.serviceType = static_cast<MORL::ServiceType>(type);
  service.serviceValue = static_cast<std::uint16_t>(value);
  return true;
}

}  // namespace

std::string deviceTypeOf(const DeviceConfig& config) {
  if (config.services.empty()) return "";
  return deviceTypeName(static_cast<unsigned char>(config.services.back().serviceType));
}

std::string uuidText(const unsigned char (&uuid)[12]) {
  std::string text;
  char hex[3];
  for (unsigned char b : uuid) {
    std::snprintf(hex, sizeof hex, "%02x", b);
    text += hex;
  }
  return text;
}

ParseResult parseDeviceOptions(int argc, char** argv, DeviceConfig& config, std::ostream& out,
                               std::ostream& err) {
  po::options_description options(
      "varnock-device: a simulated device that answers MORL requests on UDP port 4792 and\n"
      "GET /api/v1/info over HTTP. Runs until SIGINT or SIGTERM, then exits with status 0.\n"
      "Prints \"ready\" once its sockets are bound, \"whistle from UUID\" for each whistle\n"
      "request and \"tamed by UUID\" for each tame request it accepts (UUIDs as 24 hex\n"
      "digits). Run it only inside a network namespace of the simulated LAN.\n\n"
      "Options");
  std::string uuid, owner;
  std::vector<std::string> services;
  // clang-format off
  options.add_options()
    ("help,h", "print this help and exit")
    ("version", "print the version and exit")
    ("uuid", po::value<std::string>(&uuid),
     "device UUID, 24 hex digits (default: random)")
    ("name", po::value<std::string>(&config.name)->default_value(config.name),
     "device name, at most 30 characters")
    ("software-version", po::value<std::string>(&config.softwareVersion)
                             ->default_value(config.softwareVersion),
     "software version, at most 20 characters")
    ("service", po::value<std::vector<std::string>>(&services),
     "a supported service TYPE:VALUE (type 0-255, value 0-65535); repeat for up to 10, "
     "announced in the given order. Device type names: 0 extender_dorn, 1 extender_brask, "
     "2 pallor_module, 3 extender_quin, 4 extender_fell, other uknown; the info server "
     "reports the type of the last service, empty without one")
    ("owner", po::value<std::string>(&owner),
     "owner UUID, 24 hex digits (default: all zero)")
    ("no-unicast", "do not offer unicast replies (header flag 0x04 clear)")
    ("refuse-tame", "refuse tame requests (default: accept; the requester becomes the owner)")
    ("no-morl", "do not open the MORL socket (HTTP only)")
    ("no-http", "do not open the HTTP info server (MORL only)")
    ("http-port", po::value<unsigned short>(&config.httpPort)->default_value(config.httpPort),
     "TCP port of the info server")
    ("http-content-type", po::value<std::string>(&config.httpContentType)
                              ->default_value(config.httpContentType),
     "Content-Type of the info reply")
    ("http-body", po::value<std::string>(&config.httpBody),
     "reply body of GET /api/v1/info instead of the info JSON")
    ("http-status", po::value<unsigned int>(&config.httpStatus)->default_value(config.httpStatus),
     "status of the reply to GET /api/v1/info (100-999)")
    ("http-delay", po::value<unsigned int>(&config.httpDelayMs)->default_value(0),
     "milliseconds to wait before each HTTP reply")
    ("morl-delay", po::value<unsigned int>(&config.morlDelayMs)->default_value(0),
     "milliseconds to wait before sending each MORL answer");
  // clang-format on
  try {
    po::variables_map vm;
    po::store(po::command_line_parser(argc, argv).options(options).run(), vm);
    po::notify(vm);
    if (vm.count("help")) {
      out << options << "\n";
      return ParseResult::Exit;
    }
    if (vm.count("version")) {
      out << "varnock-device " VARNOCK_VERSION "\n";
      return ParseResult::Exit;
    }
    if (vm.count("uuid")) {
      if (!parseUuid(uuid, config.uuid))
        throw std::invalid_argument("--uuid needs 24 hex digits: " + uuid);
    } else {
      std::random_device random;
      for (auto& b : config.uuid) b = static_cast<unsigned char>(random());
    }
    if (vm.count("owner") && !parseUuid(owner, config.owner))
      throw std::invalid_argument("--owner needs 24 hex digits: " + owner);
    if (config.name.size() > 30) throw std::invalid_argument("--name is longer than 30 characters");
    if (config.softwareVersion.size() > 20)
      throw std::invalid_argument("--software-version is longer than 20 characters");
    if (services.size() > 10) throw std::invalid_argument("at most 10 --service options");
    for (const auto& text : services) {
      MORL::SupportedServiceBlock service;
      if (!parseService(text, service))
        throw std::invalid_argument("--service needs TYPE:VALUE: " + text);
      config.services.push_back(service);
    }
    if (config.httpStatus < 100 || config.httpStatus > 999)
      throw std::invalid_argument("--http-status must be 100-999");
    config.httpBodySet = vm.count("http-body") != 0;
    config.unicast = vm.count("no-unicast") == 0;
    config.acceptTame = vm.count("refuse-tame") == 0;
    config.morl = vm.count("no-morl") == 0;
    config.http = vm.count("no-http") == 0;
    return ParseResult::Run;
  } catch (const std::exception& e) {
    err << "varnock-device: " << e.what() << "\n" << options << "\n";
    return ParseResult::Error;
  }
}
