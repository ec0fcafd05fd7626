#include "app/ResultPrinter.h"

#include <json/json.h>

#include <boost/regex.hpp>
#include <iomanip>

#include "qm/PrintableText.h"

void printResult(std::ostream& out, const std::vector<Entry>& entries, bool json, bool all,
                 bool terminal) {
  const auto shown = [terminal](const std::string& text) {
    return terminal ? printableText(text) : text;
  };
  // Only the shape is tested: 999.1.1.1 passes, IPv6 text and fragments never do.
  const boost::regex filter("[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}\\.[0-9]{1,3}");
  Json::Value root;
  root["devices"] = Json::Value(Json::arrayValue);
  for (const Entry& e : entries) {
    if (!boost::regex_match(e.ip, filter)) continue;
    if (!all && (e.name.empty() || e.device_type.empty())) continue;
    if (json) {
      try {
        Json::Value device;
        device["ip"] = e.ip;
        device["name"] = e.name;
        device["version"] = e.version;
        device["device_type"] = e.device_type;
        root["devices"].append(device);
      } catch (const Json::LogicError&) {
      }
    } else {
      // The device type is deliberately not printed in text mode.
      out << std::setw(15) << e.ip << ": ";
      if (!e.name.empty())
        out << std::setw(30) << shown(e.name) << std::setw(20) << shown(e.version);
      out << "\n";
    }
  }
  if (json) {
    try {
      // The writer escapes every control character but DEL; tabs and line ends are its layout.
      const std::string text = root.toStyledString();
      out << (terminal ? printableText(text, "\t\n") : text) << "\n";
    } catch (const Json::LogicError& e) {
      out << "Json error: " << e.what() << "\n";
    }
  }
}
