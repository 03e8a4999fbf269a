#include "Args.h"

namespace zulog {

bool ParsedArgs::has(const std::string& name) const {
  for (const auto& o : options)
    if (o.first == name) return true;
  return false;
}

std::vector<std::string> ParsedArgs::values(const std::string& name) const {
  std::vector<std::string> out;
  for (const auto& o : options)
    if (o.first == name) out.push_back(o.second);
  return out;
}

ParsedArgs parseArgs(const std::vector<std::string>& args, const std::vector<OptionInfo>& options) {
  ParsedArgs out;
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (optionsEnded || a.size() < 2 || a.compare(0, 2, "--") != 0) {
      if (!optionsEnded && a.size() > 1 && a[0] == '-') {
        out.error = "unknown option " + a;
        return out;
      }
      out.operands.push_back(a);
      continue;
    }
    if (a == "--") {
      optionsEnded = true;
      continue;
    }
    const size_t eq = a.find('=');
    const std::string name = a.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    const OptionInfo* known = nullptr;
    for (const OptionInfo& s : options)
      if (name == s.name) known = &s;
    if (known == nullptr) {
      out.error = "unknown option --" + name;
      return out;
    }
    if (!known->takesValue) {
      if (eq != std::string::npos) {
        out.error = "--" + name + " takes no value";
        return out;
      }
      out.options.emplace_back(name, "");
      continue;
    }
    if (eq != std::string::npos) {
      out.options.emplace_back(name, a.substr(eq + 1));
    } else if (i + 1 < args.size()) {
      out.options.emplace_back(name, args[++i]);
    } else {
      out.error = "--" + name + " needs a value";
      return out;
    }
  }
  return out;
}

}  // namespace zulog
