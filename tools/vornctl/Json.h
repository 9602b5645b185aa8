// vornctl's machine-readable output: `--json` on list, show, dump and dir
// prints one JSON document instead of the text view, for operators' scripts.
// Strings are escaped per RFC 8259; numbers are unsigned integers.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/ValuePlain.h"
#include "Kiv/ValueText.h"
#include "Schema/Mfib/Route.h"

namespace Vorn {
class TableBase;
}  // namespace Vorn

namespace Vornctl {

using Kiv::jsonString;

// How an MFIB route names an outgoing-interface index: its interface's name,
// or the index where nothing maps it.
using OifNamer = std::function<Kiv::Plain(Vorn::Multicast::Fib::OifIndex)>;
using PlainRecord = std::function<void(Kiv::Plain const&)>;

// The first `limit` records of t in key order, each in its plain form (an
// object of typed fields; an MFIB route's outgoing interfaces through oif),
// when t is a table whose types this tool knows (MFIB routes and interface
// indices, bit mapper records, the MFIB directory); false otherwise.
bool plainRecords(Vorn::TableBase const& t, std::size_t limit, OifNamer const& oif, PlainRecord const& fn);

// vornctl dump --json: {"url", "type", "table", "records": [...]}, each
// record as plainRecords gives it, or {"key", "record"} as printed for a
// table of another type.
void dumpJson(std::string const& url, std::string const& type, Vorn::TableBase const& t, std::size_t limit,
              OifNamer const& oif);

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
