#include "device/DeviceConfig.h"

#include <arpa/inet.h>

#include <cstdio>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>

#include <boost/program_options.hpp>

#include "device/SiteFile.h"
#include "morl/ControllerInfo.h"

namespace po = boost::program_options;

namespace {

constexpr unsigned int kMaxDelayMs = 600000;
const char* const kPointer = "Try 'varnock-device --help' for more information.\n";

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

/// A decimal integer, with an optional sign, in [min, max].
bool parseNumber(const std::string& text, long min, long max, long& value) {
  size_t i = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  if (text.size() == i || text.size() - i > 9) return false;
  value = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + (text[i] - '0');
  }
  if (text[0] == '-') value = -value;
  return value >= min && value <= max;
}

std::string range(long min, long max) {
  return "must be " + std::to_string(min) + "-" + std::to_string(max);
}

std::string addService(DeviceConfig& config, const std::string& text) {
  auto colon = text.find(':');
  if (colon == std::string::npos) return "needs TYPE:VALUE";
  long type = 0, value = 0;
  if (!parseNumber(text.substr(0, colon), 0, 255, type)) return "type " + range(0, 255);
  if (!parseNumber(text.substr(colon + 1), 0, 65535, value)) return "value " + range(0, 65535);
  if (config.services.size() == 10) return "is given more than 10 times";
  config.services.push_back(
      {static_cast<MORL::ServiceType>(type), static_cast<std::uint16_t>(value)});
  return "";
}

