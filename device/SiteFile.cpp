#include "device/SiteFile.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include <json/json.h>

namespace {

/// JSON values nest this deep at most; a site file needs five.
constexpr int kMaxDepth = 16;
/// What a message shows of the path and of jsoncpp's text, so that the line
/// stays within about 200 characters.
constexpr std::size_t kPathWidth = 48, kTextWidth = 80;

const std::set<std::string> kStringFields{
    "address", "uuid", "owner", "name", "software-version", "http-body", "http-content-type"};
const std::set<std::string> kNumberFields{"http-port", "http-status", "http-delay", "morl-delay"};

/// "FILE: devices[N] (ADDRESS)" or "FILE: defaults".
std::string where(const std::string& path, int index, const DeviceConfig& config) {
  if (index < 0) return path + ": defaults";
  std::string text = path + ": devices[" + std::to_string(index) + "]";
  if (config.address != 0) text += " (" + addressText(config.address) + ")";
  return text;
}

// jsoncpp's "* Line 3, Column 5\n  Missing ..." as "line 3, column 5: Missing ...".
std::string oneLine(const std::string& messages) {
  std::istringstream in(messages);
  std::string position, message;
  std::getline(in, position);
  std::getline(in, message);
  if (position.rfind("* Line ", 0) == 0) position = "line " + position.substr(7);
  const size_t column = position.find("Column");
  if (column != std::string::npos) position[column] = 'c';
  return position + ": " +
         shown(message.substr(std::min(message.find_first_not_of(' '), message.size())),
               kTextWidth);
}

// Applies the members of one device object (or of "defaults"); the address
// first, so that every later message can name it.
std::string apply(const Json::Value& object, DeviceConfig& config, const std::string& path,
                  int index) {
  if (!object.isObject()) return where(path, index, config) + " must be an object";
  std::vector<std::string> names = object.getMemberNames();
  std::stable_partition(names.begin(), names.end(),
                        [](const std::string& name) { return name == "address"; });
  for (const std::string& name : names) {
    const Json::Value& value = object[name];
    auto bad = [&](const std::string& problem) {
      return where(path, index, config) + ": " + shown(name) + " " + problem;
    };
    std::string text;
    if (kStringFields.count(name)) {
      if (!value.isString()) return bad("must be a string");
      text = value.asString();
    } else if (kNumberFields.count(name)) {
      // Not isInt64(): that holds for 80.0 too.
      if (value.type() != Json::intValue && value.type() != Json::uintValue)
        return bad("must be an integer");
      text = value.isInt64() ? std::to_string(value.asInt64()) : std::to_string(value.asUInt64());
    } else if (name == "services") {
      if (!value.isArray()) return bad("must be an array of \"TYPE:VALUE\" strings");
      config.services.clear();
      for (const Json::Value& service : value) {
        if (!service.isString()) return bad("must be an array of \"TYPE:VALUE\" strings");
        const std::string problem = setField(config, "service", service.asString());
        if (!problem.empty()) return bad(problem + ": " + shown(service.asString()));
      }
      continue;
    } else {
      static const std::map<std::string, bool DeviceConfig::*> flags{
          {"unicast", &DeviceConfig::unicast},
          {"accept-tame", &DeviceConfig::acceptTame},
          {"morl", &DeviceConfig::morl},
          {"http", &DeviceConfig::http},
          {"mdns", &DeviceConfig::mdns}};
      auto flag = flags.find(name);
      if (flag == flags.end()) return bad("is not a field");
      if (!value.isBool()) return bad("must be true or false");
      config.*(flag->second) = value.asBool();
      continue;
    }
    const std::string problem = setField(config, name, text);
    if (!problem.empty()) return bad(problem + ": " + shown(text));
  }
  return "";
}

/// What jsoncpp's strict mode lets through: a comment after a value, and a raw
/// control character in a string. Returns "" or "line L, column C: problem".
std::string strictGaps(std::string_view text) {
  size_t line = 1, lineStart = 0;
  bool inString = false, escaped = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const char* problem = nullptr;
    if (inString && c < 0x20)
      problem = "Control character in a string.";
    else if (!inString && c == '/')
      problem = "Comments are not JSON.";
    if (problem)
      return "line " + std::to_string(line) + ", column " + std::to_string(i - lineStart + 1) +
             ": " + problem;
    if (c == '\n') {
      ++line;
      lineStart = i + 1;
    }
    if (inString && !escaped && c == '"')
      inString = false;
    else if (!inString && c == '"')
      inString = true;
    escaped = inString && !escaped && c == '\\';
  }
  return "";
}

