#include "Options.h"

#include <ctime>

#include <algorithm>
#include <cstdlib>

#include "Vorn/Region.h"

namespace Vornctl {

std::string const* optionValue(std::vector<std::string> const& args, std::string const& name) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] != name) continue;
    if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
    return &args[i + 1];
  }
  return nullptr;
}

std::size_t countOption(std::vector<std::string> const& args, std::string const& name, std::size_t absent) {
  std::string const* v = optionValue(args, name);
  if (v == nullptr) return absent;
  // At most 18 digits: always fits, never wraps.
  bool ok = !v->empty() && v->size() <= 18;
  for (char c : *v) ok = ok && c >= '0' && c <= '9';
  if (!ok) throw UsageError(name + " takes a whole number of 0 or more, not '" + *v + "'");
  return std::stoull(*v);
}

double secondsOption(std::vector<std::string> const& args, std::string const& name, double absent) {
  std::string const* v = optionValue(args, name);
  if (v == nullptr) return absent;
  char* end = nullptr;
  double const d = v->empty() ? -1 : std::strtod(v->c_str(), &end);
  if (v->empty() || *end != '\0' || !(d >= 0) || d > 1e9)
    throw UsageError(name + " takes a number of seconds of 0 or more, not '" + *v + "'");
  return d;
}

bool hasFlag(std::vector<std::string> const& args, std::string const& flag) {
  return std::find(args.begin(), args.end(), flag) != args.end();
}

std::vector<std::string> positional(std::vector<std::string> const& args, std::initializer_list<char const*> options,
                                    std::initializer_list<char const*> flags) {
  auto among = [](std::string const& a, std::initializer_list<char const*> names) {
    return std::find_if(names.begin(), names.end(), [&](char const* n) { return a == n; }) != names.end();
  };
  std::vector<std::string> out;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i].rfind("--", 0) != 0) {
      out.push_back(args[i]);
    } else if (among(args[i], options)) {
      if (i + 1 >= args.size()) throw UsageError(args[i] + " needs a value");
      ++i;
    } else if (!among(args[i], flags)) {
      throw UsageError("unknown option " + args[i]);
    }
  }
  return out;
}

std::string pathOf(std::string const& root, std::string const& region) {
  if (region.find('/') == 0 || (region.size() > 5 && region.compare(region.size() - 5, 5, ".vorn") == 0)) return region;
  return root + "/" + Vorn::fileNameOfUrl(region);
}

std::string utcText(std::uint64_t seconds) {
  std::time_t const t = static_cast<std::time_t>(seconds);
  std::tm parts{};
  gmtime_r(&t, &parts);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return buf;
}

std::uint32_t tableSize(Vorn::TableGeometry const& g) {
  return std::min(g.control->size.load(std::memory_order_relaxed), g.capacity());
}

}  // namespace Vornctl
