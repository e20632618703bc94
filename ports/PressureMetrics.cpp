#include "ports/PressureMetrics.h"

#include <charconv>

namespace {

std::string number(double value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

void family(std::string& out, const std::string& name, const char* type, const std::string& help,
            double value) {
  out += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n" + name + " " +
         number(value) + "\n";
}

}  // namespace

std::string pressureMetrics(const PressureFigures& f) {
  std::string out;
  for (int r = 0; r < PressureFigures::kResources; ++r) {
    const std::string resource = PressureFigures::name(r);
    const std::string base = "quelmloadprobe_pressure_" + resource;
    const PressureLine* lines[2] = {&f.some[r], &f.full[r]};
    const char* const kinds[2] = {"waiting", "stalled"};
    const char* const whos[2] = {"some tasks waited", "all non-idle tasks stalled"};
    for (int k = 0; k < 2; ++k) {
      if (!lines[k]->present) continue;
      family(out, base + "_" + kinds[k] + "_seconds_total", "counter",
             std::string("Total time in seconds ") + whos[k] + " for " + resource + ".",
             static_cast<double>(lines[k]->totalUs) / 1e6);
      family(out, base + "_" + kinds[k] + "_ratio", "gauge",
             std::string("Share of the last 10 seconds ") + whos[k] + " for " + resource + ", 0 to 1.",
             lines[k]->avg10 / 100.0);
    }
  }
  return out;
}
