// vornctl: looks into the shared tables under a root directory.
//
//   vornctl list                          regions, their type, tables and writer
//   vornctl show mfib/default/pim         one region's header and tables
//   vornctl dump mfib/default/pim route   records in key order
//   vornctl watch mfib/default/pim        changes as the writer makes them
//
// A region is named by its URL (under --root, default $VORN_ROOT, else
// /run/vorn for root and $XDG_RUNTIME_DIR/vorn for others) or by the path of
// its file. MFIB routes print in their plain form, other records through
// the operator<< of the schema types linked into this tool, and with --json
// as objects of typed fields; a type it does not know is dumped as raw
// bytes.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Json.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "MrouteVersion.h"
#include "Options.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Schema/Mfib/RoutePlain.h"
#include "Vorn/Region.h"
#include "Vorn/Registry.h"
#include "Vorn/Table.h"
#include "Vorn/TestSchema.h"

namespace {

using namespace Vornctl;

char const* const kUsage =
    "usage: vornctl [--root DIR] <command> [arguments]\n"
    "       vornctl --version\n"
    "\n"
    "commands:\n"
    "  list                      the regions under the root\n"
    "  show <region>             one region's header, tables, sizes and writer\n"
    "  dump <region> <table>     a table's records in key order\n"
    "  watch <region>            changes as they happen\n"
    "  types                     the status types this tool can print\n"
    "  dir                       the MFIB directory: applications, VRFs, table URLs\n"
    "\n"
    "list, show, dump and dir print JSON with --json.\n"
    "\n"
    "A region is a URL under the root (default $VORN_ROOT, else /run/vorn for root\n"
    "and $XDG_RUNTIME_DIR/vorn for other users) or the path of a .vorn file.\n"
    "'vornctl <command> --help' says more.\n";

struct Command {
  char const* name;
  char const* help;
  int (*run)(std::string const& root, std::vector<std::string> const& args);
};

bool wantsHelp(std::vector<std::string> const& args) {
  return std::find_if(args.begin(), args.end(), [](std::string const& a) { return a == "--help" || a == "-h"; }) !=
         args.end();
}

std::string writerText(Vorn::Region const& r) {
  std::uint32_t const pid = r.writerPid();
  if (pid == 0) return "none";
  return std::to_string(pid) + (r.writerAlive() ? " (running)" : " (gone)");
}

int list(std::string const& root, std::vector<std::string> const&) {
  DIR* d = opendir(root.c_str());
  if (d == nullptr) {
    std::cerr << "vornctl: cannot open " << root << ": " << std::strerror(errno) << "\n";
    return 1;
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(d))
    if (!Vorn::urlOfFileName(e->d_name).empty()) names.push_back(e->d_name);
  closedir(d);
  std::sort(names.begin(), names.end());
  for (std::string const& name : names) {
    std::cout << Vorn::urlOfFileName(name);
    try {
      auto r = Vorn::Region::inspectorIs(root + "/" + name);
      std::cout << "  " << r->typeName() << "  writer " << writerText(*r) << "  tables";
      for (std::uint32_t i = 0; i < r->tables(); ++i)
        std::cout << " " << r->table(i).name << " " << tableSize(r->table(i)) << "/" << r->table(i).capacity();
      std::cout << "\n";
    } catch (Kiv::Exception const& e) {
      std::cout << "  unreadable: " << e.what() << "\n";
    }
  }
  return 0;
}

int show(std::string const& root, std::vector<std::string> const& args) {
  std::vector<std::string> const pos = positional(args, {}, {});
  if (pos.size() != 1) throw UsageError("show takes one region");
  auto r = Vorn::Region::inspectorIs(pathOf(root, pos[0]));
  Vorn::Layout::Header const* h = r->header();
  std::uint64_t const armed = h->armed.load();
  std::cout << "file         " << r->path() << "\n"
            << "type         " << r->typeName() << "\n"
            << "layout       version " << h->version << ", " << r->fileSize() << " bytes\n"
            << "created      " << utcText(h->createdTime) << "\n"
            << "writer       " << writerText(*r) << ", epoch " << h->writerEpoch.load() << "\n"
            << "change log   " << h->logHead.load() << " changes, " << r->logCapacity() << " kept\n"
            << "readers      " << r->liveReaders() << " following, " << __builtin_popcountll(armed) << " waiting\n";
  std::cout << "tables\n";
  // Counts live in the file and may hold anything: print only what is
  // possible, and say what is not.
  std::vector<std::string> damage;
  for (std::uint32_t i = 0; i < r->tables(); ++i) {
    Vorn::TableGeometry const& g = r->table(i);
    std::uint32_t const size = g.control->size.load();
    std::uint32_t const tombstones = g.control->tombstones.load();
    std::uint32_t const top = g.control->topLevel.load();
    std::uint32_t const capacity = g.capacity();
    std::uint32_t const slotCount = g.slotCount();
    std::cout << "  " << g.name << ": ";
    if (size <= capacity)
      std::cout << size << " of " << capacity << " records (limit " << g.limit << "); ";
    else
      damage.push_back("table '" + g.name + "': size " + std::to_string(size) + " exceeds capacity " +
                       std::to_string(capacity));
    std::cout << "key " << g.keySize << " bytes, record " << g.recordSize << " bytes; " << slotCount << " hash slots";
    if (tombstones <= slotCount)
      std::cout << ", " << tombstones << " tombstones";
    else
      damage.push_back("table '" + g.name + "': " + std::to_string(tombstones) + " tombstones in " +
                       std::to_string(slotCount) + " hash slots");
    std::cout << "\n";
    if (top > Vorn::Layout::kMaxLevel)
      damage.push_back("table '" + g.name + "': skip-list level " + std::to_string(top));
  }
  if (h->writerEpoch.load() == 0) damage.push_back("writer epoch 0");
  for (std::string const& d : damage) std::cerr << "vornctl: " << r->path() << ": damaged: " << d << "\n";
  return damage.empty() ? 0 : 1;
}

void hex(std::ostream& os, unsigned char const* p, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < n; ++i) os << digits[p[i] >> 4] << digits[p[i] & 15];
}

