#include "DaemonConfig.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <ostream>
#include <set>

namespace Daemon {

namespace {

std::string_view trim(std::string_view s) {
  std::size_t const b = s.find_first_not_of(" \t\r");
  if (b == std::string_view::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

ConfigOption const* find(std::span<ConfigOption const> options, std::string_view name) {
  for (ConfigOption const& o : options)
    if (o.name == name) return &o;
  return nullptr;
}

}  // namespace

ConfigFile configRead(std::istream& in, std::string const& file, std::span<ConfigOption const> options) {
  ConfigFile out;
  std::string raw;
  for (unsigned lineNo = 1; std::getline(in, raw); ++lineNo) {
    std::string_view const line = trim(raw);
    if (line.empty() || line[0] == '#') continue;
    std::size_t const eq = line.find('=');
    std::string_view const key = trim(line.substr(0, eq));
    bool const hasValue = eq != std::string_view::npos;
    std::string_view const value = hasValue ? trim(line.substr(eq + 1)) : std::string_view();
    auto refuse = [&](std::string const& why) {
      out.errors.push_back(file + ":" + std::to_string(lineNo) + ": " + why);
    };
    ConfigOption const* o = find(options, key);
    if (!o) {
      refuse("unknown setting '" + std::string(key) + "'");
    } else if (!o->takesValue) {
      if (!hasValue || value == "yes") {
        out.args.push_back("--" + std::string(key));
      } else if (value != "no") {
        refuse("'" + std::string(key) + "' takes yes or no, not '" + std::string(value) + "'");
      }
    } else if (value.empty()) {
      refuse("'" + std::string(key) + "' needs a value");
    } else if (o->valid && !o->valid(value)) {
      refuse("bad value '" + std::string(value) + "' for '" + std::string(key) + "'");
    } else {
      out.args.push_back("--" + std::string(key));
      out.args.emplace_back(value);
    }
  }
  return out;
}

bool configMerge(std::vector<std::string>& args, std::span<ConfigOption const> options, std::string_view program,
                 std::ostream& err) {
  std::string file;
  bool given = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] != "--config") continue;
    if (i + 1 >= args.size()) {
      err << program << ": --config needs a file\n";
      return false;
    }
    file = args[i + 1];
    given = true;
    args.erase(args.begin() + static_cast<std::ptrdiff_t>(i), args.begin() + static_cast<std::ptrdiff_t>(i) + 2);
    break;
  }
  if (!given) return true;

  std::ifstream in(file);
  if (!in) {
    err << program << ": cannot read " << file << ": " << std::strerror(errno) << "\n";
    return false;
  }
  ConfigFile const cf = configRead(in, file, options);
  if (in.bad()) {
    err << program << ": error reading " << file << "\n";
    return false;
  }
  if (!cf.errors.empty()) {
    for (std::string const& e : cf.errors) err << e << "\n";
    err << program << ": " << file << " refused\n";
    return false;
  }

  std::set<std::string_view> givenNames;
  std::set<int> givenGroups;
  for (std::string const& a : args) {
    if (a.size() < 3 || a.compare(0, 2, "--") != 0) continue;
    if (ConfigOption const* o = find(options, std::string_view(a).substr(2))) {
      givenNames.insert(o->name);
      if (o->group) givenGroups.insert(o->group);
    }
  }
  std::vector<std::string> merged;
  for (std::size_t i = 0; i < cf.args.size(); ++i) {
    ConfigOption const* o = find(options, std::string_view(cf.args[i]).substr(2));
    bool const keep = !givenNames.count(o->name) && !(o->group && givenGroups.count(o->group));
    if (keep) merged.push_back(cf.args[i]);
    if (o->takesValue) {
      ++i;
      if (keep) merged.push_back(cf.args[i]);
    }
  }
  merged.insert(merged.end(), args.begin(), args.end());
  args = std::move(merged);
  return true;
}

}  // namespace Daemon
