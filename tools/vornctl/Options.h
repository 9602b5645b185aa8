// What every vornctl command shares: reading its command line (options that
// take a value, flags, positional arguments) and naming regions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace Vorn {
class Region;
struct TableGeometry;
}  // namespace Vorn

namespace Vornctl {

// A malformed command line: main prints the text and exits with status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The value of `--name VALUE` in args, or nullptr when the option is absent.
std::string const* optionValue(std::vector<std::string> const& args, std::string const& name);
// A count option: a whole number of at least 0, written in decimal.
std::size_t countOption(std::vector<std::string> const& args, std::string const& name, std::size_t absent);
// A duration option in seconds: a finite decimal number of at least 0.
double secondsOption(std::vector<std::string> const& args, std::string const& name, double absent);
bool hasFlag(std::vector<std::string> const& args, std::string const& flag);

// The arguments that are not options. `options` take a value, `flags` do
// not; any other "--..." is a usage error.
std::vector<std::string> positional(std::vector<std::string> const& args, std::initializer_list<char const*> options,
                                    std::initializer_list<char const*> flags = {"--json"});

// A name that starts with '/' or ends in ".vorn" is a file's path (a missing
// one is reported as missing, not looked up again as a URL); anything else
// is a URL under the root.
std::string pathOf(std::string const& root, std::string const& region);

// Seconds since the epoch as "2026-11-24T04:27:11Z", the form both tools print.
std::string utcText(std::uint64_t seconds);

// Records in use, as far as the table's capacity (a damaged count is capped).
std::uint32_t tableSize(Vorn::TableGeometry const& g);

}  // namespace Vornctl
