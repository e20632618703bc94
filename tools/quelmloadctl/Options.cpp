#include "tools/quelmloadctl/Options.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>
#include <map>
#include <set>

namespace quelmctl {

namespace {

const std::map<std::string, Command> kCommands = {
    {"get", Command::Get},     {"create", Command::Create}, {"kill", Command::Kill},
    {"admin", Command::Admin}, {"listen", Command::Listen},
};

// Options each command accepts after its name. "--port" means the probe's
// port for get, create and kill, the requested port for admin and the UDP
// port for listen.
const std::map<Command, std::set<std::string>> kCommandOptions = {
    {Command::Get, {"host", "port", "timeout", "pretty", "json"}},
    {Command::Create,
     {"host", "port", "timeout", "id", "subscriber", "samplerate", "windowsize", "replyfreq",
      "percentchange", "stat", "json"}},
    {Command::Kill, {"host", "port", "timeout", "id", "json"}},
    {Command::Admin, {"host", "timeout", "samplerate", "windowsize", "port", "json"}},
    {Command::Listen, {"port", "count", "pretty", "timeout", "json"}},
};

const std::set<std::string> kGlobalOptions = {"host", "port", "timeout", "json"};
const std::set<std::string> kFlags = {"pretty", "help", "json", "version"};
const std::set<std::string> kStatNames = {"cpu", "bogo", "vmem"};

uint32_t parseNumber(const std::string& option, const std::string& text, uint32_t min,
                     uint32_t max) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const bool digits =
      !text.empty() && text.size() <= 10 && std::all_of(text.begin(), text.end(), isDigit);
  if (!digits) throw UsageError("--" + option + ": '" + text + "' is not a number");
  const uint64_t value = std::stoull(text);
  if (value < min || value > max) {
    throw UsageError("--" + option + ": " + text + " is out of range (" + std::to_string(min) +
                     "-" + std::to_string(max) + ")");
  }
  return static_cast<uint32_t>(value);
}

uint16_t parsePort(const std::string& option, const std::string& text, uint32_t min = 1) {
  return static_cast<uint16_t>(parseNumber(option, text, min, 65535));
}

// A name or dotted address the probe can resolve; anything else could
// break the request's markup.
bool isHostName(const std::string& host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '.' || c == '-' || c == '_';
  });
}

// An IPv6 address between brackets: hex digits, colons, and the dots of a
// trailing IPv4 part.
bool isIPv6Address(const std::string& host) {
  return host.find(':') != std::string::npos && std::all_of(host.begin(), host.end(), [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.';
  });
}

void parseSubscriber(const std::string& text, Options& o) {
  const size_t colon = text.rfind(':');
  std::string host = colon == std::string::npos ? "" : text.substr(0, colon);
  // "[2001:db8::5]:4444": the probe is sent the address without brackets.
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (bracketed) host = host.substr(1, host.size() - 2);
  if (bracketed ? !isIPv6Address(host) : !isHostName(host)) {
    throw UsageError("--subscriber: '" + text + "' is not HOST:UDPPORT or [IPV6]:UDPPORT");
  }
  o.subscriberHost = host;
  o.subscriberPort = parsePort("subscriber", text.substr(colon + 1));
}

void parseStats(const std::string& text, Options& o) {
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string name = text.substr(start, comma - start);
    if (kStatNames.count(name) == 0) {
      throw UsageError("--stat: '" + name + "' is not one of cpu, bogo, vmem");
    }
    if (std::find(o.stats.begin(), o.stats.end(), name) != o.stats.end()) {
      throw UsageError("--stat: '" + name + "' given twice");
    }
    o.stats.push_back(name);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
}

class Parser {
 public:
  explicit Parser(const std::vector<std::string>& args) : args_(args) {}

  Options parse() {
    Options o;
    std::set<std::string> globals;
    // Options before the command word concern the connection.
    while (pos_ < args_.size() && (isOption(args_[pos_]) || args_[pos_] == "-h")) {
      if (args_[pos_] == "-h") return o;
      const auto [name, value] = next();
      if (name == "help") return o;
      if (name == "version") {
        o.command = Command::Version;
        return o;
      }
      if (kGlobalOptions.count(name) == 0) throw UsageError("unknown option '--" + name + "'");
      applyConnection(name, value, o);
      globals.insert(name);
    }
    if (pos_ == args_.size()) throw UsageError("no command given");
    const auto found = kCommands.find(args_[pos_]);
    if (found == kCommands.end()) throw UsageError("unknown command '" + args_[pos_] + "'");
    o.command = found->second;
    ++pos_;
    if (o.command == Command::Listen && (globals.count("host") || globals.count("port"))) {
      throw UsageError("listen does not connect to a probe; give its UDP port as listen --port P");
    }

    std::set<std::string> given;
    const std::set<std::string>& allowed = kCommandOptions.at(o.command);
    while (pos_ < args_.size()) {
      if (args_[pos_] == "-h") {
        o.command = Command::Help;
        return o;
      }
      if (!isOption(args_[pos_])) throw UsageError("unexpected argument '" + args_[pos_] + "'");
      const auto [name, value] = next();
      if (name == "help") {
        o.command = Command::Help;
        return o;
      }
      if (allowed.count(name) == 0) {
        throw UsageError("unknown option '--" + name + "' for " + found->first);
      }
      applyCommand(name, value, o);
      given.insert(name);
    }
    if (o.json && o.pretty) throw UsageError("--json and --pretty exclude each other");
    checkRequired(o, given, found->first);
    return o;
  }

