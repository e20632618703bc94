#include "tools/quelmloadctl/Json.h"

#include <cstdio>

#include "tools/quelmloadctl/Reply.h"

namespace quelmctl {

namespace {

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", u);
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// Digits are numbers (ids, ports, figures); "1.0" stays a version string.
std::string value(const std::string& text) {
  const bool digits = !text.empty() && text.size() <= 18 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
  return digits ? text : quoted(text);
}

std::string statsObject(const std::string& stats) {
  std::string out = "{";
  for (const auto& [name, number] : statEntries(stats)) {
    if (out.size() > 1) out += ",";
    out += quoted(name) + ":" + value(number);
  }
  return out + "}";
}

// The child elements of body, in order, as members; connection blocks are
// collected into "connections".
std::string members(const std::string& body, bool withConnections) {
  std::string out, connections;
  size_t pos = 0;
  while (true) {
    const size_t open = body.find('<', pos);
    if (open == std::string::npos) break;
    const size_t close = body.find('>', open);
    if (close == std::string::npos) break;
    const std::string name = body.substr(open + 1, close - open - 1);
    std::string text;
    size_t next = open;
    if (name.empty() || name[0] == '/' || !findElement(body, name, text, &next)) break;
    pos = next;
    if (name == "connection") {
      connections += (connections.empty() ? "{" : ",{") + members(text, false) + "}";
      continue;
    }
    if (!out.empty()) out += ",";
    out += quoted(name) + ":" + (name == "stats" ? statsObject(text) : value(text));
  }
  if (withConnections) out += (out.empty() ? "" : ",") + std::string("\"connections\":[") + connections + "]";
  return out;
}

std::string raw(const std::string& text) { return "{\"raw\":" + quoted(text) + "}"; }

}  // namespace

std::string replyJson(const std::string& doc) {
  const std::string type = replyType(doc);
  const size_t start = doc.find('>', doc.find("<znalbreply"));
  const size_t end = doc.rfind("</znalbreply>");
  if (type.empty() || start == std::string::npos || end == std::string::npos || end < start) {
    return raw(doc);
  }
  const std::string rest = members(doc.substr(start + 1, end - start - 1), type == "get");
  return "{\"type\":" + quoted(type) + (rest.empty() ? "" : "," + rest) + "}";
}

std::string packetJson(const std::string& packet) {
  std::string data;
  if (!findElement(packet, "znalbdata", data)) return raw(packet);
  return "{" + members(data, false) + "}";
}

}  // namespace quelmctl
