#include "device/DeviceConfig.h"

#include <arpa/inet.h>

#include <cstdio>

#include "morl/ControllerInfo.h"
#include "qm/PrintableText.h"

namespace {

constexpr unsigned int kMaxDelayMs = 600000;

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

/// "" for printable UTF-8 text, else what is wrong with it.
std::string textProblem(const std::string& text) {
  if (text.find('\0') != std::string::npos) return "holds a NUL byte";
  if (printableText(text) == text) return "";
  for (char c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return "holds a control character";
  return "is not printable UTF-8";
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

std::string shown(const std::string& text, std::size_t width) {
  std::string out;
  size_t i = 0;
  for (; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    char hex[5];
    std::snprintf(hex, sizeof hex, "\\x%02x", c);
    const std::string piece = c >= 0x20 && c < 0x7F ? std::string(1, static_cast<char>(c)) : hex;
    if (out.size() + piece.size() > width) break;
    out += piece;
  }
  if (i < text.size()) out += "... (" + std::to_string(text.size()) + " bytes)";
  return out;
}

std::string setField(DeviceConfig& config, const std::string& field, const std::string& text) {
  if (field == "name" || field == "software-version" || field == "http-content-type") {
    const std::string problem = textProblem(text);
    if (!problem.empty()) return problem;
  }
  long number = 0;
  if (field == "address") {
    in_addr parsed{};
    if (text.find('\0') != std::string::npos || inet_pton(AF_INET, text.c_str(), &parsed) != 1)
      return "must be an IPv4 address";
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