 private:
  static bool isOption(const std::string& arg) { return arg.size() > 2 && arg.rfind("--", 0) == 0; }

  // The next option's name and value ("--name value" or "--name=value").
  std::pair<std::string, std::string> next() {
    std::string name = args_[pos_++].substr(2);
    std::string value;
    const size_t eq = name.find('=');
    const bool inlineValue = eq != std::string::npos;
    if (inlineValue) {
      value = name.substr(eq + 1);
      name.erase(eq);
    }
    if (kFlags.count(name) != 0) {
      if (inlineValue) throw UsageError("option '--" + name + "' takes no value");
      return {name, ""};
    }
    if (!inlineValue) {
      if (pos_ == args_.size() || isOption(args_[pos_])) {
        throw UsageError("option '--" + name + "' needs a value");
      }
      value = args_[pos_++];
    }
    return {name, value};
  }

  static void applyConnection(const std::string& name, const std::string& value, Options& o) {
    if (name == "host") {
      if (value.empty()) throw UsageError("--host: empty host name");
      // "[::1]" as in URLs is "::1".
      const bool bracketed = value.size() > 2 && value.front() == '[' && value.back() == ']';
      o.host = bracketed ? value.substr(1, value.size() - 2) : value;
    } else if (name == "port") {
      o.port = parsePort(name, value);
    } else if (name == "timeout") {
      o.timeoutMs = parseNumber(name, value, 1, 86400000);
      o.timeoutGiven = true;
    } else if (name == "json") {
      o.json = true;
    }
  }

  static void applyCommand(const std::string& name, const std::string& value, Options& o) {
    const uint32_t kMax = std::numeric_limits<uint32_t>::max();
    if (name == "port" && o.command == Command::Admin) {
      o.adminPort = parsePort(name, value);
    } else if (name == "port" && o.command == Command::Listen) {
      o.listenPort = parsePort(name, value, 0);
    } else if (name == "host" || name == "port" || name == "timeout" || name == "json") {
      applyConnection(name, value, o);
    } else if (name == "pretty") {
      o.pretty = true;
    } else if (name == "id") {
      o.id = parseNumber(name, value, 0, kMax);
    } else if (name == "subscriber") {
      parseSubscriber(value, o);
    } else if (name == "samplerate") {
      o.sampleRateMs = parseNumber(name, value, 0, kMax);
    } else if (name == "windowsize") {
      o.windowSize = parseNumber(name, value, 0, kMax);
    } else if (name == "replyfreq") {
      o.replyFreqMs = parseNumber(name, value, 0, kMax);
    } else if (name == "percentchange") {
      o.percentChange = parseNumber(name, value, 0, kMax);
    } else if (name == "stat") {
      parseStats(value, o);
    } else if (name == "count") {
      o.count = parseNumber(name, value, 1, kMax);
    }
  }

  static void checkRequired(Options& o, const std::set<std::string>& given,
                            const std::string& command) {
    auto require = [&](const char* name) {
      if (given.count(name) == 0) throw UsageError(command + " needs --" + std::string(name));
    };
    switch (o.command) {
      case Command::Create:
        require("id");
        require("subscriber");
        require("stat");
        break;
      case Command::Kill:
        require("id");
        break;
      case Command::Admin:
        require("samplerate");
        require("windowsize");
        if (given.count("port") == 0) o.adminPort = o.port;
        break;
      case Command::Listen:
        require("port");
        break;
      default:
        break;
    }
  }

  const std::vector<std::string>& args_;
  size_t pos_ = 0;
};

}  // namespace

Options parseCommandLine(const std::vector<std::string>& args) { return Parser(args).parse(); }

const char* usageText() {
  return R"(Usage: quelmloadctl [--host H] [--port P] [--timeout MS] [--json] COMMAND [OPTIONS]
       quelmloadctl -h | --help | --version

Talks to a quelmloadprobe command port (default 127.0.0.1:3579), one request
per connection, and prints the reply document.

Commands:
  get [--pretty | --json]
      Show the probe's settings, load and subscribed hosts. --pretty prints
      them indented, with the hosts in a table.
  create --id N --subscriber HOST:UDPPORT|[IPV6]:UDPPORT --stat cpu[,bogo][,vmem]
         [--samplerate MS] [--windowsize N] [--replyfreq MS] [--percentchange N]
      Subscribe HOST:UDPPORT to load packets under id N. Defaults: sample rate
      5000 ms, window 3 samples, reply frequency 10000 ms, percent change 10.
  kill --id N
      Remove the subscription with id N.
  admin --samplerate MS --windowsize N [--port P2]
      Send an admin request (the probe answers "Command not implemented").
      P2 defaults to the probe's port.
  listen --port UDPPORT [--count N] [--pretty | --json]
      Receive load packets on UDP port UDPPORT (0: any free port) on all
      addresses, IPv4 and IPv6, and print one per line (--pretty: id, seqno
      and stats), until N packets arrived or --timeout ran out.

Options:
  --host H        probe's address (IPv4 or IPv6) or name (default 127.0.0.1)
  --port P        probe's command port (default 3579); after admin or listen
                  it is that command's own port
  --timeout MS    give up after MS milliseconds (default 5000; listen: none)
  --json          print each reply or load packet as one JSON object a line
  -h, --help      show this text
  --version       print the version

Exit status: 0 success, 1 the probe answered with an error, 2 no connection,
no reply or socket failure, 64 bad arguments.
)";
}

}  // namespace quelmctl