std::string parseJson(std::string_view text, Json::Value& root) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kMaxDepth;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors = strictGaps(text);
  if (!errors.empty()) return errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors))
      return oneLine(errors);
  } catch (const Json::Exception&) {
    // jsoncpp's only way to say that the stack limit was reached.
    return "JSON values nest more than " + std::to_string(kMaxDepth) + " levels deep";
  }
  return "";
}

std::string parseDevices(const std::string& path, std::string_view text,
                         const std::set<unsigned int>& host, std::uint64_t seed,
                         std::vector<DeviceConfig>& devices) {
  Json::Value root;
  const std::string error = parseJson(text, root);
  if (!error.empty()) return path + ": " + error;
  if (!root.isObject()) return path + ": must hold a JSON object";
  for (const std::string& name : root.getMemberNames())
    if (name != "devices" && name != "defaults")
      return path + ": " + shown(name) + " is not a field";
  const Json::Value& list = root["devices"];
  if (!list.isArray() || list.empty()) return path + ": devices must be a non-empty array";
  DeviceConfig defaults;
  if (root.isMember("defaults")) {
    const std::string problem = apply(root["defaults"], defaults, path, -1);
    if (!problem.empty()) return problem;
  }
  std::mt19937_64 random(seed);
  std::map<unsigned int, Json::ArrayIndex> seen;
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    DeviceConfig config = defaults;
    for (auto& b : config.uuid) b = static_cast<unsigned char>(random());
    const int index = static_cast<int>(i);
    const std::string problem = apply(list[i], config, path, index);
    if (!problem.empty()) return problem;
    const std::string device = where(path, index, config);
    if (config.address == 0) return device + ": address is missing";
    if (!host.count(config.address)) return device + ": address is not an address of this host";
    const auto [first, added] = seen.emplace(config.address, i);
    if (!added)
      return device + ": address is that of devices[" + std::to_string(first->second) + "] too";
    config.mdns = config.mdns && config.http;
    devices.push_back(config);
  }
  return "";
}

/// Reads a regular file of at most kMaxSiteBytes from `fd` into `text`.
/// Returns "" or what is wrong, after ": ".
std::string readSite(int fd, std::string& text) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return "cannot be read: " + std::string(std::strerror(errno));
  if (S_ISDIR(status.st_mode)) return "cannot be read: " + std::string(std::strerror(EISDIR));
  if (S_ISFIFO(status.st_mode)) return "is a FIFO, not a regular file";
  if (S_ISCHR(status.st_mode)) return "is a character device, not a regular file";
  if (!S_ISREG(status.st_mode)) return "is not a regular file";
  const std::string tooBig =
      "is larger than " + std::to_string(kMaxSiteBytes) + " bytes, the most a site file may hold";
  if (static_cast<unsigned long long>(status.st_size) > kMaxSiteBytes) return tooBig;
  text.resize(kMaxSiteBytes + 1);
  size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = read(fd, &text[size], text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return "cannot be read: " + std::string(std::strerror(errno));
    if (got == 0) break;
    size += static_cast<size_t>(got);
  }
  if (size > kMaxSiteBytes) return tooBig;
  text.resize(size);
  return "";
}

}  // namespace

std::set<unsigned int> hostAddresses() {
  std::set<unsigned int> host;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return host;
  for (ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next)
    if (ifa->ifa_addr && ifa->ifa_addr->sa_family == AF_INET)
      host.insert(ntohl(reinterpret_cast<sockaddr_in*>(ifa->ifa_addr)->sin_addr.s_addr));
  freeifaddrs(list);
  return host;
}

std::string parseSite(const std::string& path, std::string_view text,
                      const std::set<unsigned int>& host, std::uint64_t seed,
                      std::vector<DeviceConfig>& devices) {
  std::string error;
  try {
    error = parseDevices(shown(path, kPathWidth), text, host, seed, devices);
  } catch (const Json::Exception& e) {
    // The types are checked before each use: a guard, not a path.
    error = shown(path, kPathWidth) + ": " + shown(e.what(), kTextWidth);
  }
  if (!error.empty()) devices.clear();
  return error;
}

std::string loadSite(const std::string& path, std::vector<DeviceConfig>& devices) {
  // Non-blocking, so that opening a FIFO does not wait for a writer.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return shown(path, kPathWidth) + ": cannot be read: " + std::strerror(errno);
  std::string text;
  const std::string error = readSite(fd, text);
  close(fd);
  if (!error.empty()) return shown(path, kPathWidth) + ": " + error;
  std::random_device random;
  return parseSite(path, text, hostAddresses(), std::uint64_t{random()} << 32 | random(), devices);
}
