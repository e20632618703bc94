#include "measure/Pressure.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

const char* PressureFigures::name(int resource) {
  static const char* const names[kResources] = {"cpu", "memory", "io"};
  return names[resource];
}

void Pressure::parse(const std::string& text, PressureLine& some, PressureLine& full) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string kind, word;
    words >> kind;
    PressureLine* target = kind == "some" ? &some : kind == "full" ? &full : nullptr;
    if (target == nullptr) continue;
    PressureLine parsed;
    bool avg = false, total = false;
    while (words >> word) {
      if (word.rfind("avg10=", 0) == 0) {
        parsed.avg10 = std::strtod(word.c_str() + 6, nullptr);
        avg = true;
      } else if (word.rfind("total=", 0) == 0) {
        parsed.totalUs = std::strtoull(word.c_str() + 6, nullptr, 10);
        total = true;
      }
    }
    parsed.present = avg && total;
    if (parsed.present) *target = parsed;
  }
}

PressureFigures Pressure::read() const {
  PressureFigures figures;
  for (int r = 0; r < PressureFigures::kResources; ++r) {
    const std::string file = folder + "/" + PressureFigures::name(r) + (cgroupNames ? ".pressure" : "");
    std::ifstream in(file);
    if (!in) continue;
    std::stringstream text;
    text << in.rdbuf();
    parse(text.str(), figures.some[r], figures.full[r]);
  }
  return figures;
}