// Key order without the schema: the skip list's bottom level, bounded.
std::size_t rawDump(Vorn::Region const& r, Vorn::TableGeometry const& g, std::size_t limit) {
  auto entry = [&](std::uint32_t i) { return g.entries + std::size_t(i) * g.entrySize; };
  auto head = [&](std::uint32_t i) { return reinterpret_cast<Vorn::Layout::EntryHead const*>(entry(i)); };
  auto next0 = [&](std::uint32_t i) {
    return reinterpret_cast<Vorn::Layout::Link const*>(entry(i) + g.linksOffset)->load();
  };
  std::uint32_t const capacity = g.capacity();
  std::uint32_t x = next0(0);
  std::size_t n = 0;
  while (x != Vorn::Layout::kNone && n < limit) {
    if (x == 0 || x > capacity || n > capacity)
      r.fail("table '" + g.name + "': broken links at entry " + std::to_string(x));
    hex(std::cout, entry(x) + g.keyOffset, g.keySize);
    std::cout << " -> ";
    hex(std::cout, entry(x) + g.recordOffset, g.recordSize);
    if ((head(x)->lseq.load() | head(x)->dseq.load()) & 1) std::cout << " (mid-write)";
    std::cout << "\n";
    ++n;
    x = next0(x);
  }
  return n;
}

// An MFIB route table names each outgoing-interface index by the interface
// it stands for: through a bit mapper table when it has one, else through
// the table's own oifIndexIntf table; "7:unmapped" (7 in JSON) where that
// does not know the index.
OifNamer oifNamer(Vorn::Multicast::Fib::Status const* mfib, BitMapper::VornStatus const* bitMapper) {
  using namespace Vorn::Multicast::Fib;
  return [mfib, bitMapper](OifIndex i) {
    Wirly::IntfId intf;
    if (bitMapper != nullptr)
      intf = bitMapper->bitIndexMap(BitMapper::BitIndex(i.value())).bitMapperKey().intfId();
    else if (mfib != nullptr)
      intf = mfib->oifIndexIntf(i).intfId();
    if (intf.empty()) return Kiv::Plain::number(i.value()).textIs(std::to_string(i.value()) + ":unmapped");
    return Kiv::Plain::string(intf.name());
  };
}

