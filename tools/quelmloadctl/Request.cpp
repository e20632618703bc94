#include "tools/quelmloadctl/Request.h"

namespace quelmctl {

namespace {

const char kVersion[] = "1.0";

std::string element(const std::string& name, const std::string& value) {
  return "<" + name + ">" + value + "</" + name + ">";
}

std::string element(const std::string& name, uint32_t value) {
  return element(name, std::to_string(value));
}

std::string request(const std::string& type, const std::string& children) {
  return "<znalbreq type=\"" + type + "\">" + children + element("version", kVersion) +
         "</znalbreq>";
}

}  // namespace

std::string buildRequest(const Options& o) {
  std::string text;
  switch (o.command) {
    case Command::Get:
      text = "GET /?get&znalbinfo";
      break;
    case Command::Create: {
      std::string children = element("host", o.subscriberHost) +
                             element("port", o.subscriberPort) +
                             element("samplerate", o.sampleRateMs) +
                             element("windowsize", o.windowSize) +
                             element("replyfreq", o.replyFreqMs) +
                             element("percentchange", o.percentChange);
      for (const std::string& stat : o.stats) children += element("stat", stat);
      text = request("create", children + element("id", o.id));
      break;
    }
    case Command::Kill:
      text = request("kill", element("id", o.id));
      break;
    case Command::Admin:
      text = request("admin", element("port", o.adminPort) + element("samplerate", o.sampleRateMs) +
                                  element("windowsize", o.windowSize));
      break;
    default:
      break;
  }
  if (text.size() > kMaxRequestSize) {
    throw UsageError("the request would be " + std::to_string(text.size()) +
                     " bytes; the probe accepts at most " + std::to_string(kMaxRequestSize) +
                     " (use a shorter host name or fewer stats)");
  }
  return text;
}

}  // namespace quelmctl
