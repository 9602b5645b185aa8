// Daemon::configMerge: the configuration file both daemons read with
// --config FILE. One setting per line, named like the program's long option
// without its dashes:
//
//   # /etc/mroute/agent.conf
//   intf = Ethernet1,Ethernet2
//   drop-entry-max = 4096
//   ipv4                       # a switch: bare, or "= yes" / "= no"
//
// Blank lines and lines starting with '#' are skipped; a value is the rest
// of the line, trimmed. The file's settings go before the command line's
// arguments, and any setting the command line gives itself (or another of
// its group, such as ipv4 and ipv6) is left out, so the command line
// always wins. A line naming no option, a switch given a value other than
// yes or no, an option without its value or a value its check refuses
// makes the whole file refused, each bad line as "<file>:<line>: <why>".
#pragma once

#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Daemon {

struct ConfigOption {
  std::string_view name;  // the long option without "--"
  bool takesValue = true;
  // Options of one group (non-zero) replace each other: given on the
  // command line, one of them leaves out every one of the file's.
  int group = 0;
  // The value's shape; none: any non-empty text.
  std::function<bool(std::string_view)> valid = {};
};

struct ConfigFile {
  std::vector<std::string> args;    // "--name" [value], in the file's order
  std::vector<std::string> errors;  // "<file>:<line>: <why>"
};

ConfigFile configRead(std::istream& in, std::string const& file, std::span<ConfigOption const> options);

// Takes "--config FILE" out of args (the arguments after the program name
// and its command) and puts the file's settings before the rest. False,
// with the reasons on err, when the file cannot be read or has bad lines,
// or --config has no file.
bool configMerge(std::vector<std::string>& args, std::span<ConfigOption const> options, std::string_view program,
                 std::ostream& err);

}  // namespace Daemon
