// The JSON forms of list, show and dump. They read regions the way the text
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
#include "Options.h"
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

int dumpJson(std::string const& root, std::vector<std::string> const& args) {
  std::vector<std::string> const pos = positional(args, {"--limit"});
  if (pos.size() != 2) throw UsageError("dump takes a region and a table");
  std::size_t const limit = countOption(args, "--limit", SIZE_MAX);
  std::string const path = pathOf(root, pos[0]);
  auto r = Vorn::Region::inspectorIs(path);
  Kiv::Ptr<Vorn::Status> status = Vorn::StatusRegistry::statusNew(r->typeName(), Kiv::Name("vornctl"));
  if (!status) {
    std::cerr << "vornctl: type " << r->typeName() << " is not known here; no JSON for its records\n";
    return 1;
  }
  status->mountIs(path, Vorn::Status::Mode::reader);
  Vorn::TableBase* t = status->tableByName(pos[1]);
  if (t == nullptr) {
    std::cerr << "vornctl: no table '" << pos[1] << "' in " << path << "\n";
    return 1;
  }
  std::cout << "{\"url\": " << jsonString(pos[0]) << ", \"type\": " << jsonString(r->typeName())
            << ", \"table\": " << jsonString(pos[1]) << ", \"records\": [";
  char const* sep = "\n  ";
  t->forEachPrinted(limit, [&](std::string const& key, std::string const& record) {
    std::cout << sep << "{\"key\": " << jsonString(key) << ", \"record\": " << jsonString(record) << "}";
    sep = ",\n  ";
  });
  std::cout << "]}\n";
  return 0;
}

}  // namespace

std::optional<int> runJson(std::string_view name, std::string const& root, std::vector<std::string> const& args) {
  if (!hasFlag(args, "--json")) return std::nullopt;
  if (name == "list") return listJson(root);
  if (name == "show") return showJson(root, args);
  if (name == "dump") return dumpJson(root, args);
  return std::nullopt;
}

}  // namespace Vornctl
