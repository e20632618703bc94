#include "ports/MetricsPage.h"

#include <sys/resource.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>

#include "agent/Counters.h"
#include "agent/Globals.h"
#include "agent/Settings.h"
#include "command/ConnectionServer.h"
#include "hosts/HostListMgr.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/LoadSampler.h"
#include "ports/AgentCheck.h"
#include "ports/PressureMetrics.h"

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

// Writes metric families: HELP and TYPE once, then the samples.
class Exposition {
 public:
  Exposition& family(const char* name, const char* type, const char* help) {
    out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
    return *this;
  }
  Exposition& sample(const char* name, double value, const std::string& labels = "") {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    out << name << labels << ' ' << std::string_view(text, static_cast<size_t>(end - text)) << '\n';
    return *this;
  }
  Exposition& one(const char* name, const char* type, const char* help, double value) {
    return family(name, type, help).sample(name, value);
  }
  std::string text() const { return out.str(); }

 private:
  std::ostringstream out;
};

// What /proc says of this process; zeros where it cannot be read.
struct ProcessFigures {
  double cpuSeconds = 0, startTime = 0, residentBytes = 0, virtualBytes = 0;
  double openFds = 0, maxFds = 0;
};

ProcessFigures readProcess() {
  ProcessFigures p;
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  std::ifstream statFile("/proc/self/stat");
  std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
  // The fields after the command name, which may hold spaces: state is field 3.
  const size_t close = stat.rfind(')');
  if (close != std::string::npos && ticks > 0) {
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    double value[24] = {};
    for (int n = 3; n <= 24 && fields >> field; ++n) {
      if (n >= 14) value[n - 1] = std::strtod(field.c_str(), nullptr);
    }
    p.cpuSeconds = (value[13] + value[14]) / ticks;  // utime, stime
    p.virtualBytes = value[22];
    p.residentBytes = value[23] * static_cast<double>(sysconf(_SC_PAGESIZE));
    std::ifstream systemStat("/proc/stat");
    for (std::string key; systemStat >> key;) {
      double bootTime = 0;
      if (key == "btime" && systemStat >> bootTime) p.startTime = bootTime + value[21] / ticks;
    }
  }
  const long openFds = ConnectionServer::openDescriptors();
  if (openFds >= 0) p.openFds = static_cast<double>(openFds);
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) p.maxFds = static_cast<double>(limit.rlim_cur);
  return p;
}

std::string label(const char* name, const char* value) {
  return std::string("{") + name + "=\"" + value + "\"}";
}

std::string response(const char* status, const char* extraHeaders, const std::string& body,
                     bool withBody, const char* type = "text/plain; charset=utf-8") {
  std::string head = std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
                     "\r\nContent-Length: " + std::to_string(body.size()) +
                     "\r\nConnection: close\r\n" + extraHeaders + "\r\n";
  return withBody ? head + body : head;
}

// What alerts and dashboards key on: the build, the tool's runs and bad
// ends, the agent check's verdict and the limits the figures are held to.
void operatorFigures(Exposition& e, const Settings& settings, const StatsPacket* average) {
  e.family("quelmloadprobe_build_info", "gauge", "The probe's version; always 1.")
      .sample("quelmloadprobe_build_info", 1, label("version", QUELM_VERSION));
  const ProbeCounters& c = probeCounters;
  e.one("quelmloadprobe_tool_runs_total", "counter", "Starts of the measuring tool.",
        static_cast<double>(c.toolRuns));
  e.family("quelmloadprobe_tool_restarts_total", "counter",
           "Runs of the measuring tool that ended badly and were started again, by why.");
  const char* const reasons[ProbeCounters::ToolEnds] = {"stall", "start", "filter", "early"};
  for (int r = 0; r < ProbeCounters::ToolEnds; ++r) {
    e.sample("quelmloadprobe_tool_restarts_total", static_cast<double>(c.toolBadEnds[r]),
             label("reason", reasons[r]));
  }
  e.one("quelmloadprobe_sample_interval_seconds", "gauge", "Seconds between two samples of the tool.",
        myChildManager != nullptr ? myChildManager->getSampleRate() : settings.sampleRate);
  e.one("quelmloadprobe_subscribers_limit", "gauge", "Subscribed hosts at most (0: no limit).",
        settings.maxSubscribers);
  AgentWeight::Weight weight{};
  if (AgentCheck::weightNow(average, settings, weight)) {
    e.one("quelmloadprobe_agent_weight_ratio", "gauge",
          "The weight the agent check answers, 0.01 to 1 of the configured weight.",
          weight.percent / 100.0);
    e.one("quelmloadprobe_drain", "gauge", "1 while the agent check answers drain, else 0.",
          weight.drain ? 1 : 0);
  }
}