int dump(std::string const& root, std::vector<std::string> const& args) {
  std::vector<std::string> const pos = positional(args, {"--limit", "--bitmapper"});
  if (pos.size() != 2) throw UsageError("dump takes a region and a table");
  std::size_t const limit = countOption(args, "--limit", SIZE_MAX);
  std::string const path = pathOf(root, pos[0]);
  auto r = Vorn::Region::inspectorIs(path);
  Kiv::Ptr<Vorn::Status> status = Vorn::StatusRegistry::statusNew(r->typeName(), Kiv::Name("vornctl"));
  if (!status) {
    for (std::uint32_t i = 0; i < r->tables(); ++i)
      if (r->table(i).name == pos[1]) {
        std::cerr << "vornctl: type " << r->typeName() << " is not known here; raw bytes follow\n";
        rawDump(*r, r->table(i), limit);
        return 0;
      }
    std::cerr << "vornctl: no table '" << pos[1] << "' in " << path << "\n";
    return 1;
  }
  status->mountIs(path, Vorn::Status::Mode::reader);
  Vorn::TableBase* t = status->tableByName(pos[1]);
  if (t == nullptr) {
    std::cerr << "vornctl: no table '" << pos[1] << "' in " << path << "\n";
    return 1;
  }
  auto* mfib = dynamic_cast<Vorn::Multicast::Fib::Status*>(status.ptr());
  Kiv::Ptr<BitMapper::VornStatus> bitMapper;
  if (mfib && pos[1] == "route") {
    // The bit mapper table named on the command line, else the one the
    // MFIB directory announces beside this table.
    std::string bitMapperRegion;
    if (std::string const* bm = optionValue(args, "--bitmapper"))
      bitMapperRegion = *bm;
    else if (path != pos[0])
      bitMapperRegion = announcedBitMapperUrl(root, pos[0]);
    if (!bitMapperRegion.empty()) {
      bitMapper = new BitMapper::VornStatus(Kiv::Name("vornctl"));
      bitMapper->mountIs(pathOf(root, bitMapperRegion), Vorn::Status::Mode::reader);
    }
  }
  OifNamer const oif = oifNamer(mfib, bitMapper.ptr());
  if (hasFlag(args, "--json")) {
    dumpJson(pos[0], r->typeName(), *t, limit, oif);
    return 0;
  }
  // Routes in their plain form; other records as their schema prints them.
  if (mfib && pos[1] == "route") {
    plainRecords(*t, limit, oif, [](Kiv::Plain const& record) { std::cout << record.text() << "\n"; });
    return 0;
  }
  t->printOrdered(std::cout, limit);
  return 0;
}

volatile sig_atomic_t stopRequested = 0;

int watch(std::string const& root, std::vector<std::string> const& args) {
  std::vector<std::string> const pos = positional(args, {"--count", "--seconds"}, {});
  if (pos.size() != 1) throw UsageError("watch takes one region");
  std::size_t const count = countOption(args, "--count", SIZE_MAX);
  double const seconds = secondsOption(args, "--seconds", 1e9);
  std::string const path = pathOf(root, pos[0]);
  auto r = Vorn::Region::inspectorIs(path);
  Kiv::Ptr<Vorn::Status> status = Vorn::StatusRegistry::statusNew(r->typeName(), Kiv::Name("vornctl"));
  if (!status) {
    std::cerr << "vornctl: type " << r->typeName() << " is not known here; cannot watch it\n";
    return 1;
  }
  status->mountIs(path, Vorn::Status::Mode::reader);
  Kiv::EventLoop loop;
  std::size_t seen = 0;
  // Routes print in their plain form, outgoing interfaces named through
  // the table's own oifIndexIntf table.
  auto const* mfib = dynamic_cast<Vorn::Multicast::Fib::Status const*>(status.ptr());
  OifNamer const oif = oifNamer(mfib, nullptr);
  status->changeHookIs([&](Vorn::TableBase const& t, void const* key) {
    std::cout << t.name() << ": ";
    if (mfib != nullptr && &t == &mfib->routeTable()) {
      Routing::Multicast::Fib::IpGenRouteKey k;
      std::memcpy(static_cast<void*>(&k), key, sizeof k);
      Vorn::Multicast::Fib::Route const r = mfib->route(k);
      if (r == Vorn::Multicast::Fib::Route())
        std::cout << routeKeyPlain(k).text() << " deleted";
      else
        std::cout << routePlain(r, oif).text();
    } else {
      t.printKey(std::cout, key);
    }
    std::cout << std::endl;
    ++seen;
  });
  // SIGINT and SIGTERM end the watch normally, so the doorbell this reader
  // holds is given back when the status unmounts.
  struct sigaction sa = {};
  sa.sa_handler = [](int) { stopRequested = 1; };
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  // --seconds counts from the start: catching up with a large or damaged
  // table (bounded, see Vorn::Status::drain) is part of the time.
  auto const start = std::chrono::steady_clock::now();
  status->followIs(&loop);
  double const spent = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (seen < count && spent < seconds)
    loop.runUntil([&] { return seen >= count || stopRequested != 0; }, seconds - spent);
  status->followIs(nullptr);
  status->unmount();
  return 0;
}

