#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

// The tsharks the MORL dissector is checked with, and what they show.

/// Each tshark as its name and the command that runs it with the source tree's dissector: Debian
/// 12's here (Lua 5.2), and Debian 13's (4.4, Lua 5.4) as nobody in the root that
/// VARNOCK_TSHARK44_ROOT names (scripts/test.sh makes it), where `dir`, the folder of the
/// captures, is bound. Without that root the 4.4 run is left out, which fails under CI.
inline std::vector<std::pair<std::string, std::vector<std::string>>> tsharks(
    const std::string& dir) {
  const std::vector<std::string> dissector = {
      "-X", "lua_script:" VARNOCK_SOURCE_DIR "/wireshark/morl.lua"};
  std::vector<std::pair<std::string, std::vector<std::string>>> all = {{"tshark 4.0", {"tshark"}}};
  if (const char* root = std::getenv("VARNOCK_TSHARK44_ROOT")) {
    all.push_back({"tshark 4.4",
                   {"bash", VARNOCK_SOURCE_DIR "/scripts/debian-root.sh", "--run", root, "--user",
                    "--bind", VARNOCK_SOURCE_DIR, "--bind", dir, "tshark"}});
  } else if (std::getenv("CI")) {
    ADD_FAILURE() << "VARNOCK_TSHARK44_ROOT is not set: the tshark 4.4 checks cannot run";
  } else {
    std::cerr << "tshark 4.4 not checked: VARNOCK_TSHARK44_ROOT is not set\n";
  }
  for (auto& t : all) t.second.insert(t.second.end(), dissector.begin(), dissector.end());
  return all;
}

/// tshark's standard error without its notes that it runs as root and which dissector is used.
inline std::string tsharkErrors(const std::string& err) {
  static const std::regex notes("(Running as user|morl.lua: MORL decoded by).*\n");
  return std::regex_replace(err, notes, "");
}

/// The MORL part of each packet of tshark's PDML: a line per item of the MORL tree and its items
/// after it, each as "name=shown" (or its label) and "@offset+size" for an item of bytes; expert
/// items by their name.
inline std::string morlTrees(const std::string& pdml) {
  static const std::regex item(
      R"re(^( *)<(?:field|proto) name="([^"]*)"(?: showname="([^"]*)")?( hide="yes")? size="(\d+)" pos="(\d+)"(?: show="([^"]*)")?)re");
  std::istringstream in(pdml);
  std::string out;
  std::size_t depth = std::string::npos;
  int start = 0;
  for (std::string line; std::getline(in, line);) {
    std::smatch m;
    if (line.find("<proto name=\"morl\"") != std::string::npos &&
        std::regex_search(line, m, item)) {
      depth = line.find('<');
      start = std::stoi(m[6]);
      out += "MORL";
    } else if (line.find("</proto>") != std::string::npos && line.find('<') == depth) {
      depth = std::string::npos;
      out += "\n";
    } else if (depth != std::string::npos && std::regex_search(line, m, item) && m[4] == "" &&
               m[2] != "_ws.expert" && m[2].str().rfind("_ws.expert.", 0) != 0) {
      std::string text = m[2] == "_ws.lua.text" ? m[3].str() : m[2].str();
      // PDML writes booleans as 1 and 0 before 4.4, as True and False since.
      const std::string shown = m[7] == "True" ? "1" : m[7] == "False" ? "0" : m[7].str();
      if (!shown.empty()) text += "=" + shown;
      if (m[5] != "0") text += " @" + std::to_string(std::stoi(m[6]) - start) + "+" + m[5].str();
      out += (m[1].length() - depth == 2 ? "\n  " : ", ") + text;
    }
  }
  return out;
}