const char kLandingPage[] =
    "<!DOCTYPE html>\n<html><head><title>quelmloadprobe</title></head>\n"
    "<body><h1>quelmloadprobe</h1><p><a href=\"/metrics\">Metrics</a></p></body></html>\n";

}  // namespace

std::string MetricsPage::page() {
  Exposition e;
  const Settings& settings = *mySettings;
  const std::unique_ptr<StatsPacket> average = probeAverage();
  e.one("quelmloadprobe_cached_samples", "gauge", "Load samples in the cache.",
        myCache != nullptr ? myCache->getNumberOfSamples() : 0);
  if (average != nullptr) {
    e.one("quelmloadprobe_cpu_idle_ratio", "gauge",
          "Idle processor time averaged over the sample window, 0 to 1.", average->idle / 100.0);
    e.one("quelmloadprobe_virtual_memory_free_bytes", "gauge",
          "Free virtual memory averaged over the sample window (whole MiB).", average->vmem * kMiB);
    e.one("quelmloadprobe_physical_memory_free_bytes", "gauge",
          "Free physical memory averaged over the sample window (whole MiB).", average->pmem * kMiB);
    e.one("quelmloadprobe_swap_in_bytes_per_second", "gauge",
          "Memory swapped in, averaged over the sample window (the tool's KiB/s).",
          average->sin * 1024.0);
    e.one("quelmloadprobe_swap_out_bytes_per_second", "gauge",
          "Memory swapped out, averaged over the sample window (the tool's KiB/s).",
          average->sout * 1024.0);
    e.one("quelmloadprobe_last_sample_timestamp_seconds", "gauge",
          "Time of the latest sample, seconds since the epoch.",
          myCache->getTimeOfLastSample().seconds + myCache->getTimeOfLastSample().microseconds / 1e6);
  }
  e.one("quelmloadprobe_virtual_memory_configured_bytes", "gauge",
        "Virtual memory the configuration declares.", settings.maxVirtualMemory * 1024.0);
  e.one("quelmloadprobe_physical_memory_configured_bytes", "gauge",
        "Physical memory the configuration declares.", settings.maxPhysMemory * 1024.0);
  if (myBogomips != nullptr) {
    e.one("quelmloadprobe_speed_bogomips", "gauge", "The processor speed figure the probe reports.",
          static_cast<double>(myBogomips->getBogomips()));
  }
  e.one("quelmloadprobe_subscribers", "gauge", "Hosts subscribed to load packets.",
        static_cast<double>(HostListMgr::getHosts().Length()));

  const ProbeCounters& c = probeCounters;
  e.one("quelmloadprobe_load_packets_sent_total", "counter", "Load packets sent.",
        static_cast<double>(c.loadPacketsSent));
  e.one("quelmloadprobe_load_packets_failed_total", "counter", "Load packets that could not be sent.",
        static_cast<double>(c.loadPacketsFailed));
  e.family("quelmloadprobe_commands_total", "counter", "Commands served on the command port, by type.");
  const char* const types[ProbeCounters::CommandTypes] = {"create", "kill", "admin", "get", "unknown"};
  for (int t = 0; t < ProbeCounters::CommandTypes; ++t) {
    e.sample("quelmloadprobe_commands_total", static_cast<double>(c.commands[t]), label("type", types[t]));
  }
  e.family("quelmloadprobe_bad_requests_total", "counter", "Requests refused for their form or size.");
  e.sample("quelmloadprobe_bad_requests_total", static_cast<double>(c.commandBadRequests),
           label("port", "command"));
  e.sample("quelmloadprobe_bad_requests_total", static_cast<double>(c.metricsBadRequests),
           label("port", "metrics"));
  e.one("quelmloadprobe_agent_checks_total", "counter", "Agent check answers given.",
        static_cast<double>(c.agentChecks));

  operatorFigures(e, settings, average.get());

  const ProcessFigures p = readProcess();
  e.one("process_cpu_seconds_total", "counter", "User and system CPU time spent in seconds.", p.cpuSeconds);
  e.one("process_start_time_seconds", "gauge", "Start time of the process since unix epoch in seconds.",
        p.startTime);
  e.one("process_open_fds", "gauge", "Number of open file descriptors.", p.openFds);
  e.one("process_max_fds", "gauge", "Maximum number of open file descriptors.", p.maxFds);
  e.one("process_resident_memory_bytes", "gauge", "Resident memory size in bytes.", p.residentBytes);
  e.one("process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.", p.virtualBytes);
  return e.text() + pressureMetrics(scopePressure());
}

