#include "host/processor_name.h"

namespace quorvel::host {
namespace {

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::string processor_name_from_cpuinfo(std::istream& cpuinfo) {
  std::string line;
  while (std::getline(cpuinfo, line)) {
    const auto colon = line.find(':');
    if (colon == std::string::npos || trimmed(line.substr(0, colon)) != "model name") continue;
    const std::string name = trimmed(line.substr(colon + 1));
    if (!name.empty()) return name;
  }
  return "unknown";
}

}  // namespace quorvel::host
