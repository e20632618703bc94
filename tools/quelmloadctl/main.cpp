// quelmloadctl: query and drive a quelmloadprobe from the command line.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "tools/quelmloadctl/CommandClient.h"
#include "tools/quelmloadctl/Json.h"
#include "tools/quelmloadctl/LoadListener.h"
#include "tools/quelmloadctl/Options.h"
#include "tools/quelmloadctl/Reply.h"
#include "tools/quelmloadctl/Request.h"

namespace quelmctl {

namespace {

void complain(const std::string& message) { std::cerr << "quelmloadctl: " << message << std::endl; }

// Control characters shown as escapes, so one text stays one line.
std::string printable(const std::string& text, size_t limit = std::string::npos) {
  std::string out;
  for (const char c : text.substr(0, limit)) {
    const auto u = static_cast<unsigned char>(c);
    if (u == '\n') {
      out += "\\n";
    } else if (u == '\r') {
      out += "\\r";
    } else if (u < 32 || u == 127) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", u);
      out += hex;
    } else {
      out += c;
    }
  }
  if (limit < text.size()) out += "...";
  return out;
}

void printLine(const std::string& line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

int runCommand(const Options& o) {
  const std::string request = buildRequest(o);
  CommandClient client(o.host, o.port, std::chrono::milliseconds(o.timeoutMs));
  std::string reply;
  if (!client.exchange(request, reply)) {
    complain(client.error());
    return kExitNoProbe;
  }
  const std::string type = replyType(reply);
  if (o.json) {
    printLine(replyJson(reply));
  } else if (o.pretty && type == "get") {
    std::fputs(prettyGetReply(reply).c_str(), stdout);
  } else {
    printLine(reply);
  }
  if (type.empty()) {
    complain("unexpected reply from " + client.address() + ": " + printable(reply, 200));
    return kExitErrorReply;
  }
  if (type == "error") {
    complain(printable(errorText(reply)));
    return kExitErrorReply;
  }
  return kExitOk;
}

int runListen(const Options& o) {
  LoadListener listener(o.listenPort);
  if (!listener.ok()) {
    complain(listener.error());
    return kExitNoProbe;
  }
  complain("listening for load packets on UDP port " + std::to_string(listener.port()));
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(o.timeoutMs);
  uint32_t received = 0;
  std::string packet;
  while (o.count == 0 || received < o.count) {
    switch (listener.receive(packet, o.timeoutGiven ? &deadline : nullptr)) {
      case LoadListener::Result::Failed:
        complain(listener.error());
        return kExitNoProbe;
      case LoadListener::Result::Timeout:
        // Without a count, listening for a while is the whole point.
        if (o.count == 0) return kExitOk;
        complain("received " + std::to_string(received) + " of " + std::to_string(o.count) +
                 " load packets within " + std::to_string(o.timeoutMs) + " ms");
        return kExitNoProbe;
      case LoadListener::Result::Packet:
        break;
    }
    const std::string parsed = o.pretty ? prettyLoadPacket(packet) : "";
    if (o.json) {
      printLine(packetJson(packet));
    } else if (o.pretty && parsed.empty()) {
      printLine("not a load packet: " + printable(packet));
    } else {
      printLine(o.pretty ? parsed : printable(packet));
    }
    ++received;
  }
  return kExitOk;
}

}  // namespace

}  // namespace quelmctl

int main(int argc, char** argv) {
  using namespace quelmctl;
  try {
    const Options o = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    switch (o.command) {
      case Command::Help:
        std::fputs(usageText(), stdout);
        return kExitOk;
      case Command::Version:
        std::printf("quelmloadctl %s\n", QUELM_VERSION);
        return kExitOk;
      case Command::Listen:
        return runListen(o);
      default:
        return runCommand(o);
    }
  } catch (const UsageError& e) {
    std::cerr << "quelmloadctl: " << e.what() << "\n\n" << usageText();
    return kExitUsage;
  }
}