ReplyListener::Service::Verdict MetricsPage::serve(const OmByteBuffer& received, OmByteBuffer& reply) {
  const std::string_view text(reinterpret_cast<const char*>(received.Data()), received.Length());
  std::string answer;
  const size_t lineEnd = text.find('\n');
  const size_t headEnd = text.find("\n\r\n") != std::string_view::npos ? text.find("\n\r\n")
                                                                        : text.find("\n\n");
  if (lineEnd != std::string_view::npos) {
    // METHOD SP TARGET SP HTTP/1.x, or nothing this port will talk to.
    std::string_view line = text.substr(0, lineEnd);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const size_t s1 = line.find(' ');
    const size_t s2 = s1 == std::string_view::npos ? s1 : line.find(' ', s1 + 1);
    const bool wellFormed = s1 != std::string_view::npos && s1 > 0 && s2 != std::string_view::npos &&
                            line.substr(s2 + 1).substr(0, 7) == "HTTP/1." && line[s1 + 1] == '/' &&
                            line.substr(0, s1).find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") ==
                                std::string_view::npos;
    if (!wellFormed) {
      ++probeCounters.metricsBadRequests;
      answer = response("400 Bad Request", "", "Bad Request\n", true);
    } else if (headEnd != std::string_view::npos &&
               headEnd + (text[headEnd + 1] == '\r' ? 3 : 2) > MAXHEAD) {
      // Over the bound however it arrived: in one read or in several.
      ++probeCounters.metricsBadRequests;
      answer = response("431 Request Header Fields Too Large", "", "Request Header Fields Too Large\n", true);
    } else if (headEnd != std::string_view::npos) {
      const std::string_view method = line.substr(0, s1);
      std::string_view target = line.substr(s1 + 1, s2 - s1 - 1);
      target = target.substr(0, target.find('?'));
      const bool head = method == "HEAD";
      if (method != "GET" && !head) {
        answer = response("405 Method Not Allowed", "Allow: GET, HEAD\r\n", "Method Not Allowed\n", true);
      } else if (target == "/") {
        answer = response("200 OK", "", kLandingPage, !head, "text/html; charset=utf-8");
      } else if (target != "/metrics") {
        answer = response("404 Not Found", "", "Not Found\n", !head);
      } else {
        answer = response("200 OK", "", page(), !head, "text/plain; version=0.0.4; charset=utf-8");
      }
    }
  }
  if (answer.empty()) {
    if (text.size() <= MAXHEAD) return Wait;
    ++probeCounters.metricsBadRequests;
    answer = response("431 Request Header Fields Too Large", "", "Request Header Fields Too Large\n", true);
  }
  reply = OmByteBuffer(answer.data(), answer.size());
  return Answer;
}
