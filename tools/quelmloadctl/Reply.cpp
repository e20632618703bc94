#include "tools/quelmloadctl/Reply.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <sstream>

namespace quelmctl {

namespace {

const std::string kReplyStart = "<znalbreply type=\"";
const std::string kErrorPrefix = "get /";

// Left-aligned columns two spaces apart; the last column is not padded.
class Table {
 public:
  void addRow(std::vector<std::string> row) {
    if (widths_.size() < row.size()) widths_.resize(row.size(), 0);
    for (size_t i = 0; i < row.size(); ++i) widths_[i] = std::max(widths_[i], row[i].size());
    rows_.push_back(std::move(row));
  }

  void print(std::ostream& out, const std::string& indent) const {
    for (const auto& row : rows_) {
      out << indent;
      for (size_t i = 0; i < row.size(); ++i) {
        out << row[i];
        if (i + 1 < row.size()) out << std::string(widths_[i] - row[i].size() + 2, ' ');
      }
      out << "\n";
    }
  }

 private:
  std::vector<std::vector<std::string>> rows_;
  std::vector<size_t> widths_;
};

std::string joinedStats(const std::string& stats) {
  std::string text;
  for (const auto& [name, value] : statEntries(stats)) {
    if (!text.empty()) text += " ";
    text += name + "=" + value;
  }
  return text.empty() ? "-" : text;
}

// A stat entry of the probe's own load with its meaning and unit.
std::pair<std::string, std::string> describeStat(const std::string& name,
                                                 const std::string& value) {
  if (name == "cpu") return {"Idle CPU", value + " %"};
  if (name == "bogo") return {"Speed (bogo)", value};
  if (name == "vmem") return {"Free virtual memory", value + " MiB"};
  return {name, value};
}

}  // namespace

bool findElement(const std::string& doc, const std::string& name, std::string& value,
                 size_t* pos) {
  const std::string start = "<" + name + ">";
  const std::string end = "</" + name + ">";
  const size_t from = doc.find(start, pos != nullptr ? *pos : 0);
  if (from == std::string::npos) return false;
  const size_t valueStart = from + start.size();
  const size_t to = doc.find(end, valueStart);
  if (to == std::string::npos) return false;
  value = doc.substr(valueStart, to - valueStart);
  if (pos != nullptr) *pos = to + end.size();
  return true;
}

std::string elementText(const std::string& doc, const std::string& name) {
  std::string value;
  findElement(doc, name, value);
  return value;
}

std::string replyType(const std::string& doc) {
  const size_t start = doc.find(kReplyStart);
  if (start == std::string::npos) return "";
  const size_t typeStart = start + kReplyStart.size();
  const size_t typeEnd = doc.find('"', typeStart);
  if (typeEnd == std::string::npos) return "";
  return doc.substr(typeStart, typeEnd - typeStart);
}

std::string errorText(const std::string& doc) {
  std::string text = elementText(doc, "error");
  if (text.rfind(kErrorPrefix, 0) == 0) text.erase(0, kErrorPrefix.size());
  // Attribute errors each end in "; ".
  while (!text.empty() && (text.back() == ' ' || text.back() == ';')) text.pop_back();
  return text;
}

std::vector<std::pair<std::string, std::string>> statEntries(const std::string& stats) {
  std::vector<std::pair<std::string, std::string>> entries;
  std::istringstream words(stats);
  for (std::string word; words >> word;) {
    const size_t eq = word.find('=');
    if (eq == std::string::npos) {
      entries.emplace_back(word, "");
    } else {
      entries.emplace_back(word.substr(0, eq), word.substr(eq + 1));
    }
  }
  return entries;
}

std::string prettyGetReply(const std::string& doc) {
  if (replyType(doc) != "get") return "";
  // The probe's own values come before the first connection block, whose
  // elements share their names.
  const size_t firstHost = doc.find("<connection>");
  const std::string head = doc.substr(0, firstHost);

  std::ostringstream out;
  out << "Probe (reply version " << elementText(head, "version") << ")\n";
  Table settings;
  settings.addRow({"Command port", elementText(head, "port")});
  settings.addRow({"Sample rate", elementText(head, "samplerate") + " s"});
  settings.addRow({"Window size", elementText(head, "windowsize") + " samples"});
  for (const auto& [name, value] : statEntries(elementText(head, "stats"))) {
    const auto [label, text] = describeStat(name, value);
    settings.addRow({label, text});
  }
  settings.addRow({"Sampled at", elementText(head, "time")});
  settings.print(out, "  ");

  Table hosts;
  hosts.addRow({"ID", "HOST", "UDP PORT", "REPLY FREQ", "CHANGE", "SAMPLE RATE", "WINDOW",
                "STATS", "LAST UPDATE"});
  size_t pos = firstHost == std::string::npos ? doc.size() : firstHost;
  std::string block;
  size_t count = 0;
  while (findElement(doc, "connection", block, &pos)) {
    hosts.addRow({elementText(block, "id"), elementText(block, "host"),
                  elementText(block, "port"), elementText(block, "replyfrequency") + " s",
                  elementText(block, "percentchange") + " %",
                  elementText(block, "samplerate") + " s", elementText(block, "windowsize"),
                  joinedStats(elementText(block, "stats")), elementText(block, "time")});
    ++count;
  }
  out << "\n";
  if (count == 0) {
    out << "Subscribed hosts: No Updates\n";
  } else {
    out << "Subscribed hosts: " << count << "\n";
    hosts.print(out, "  ");
  }
  return out.str();
}

std::string prettyLoadPacket(const std::string& packet) {
  std::string data;
  if (!findElement(packet, "znalbdata", data)) return "";
  std::string id, seqno, stats;
  if (!findElement(data, "id", id) || !findElement(data, "seqno", seqno) ||
      !findElement(data, "stats", stats)) {
    return "";
  }
  std::ostringstream out;
  out << "id=" << id << " seqno=" << seqno;
  // The sequence number is the probe's clock in seconds.
  char when[32];
  const time_t seconds = static_cast<time_t>(std::strtoll(seqno.c_str(), nullptr, 10));
  tm utc{};
  if (gmtime_r(&seconds, &utc) != nullptr &&
      std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &utc) > 0) {
    out << " (" << when << " UTC)";
  }
  for (const auto& [name, value] : statEntries(stats)) out << " " << name << "=" << value;
  return out.str();
}

}  // namespace quelmctl
