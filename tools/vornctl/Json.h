// vornctl's machine-readable output: `--json` on list, show, dump and dir
// prints one JSON document instead of the text view, for operators' scripts.
// Strings are escaped per RFC 8259; numbers are unsigned integers.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/ValueText.h"

namespace Vornctl {

using Kiv::jsonString;

// Runs the JSON form of command `name` when args ask for it ("--json");
// nothing when they do not or the command has no JSON form.
std::optional<int> runJson(std::string_view name, std::string const& root, std::vector<std::string> const& args);

// vornctl dir [--json]: the MFIB directory (see MfibDirView.cpp).
int mfibDir(std::string const& root, std::vector<std::string> const& args);
// The bit mapper table the directory under root announces beside the MFIB
// table `mfibUrl`, or "" when none does (or the directory cannot be read).
std::string announcedBitMapperUrl(std::string const& root, std::string const& mfibUrl);
extern char const* const mfibDirHelp;

}  // namespace Vornctl
