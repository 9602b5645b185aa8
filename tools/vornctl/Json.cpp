// The JSON forms of list, show and dump, and the plain records of the
// tables this tool knows. They read regions the way the text
// forms do (an inspector mapping, validated at open) and print the same
// facts as fields.
#include "Json.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <sstream>

#include "Kiv/Exception.h"
#include "Mfib/MfibDir.h"
#include "Options.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Schema/Mfib/RoutePlain.h"
#include "Vorn/Region.h"
#include "Vorn/Registry.h"
#include "Vorn/Table.h"

namespace Vornctl {

namespace {

std::string writerJson(Vorn::Region const& r) {
  std::uint32_t const pid = r.writerPid();
  if (pid == 0) return "null";
  return "{\"pid\": " + std::to_string(pid) + ", \"running\": " + (r.writerAlive() ? "true" : "false") + "}";
}

std::string tablesJson(Vorn::Region const& r, bool detail) {
  std::ostringstream os;
  os << "[";
  for (std::uint32_t i = 0; i < r.tables(); ++i) {
    Vorn::TableGeometry const& g = r.table(i);
    os << (i ? ", " : "") << "{\"name\": " << jsonString(g.name) << ", \"records\": " << tableSize(g)
       << ", \"capacity\": " << g.capacity() << ", \"limit\": " << g.limit;
    if (detail)
      os << ", \"keyBytes\": " << g.keySize << ", \"recordBytes\": " << g.recordSize
         << ", \"hashSlots\": " << g.slotCount() << ", \"tombstones\": " << g.control->tombstones.load();
    os << "}";
  }
  os << "]";
  return os.str();
}

int listJson(std::string const& root) {
  DIR* d = ::opendir(root.c_str());
  if (d == nullptr) {
    std::cerr << "vornctl: cannot open " << root << ": " << std::strerror(errno) << "\n";
    return 1;
  }
  std::vector<std::string> names;
  while (dirent* e = ::readdir(d))
    if (!Vorn::urlOfFileName(e->d_name).empty()) names.push_back(e->d_name);
  ::closedir(d);
  std::sort(names.begin(), names.end());
  std::cout << "{\"root\": " << jsonString(root) << ", \"regions\": [";
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::cout << (i ? ",\n  " : "\n  ") << "{\"url\": " << jsonString(Vorn::urlOfFileName(names[i]));
    try {
      auto r = Vorn::Region::inspectorIs(root + "/" + names[i]);
      std::cout << ", \"type\": " << jsonString(r->typeName()) << ", \"writer\": " << writerJson(*r)
                << ", \"tables\": " << tablesJson(*r, false) << "}";
    } catch (Kiv::Exception const& e) {
      std::cout << ", \"error\": " << jsonString(e.what()) << "}";
    }
  }
  std::cout << "]}\n";
  return 0;
}

int showJson(std::string const& root, std::vector<std::string> const& args) {
  std::vector<std::string> const pos = positional(args, {});
  if (pos.size() != 1) throw UsageError("show takes one region");
  auto r = Vorn::Region::inspectorIs(pathOf(root, pos[0]));
  Vorn::Layout::Header const* h = r->header();
  std::cout << "{\"file\": " << jsonString(r->path()) << ", \"type\": " << jsonString(r->typeName())
            << ", \"layoutVersion\": " << h->version << ", \"bytes\": " << r->fileSize()
            << ", \"created\": " << jsonString(utcText(h->createdTime)) << ", \"writer\": " << writerJson(*r)
            << ", \"epoch\": " << h->writerEpoch.load() << ", \"changes\": " << h->logHead.load()
            << ", \"changesKept\": " << r->logCapacity() << ", \"readersFollowing\": " << r->liveReaders()
            << ", \"readersWaiting\": " << __builtin_popcountll(h->armed.load())
            << ", \"tables\": " << tablesJson(*r, true) << "}\n";
  return 0;
}

}  // namespace

std::optional<int> runJson(std::string_view name, std::string const& root, std::vector<std::string> const& args) {
  if (!hasFlag(args, "--json")) return std::nullopt;
  if (name == "list") return listJson(root);
  if (name == "show") return showJson(root, args);
  return std::nullopt;
}

namespace {

template <class Tbl>
struct TableTypes;
template <class K, class R, auto KeyOf>
struct TableTypes<Vorn::Table<K, R, KeyOf>> {
  using Key = K;
  using Record = R;
};

template <class Tbl, class F>
bool walk(Vorn::TableBase const& base, std::size_t limit, F const& plain, PlainRecord const& fn) {
  auto const* t = dynamic_cast<Tbl const*>(&base);
  if (t == nullptr) return false;
  Vorn::IterHint hint;
  typename TableTypes<Tbl>::Key k;
  typename TableTypes<Tbl>::Record r;
  std::size_t n = 0;
  for (bool ok = t->first(k, r, hint); ok && n < limit; ok = t->next(k, k, r, hint), ++n) fn(plain(r));
  return true;
}

Kiv::Plain dirRecordPlain(Vorn::Multicast::Fib::MfibDirRecord const& r) {
  auto url = [](std::string s) { return s.empty() ? Kiv::Plain::none() : Kiv::Plain::string(std::move(s)); };
  Kiv::Plain p = Kiv::Plain::object();
  p.field("vrf", Kiv::Plain::string(r.vrfName.str()))
      .field("vornUrl", url(r.vornUrl.str()))
      .field("bitMapperVornUrl", url(r.bitMapperVornUrl.str()));
  return p;
}

}  // namespace

bool plainRecords(Vorn::TableBase const& t, std::size_t limit, OifNamer const& oif, PlainRecord const& fn) {
  using namespace Vorn::Multicast::Fib;
  auto plain = [](auto const& r) { return Kiv::valueToPlain(r); };
  return walk<Status::RouteTable>(
             t, limit, [&](Route const& r) { return routePlain(r, oif); }, fn) ||
         walk<Status::OifIndexIntfTable>(t, limit, plain, fn) ||
         walk<BitMapper::VornStatus::BitIndexMapTable>(t, limit, plain, fn) ||
         walk<BitMapper::VornStatus::WaitlistMapTable>(t, limit, plain, fn) ||
         walk<MfibDirStatus::DirCollTable>(t, limit, dirRecordPlain, fn);
}

void dumpJson(std::string const& url, std::string const& type, Vorn::TableBase const& t, std::size_t limit,
              OifNamer const& oif) {
  std::cout << "{\"url\": " << jsonString(url) << ", \"type\": " << jsonString(type)
            << ", \"table\": " << jsonString(t.name()) << ", \"records\": [";
  char const* sep = "\n  ";
  bool const typed = plainRecords(t, limit, oif, [&](Kiv::Plain const& r) {
    std::cout << sep << r.json();
    sep = ",\n  ";
  });
  // A table of a type this tool cannot read field by field: its printed key
  // and record.
  if (!typed)
    t.forEachPrinted(limit, [&](std::string const& key, std::string const& record) {
      std::cout << sep << "{\"key\": " << jsonString(key) << ", \"record\": " << jsonString(record) << "}";
      sep = ",\n  ";
    });
  std::cout << "]}\n";
}

}  // namespace Vornctl