std::string randomUuid(unsigned char (&uuid)[12]) {
  static std::random_device random;
  for (auto& b : uuid) b = static_cast<unsigned char>(random());
  return "";
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

std::string addressText(unsigned int address) {
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
         std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::string setField(DeviceConfig& config, const std::string& field, const std::string& text) {
  long number = 0;
  if (field == "address") {
    in_addr parsed{};
    if (inet_pton(AF_INET, text.c_str(), &parsed) != 1) return "must be an IPv4 address";
    config.address = ntohl(parsed.s_addr);
  } else if (field == "uuid" || field == "owner") {
    if (!parseUuid(text, field == "uuid" ? config.uuid : config.owner))
      return "needs 24 hex digits";
  } else if (field == "name") {
    if (text.size() > 30) return "is longer than 30 characters";
    config.name = text;
  } else if (field == "software-version") {
    if (text.size() > 20) return "is longer than 20 characters";
    config.softwareVersion = text;
  } else if (field == "service") {
    return addService(config, text);
  } else if (field == "http-port") {
    if (!parseNumber(text, 1, 65535, number)) return range(1, 65535);
    config.httpPort = static_cast<unsigned short>(number);
  } else if (field == "http-status") {
    if (!parseNumber(text, 100, 999, number)) return range(100, 999);
    config.httpStatus = static_cast<unsigned int>(number);
  } else if (field == "http-delay" || field == "morl-delay") {
    if (!parseNumber(text, 0, kMaxDelayMs, number))
      return range(0, kMaxDelayMs) + " (milliseconds)";
    (field == "http-delay" ? config.httpDelayMs : config.morlDelayMs) =
        static_cast<unsigned int>(number);
  } else if (field == "http-content-type") {
    config.httpContentType = text;
  } else if (field == "http-body") {
    config.httpBody = text;
    config.httpBodySet = true;
  } else {
    return "is not a field";
  }
  return "";
}

Startup configure(int argc, char** argv, std::ostream& out, std::ostream& err) {
  po::options_description options(
      "varnock-device: a simulated device that answers MORL requests on UDP port 4792,\n"
      "serves GET /api/v1/info over HTTP and announces that service by mDNS. With --site,\n"
      "one process is every device of a site file, each on its own address. Runs until\n"
      "SIGINT or SIGTERM, then exits with status 0. Prints \"ready\" once every socket is\n"
      "bound, \"whistle from UUID\" for each whistle request and \"tamed by UUID\" for each\n"
      "tame request it accepts (UUIDs as 24 hex digits; a site's devices put \"ADDRESS: \"\n"
      "first). Run it only inside a network namespace of the simulated LAN.\n\n"
      "Options");
  const char* const valueFields[] = {
      "address",           "uuid",      "name",        "software-version", "owner",     "http-port",
      "http-content-type", "http-body", "http-status", "http-delay",       "morl-delay"};
  std::vector<std::string> services;
  std::string site;
  std::string serviceHelp =
      "a supported service TYPE:VALUE (type 0-255, value 0-65535); repeat for up to 10, "
      "announced in the given order (default: 2:1). Device type names:";
  for (unsigned char type = 0; deviceTypeName(type) != deviceTypeName(255); ++type)
    serviceHelp += " " + std::to_string(type) + " " + deviceTypeName(type) + ",";
  serviceHelp +=
      " other " + deviceTypeName(255) + "; the info server reports the type of the last service";
  // clang-format off
  options.add_options()
    ("help,h", "print this help and exit")
    ("version", "print the version and exit")
    ("site", po::value<std::string>(&site),
     "run every device of this JSON site file (see varnock-device(1)); no other device option")
    ("address", po::value<std::string>(),
     "IPv4 address of this host that the device binds (default: all; mDNS names the first)")
    ("uuid", po::value<std::string>(), "device UUID, 24 hex digits (default: random)")
    ("name", po::value<std::string>(), "device name, at most 30 characters (default: varnock-device)")
    ("software-version", po::value<std::string>(),
     "software version, at most 20 characters (default: 1.0.0)")
    ("service", po::value<std::vector<std::string>>(&services), serviceHelp.c_str())
    ("no-service", "announce no service: the device type is empty")
    ("owner", po::value<std::string>(), "owner UUID, 24 hex digits (default: all zero)")
    ("no-unicast", "do not offer unicast replies (header flag 0x04 clear)")
    ("refuse-tame", "refuse tame requests (default: accept; the requester becomes the owner)")
    ("no-morl", "do not open the MORL socket (HTTP only)")
    ("no-http", "do not open the HTTP info server (MORL only, and no mDNS)")
    ("no-mdns", "do not announce the info server by mDNS nor answer mDNS queries")
    ("http-port", po::value<std::string>(), "TCP port of the info server, 1-65535 (default: 80)")
    ("http-content-type", po::value<std::string>(),
     "Content-Type of the info reply (default: application/json)")
    ("http-body", po::value<std::string>(), "reply body of GET /api/v1/info instead of the info JSON")
    ("http-status", po::value<std::string>(),
     "status of the reply to GET /api/v1/info, 100-999 (default: 200)")
    ("http-delay", po::value<std::string>(),
     "milliseconds to wait before each HTTP reply, 0-600000 (default: 0)")
    ("morl-delay", po::value<std::string>(),
     "milliseconds to wait before sending each MORL answer, 0-600000 (default: 0)");
  // clang-format on
  Startup startup;
  po::variables_map vm;
  // A site file's errors take one line; the command line's add where to look.
  auto fail = [&](const std::string& message, bool pointer = true) {
    err << "varnock-device: " << message << "\n" << (pointer ? kPointer : "");
    startup.status = 2;
    startup.devices.clear();
    return startup;
  };
  try {
    po::store(po::command_line_parser(argc, argv).options(options).run(), vm);
    po::notify(vm);
  } catch (const std::exception& e) {
    err << "varnock-device: " << e.what() << "\n" << kPointer;
    startup.status = 2;
    return startup;
  }
  if (vm.count("help")) {
    out << options << "\n";
    startup.status = 0;
    return startup;
  }
  if (vm.count("version")) {
    out << "varnock-device " VARNOCK_VERSION "\n";
    startup.status = 0;
    return startup;
  }
  const std::set<std::string> runOptions{"help", "version", "site"};
  if (vm.count("site")) {
    for (const auto& [name, value] : vm)
      if (!runOptions.count(name)) return fail("--site takes no other device option: --" + name);
    std::string error = loadSite(site, startup.devices);
    if (error.empty()) error = checkAddresses(site, startup.devices);
    if (!error.empty()) return fail(error, false);
    return startup;
  }
  DeviceConfig config;
  randomUuid(config.uuid);
  for (const char* field : valueFields) {
    if (!vm.count(field)) continue;
    const std::string text = vm[field].as<std::string>();
    const std::string problem = setField(config, field, text);
    if (!problem.empty()) return fail(std::string("--") + field + " " + problem + ": " + text);
  }
  if (vm.count("no-service") && !services.empty())
    return fail("--no-service and --service exclude each other");
  if (vm.count("no-service") || !services.empty()) config.services.clear();
  for (const auto& text : services) {
    const std::string problem = setField(config, "service", text);
    if (!problem.empty()) return fail("--service " + problem + ": " + text);
  }
  config.unicast = vm.count("no-unicast") == 0;
  config.acceptTame = vm.count("refuse-tame") == 0;
  config.morl = vm.count("no-morl") == 0;
  config.http = vm.count("no-http") == 0;
  config.mdns = config.http && vm.count("no-mdns") == 0;
  startup.devices.push_back(config);
  const std::string error = checkAddresses("", startup.devices);
  if (!error.empty()) return fail(error);
  return startup;
}
