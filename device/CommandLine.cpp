#include "device/CommandLine.h"

#include <ostream>
#include <random>
#include <set>

#include <boost/program_options.hpp>

#include "device/SiteFile.h"
#include "morl/ControllerInfo.h"

namespace po = boost::program_options;

namespace {

const char* const kPointer = "Try 'varnock-device --help' for more information.\n";

}  // namespace

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
    const po::parsed_options parsed = po::command_line_parser(argc, argv).options(options).run();
    for (const po::option& option : parsed.options)
      if (option.position_key >= 0)
        return fail("unexpected argument '" + shown(option.original_tokens.front()) + "'");
    po::store(parsed, vm);
    po::notify(vm);
  } catch (const std::exception& e) {
    return fail(shown(e.what(), 150));
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
    const std::string error = loadSite(site, startup.devices);
    if (!error.empty()) return fail(error, false);
    return startup;
  }
  DeviceConfig config;
  std::random_device random;
  for (auto& b : config.uuid) b = static_cast<unsigned char>(random());
  for (const char* field : valueFields) {
    if (!vm.count(field)) continue;
    const std::string text = vm[field].as<std::string>();
    const std::string problem = setField(config, field, text);
    if (!problem.empty())
      return fail(std::string("--") + field + " " + problem + ": " + shown(text));
  }
  if (vm.count("no-service") && !services.empty())
    return fail("--no-service and --service exclude each other");
  if (vm.count("no-service") || !services.empty()) config.services.clear();
  for (const auto& text : services) {
    const std::string problem = setField(config, "service", text);
    if (!problem.empty()) return fail("--service " + problem + ": " + shown(text));
  }
  config.unicast = vm.count("no-unicast") == 0;
  config.acceptTame = vm.count("refuse-tame") == 0;
  config.morl = vm.count("no-morl") == 0;
  config.http = vm.count("no-http") == 0;
  config.mdns = config.http && vm.count("no-mdns") == 0;
  if (config.address != 0 && !hostAddresses().count(config.address))
    return fail("--address is not an address of this host: " + addressText(config.address));
  startup.devices.push_back(config);
  return startup;
}
