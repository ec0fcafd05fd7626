#include "device/SiteFile.h"

#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include <json/json.h>

namespace {

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
  if (position.rfind("* Line", 0) == 0) position = "line" + position.substr(6);
  position.replace(position.find("Column"), 6, "column");
  return position + ": " + message.substr(message.find_first_not_of(' '));
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
      return where(path, index, config) + ": " + name + " " + problem;
    };
    std::string text;
    if (kStringFields.count(name)) {
      if (!value.isString()) return bad("must be a string");
      text = value.asString();
    } else if (kNumberFields.count(name)) {
      if (!value.isInt64()) return bad("must be an integer");
      text = std::to_string(value.asInt64());
    } else if (name == "services") {
      if (!value.isArray()) return bad("must be an array of \"TYPE:VALUE\" strings");
      config.services.clear();
      for (const Json::Value& service : value) {
        if (!service.isString()) return bad("must be an array of \"TYPE:VALUE\" strings");
        const std::string problem = setField(config, "service", service.asString());
        if (!problem.empty()) return bad(problem + ": " + service.asString());
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
    if (!problem.empty()) return bad(problem + ": " + text);
  }
  return "";
}

}  // namespace

std::string loadSite(const std::string& path, std::vector<DeviceConfig>& devices) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return path + ": cannot be read";
  Json::CharReaderBuilder builder;
  builder["rejectDupKeys"] = true;
  builder["failIfExtra"] = true;
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &root, &errors)) return path + ": " + oneLine(errors);
  if (!root.isObject()) return path + ": must hold a JSON object";
  for (const std::string& name : root.getMemberNames())
    if (name != "devices" && name != "defaults") return path + ": " + name + " is not a field";
  const Json::Value& list = root["devices"];
  if (!list.isArray() || list.empty()) return path + ": devices must be a non-empty array";
  DeviceConfig defaults;
  if (root.isMember("defaults")) {
    const std::string error = apply(root["defaults"], defaults, path, -1);
    if (!error.empty()) return error;
  }
  std::random_device random;
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    DeviceConfig config = defaults;
    for (auto& b : config.uuid) b = static_cast<unsigned char>(random());
    const std::string error = apply(list[i], config, path, static_cast<int>(i));
    if (!error.empty()) return error;
    if (config.address == 0)
      return where(path, static_cast<int>(i), config) + ": address is missing";
    config.mdns = config.mdns && config.http;
    devices.push_back(config);
  }
  return "";
}

std::string checkAddresses(const std::string& path, const std::vector<DeviceConfig>& devices) {
  std::set<unsigned int> host;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) == 0) {
    for (ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next)
      if (ifa->ifa_addr && ifa->ifa_addr->sa_family == AF_INET)
        host.insert(ntohl(reinterpret_cast<sockaddr_in*>(ifa->ifa_addr)->sin_addr.s_addr));
    freeifaddrs(list);
  }
  std::map<unsigned int, size_t> seen;
  for (size_t i = 0; i < devices.size(); ++i) {
    const unsigned int address = devices[i].address;
    if (address == 0) continue;
    const std::string text = addressText(address);
    if (!host.count(address))
      return path.empty() ? "--address is not an address of this host: " + text
                          : where(path, static_cast<int>(i), devices[i]) +
                                ": address is not an address of this host";
    auto [first, added] = seen.emplace(address, i);
    if (!added)
      return where(path, static_cast<int>(i), devices[i]) + ": address is that of devices[" +
             std::to_string(first->second) + "] too";
  }
  return "";
}
