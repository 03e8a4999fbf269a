// Command-line arguments of a subcommand: options ("--name value", "--name=value",
// flags) anywhere among the operands, "--" ending the options.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zulog {

struct OptionInfo {
  const char* name;  // without the dashes
  bool takesValue;
};

struct ParsedArgs {
  std::vector<std::pair<std::string, std::string>> options;  // in the order given
  std::vector<std::string> operands;
  std::string error;  // empty when the arguments are good

  bool has(const std::string& name) const;
  std::vector<std::string> values(const std::string& name) const;
};

ParsedArgs parseArgs(const std::vector<std::string>& args, const std::vector<OptionInfo>& options);

}  // namespace zulog