int types(std::string const&, std::vector<std::string> const&) {
  for (std::string const& t : Vorn::StatusRegistry::typeNames()) std::cout << t << "\n";
  return 0;
}

Command const commands[] = {
    {"list",
     "usage: vornctl list\n\nLists the regions under the root: URL, status type, writer pid, and per table\nits "
     "records in use and its capacity.\n",
     list},
    {"show",
     "usage: vornctl show <region>\n\nPrints a region's header (type, layout version, size, creation time, writer\nand "
     "its epoch, change log, following readers) and for each table its records,\ncapacity, key and record sizes, hash "
     "slots and tombstones.\n",
     show},
    {"dump",
     "usage: vornctl dump <region> <table> [--limit N] [--bitmapper <region>] [--json]\n\nPrints a table's records "
     "in key order, one line each, through the schema's\nprinters; a type unknown to this tool prints as raw hex "
     "('key -> record').\nAn MFIB route prints as '(10.0.0.1, 239.1.1.1) priority 1 version 3 oif {Ethernet2}'\n"
     "('*' for any source) and names its outgoing interfaces through the bit\nmapper table given with --bitmapper, "
     "else the one the MFIB directory\nannounces beside it, else its own oifIndexIntf table.\n"
     "With --json each record is an object of typed fields: an MFIB route's key\n{\"source\", \"group\"}, "
     "intf1..intf4, "
     "flags, priority, version, rpaIndex and\noifs (interface names, or the index where none is known).\n",
     dump},
    {"watch",
     "usage: vornctl watch <region> [--count N] [--seconds S]\n\nFollows the region like a reader does and prints "
     "'table: record' (or\n'table: key deleted') for every change, until N changes, S seconds, or\nSIGINT/SIGTERM.\n",
     watch},
    {"types", "usage: vornctl types\n\nLists the status types whose records this tool can print.\n", types},
    {"dir", Vornctl::mfibDirHelp, Vornctl::mfibDir},
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string root;
  if (!args.empty() && args[0] == "--root") {
    if (args.size() < 2 || args[1].empty()) {
      std::cerr << "vornctl: --root needs a directory\n";
      return 2;
    }
    root = args[1];
    args.erase(args.begin(), args.begin() + 2);
  } else {
    try {
      root = Vorn::defaultRoot();
    } catch (std::exception const& e) {
      std::cerr << "vornctl: " << e.what() << "\n";
      return 2;
    }
  }
  if (!args.empty() && args[0] == "--version") {
    std::cout << "vornctl (libmroute) " << MROUTE_VERSION << "\n";
    return 0;
  }
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    std::cout << kUsage;
    return args.empty() ? 2 : 0;
  }
  for (Command const& c : commands) {
    if (args[0] != c.name) continue;
    std::vector<std::string> const rest(args.begin() + 1, args.end());
    if (wantsHelp(rest)) {
      std::cout << c.help;
      return 0;
    }
    try {
      if (auto json = Vornctl::runJson(c.name, root, rest)) return *json;
      return c.run(root, rest);
    } catch (UsageError const& e) {
      std::cerr << "vornctl " << c.name << ": " << e.what() << "\nTry 'vornctl " << c.name << " --help'.\n";
      return 2;
    } catch (std::exception const& e) {
      std::cerr << "vornctl " << c.name << ": " << e.what() << "\n";
      return 1;
    }
  }
  std::cerr << "vornctl: unknown command '" << args[0] << "'\n" << kUsage;
  return 2;
}
