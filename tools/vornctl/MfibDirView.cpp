// vornctl dir: the MFIB directory as agents see it. For every application
// that announces tables (a "mfibdir/<app>" region), its writer and, per VRF,
// the MFIB and bit mapper table URLs and whether each table can be mounted
// and read now.
#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <sstream>

#include "Json.h"
#include "Kiv/Exception.h"
#include "Mfib/MfibDir.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Vorn/Region.h"

namespace Vornctl {

char const* const mfibDirHelp =
    "usage: vornctl dir [--json]\n\nShows the MFIB directory: each application that announces tables, its writer,\n"
    "and per VRF the MFIB and bit mapper table URLs, each marked 'readable' when it\nmounts and reads now, "
    "else with the reason.\n";

namespace {

using Vorn::Multicast::Fib::MfibDirRecord;
using Vorn::Multicast::Fib::MfibDirStatus;

struct TableState {
  std::string url;
  std::string error;  // empty: readable
};

struct VrfView {
  std::string vrf;
  TableState mfib;
  TableState bitMapper;
};

struct AppView {
  std::string name;
  std::uint32_t writerPid = 0;
  bool writerRunning = false;
  std::string error;  // the directory table itself cannot be read
  std::vector<VrfView> vrfs;
};

// Mounts the table as a reader does and reads its first record.
TableState probe(std::string const& root, std::string const& url, char const* typeName) {
  TableState s{url, ""};
  if (url.empty()) return s;
  try {
    Kiv::Ptr<Vorn::Status> status = Vorn::StatusRegistry::statusNew(typeName, Kiv::Name(url));
    status->mountIs(root + "/" + Vorn::fileNameOfUrl(url), Vorn::Status::Mode::reader);
    for (Vorn::TableBase* t : status->tableList()) t->size();
    if (auto mfib = Kiv::ptrCast<Vorn::Multicast::Fib::Status>(status)) {
      Vorn::IterHint hint;
      Vorn::Multicast::Fib::IpGenRouteKey k;
      Vorn::Multicast::Fib::Route r;
      mfib->routeTable().first(k, r, hint);
    }
  } catch (std::exception const& e) {
    s.error = e.what();
  }
  return s;
}

std::vector<AppView> readDirectory(std::string const& root) {
  std::string const prefix = std::string(Vorn::Multicast::Fib::MfibDir::sharedDirUrl) + "/";
  std::vector<AppView> apps;
  DIR* d = ::opendir(root.c_str());
  if (d == nullptr) throw Kiv::ErrnoException("opendir(" + root + ")", errno);
  std::vector<std::string> urls;
  while (dirent* e = ::readdir(d)) {
    std::string const url = Vorn::urlOfFileName(e->d_name);
    if (url.size() > prefix.size() && url.compare(0, prefix.size(), prefix) == 0 &&
        url.find('/', prefix.size()) == std::string::npos)
      urls.push_back(url);
  }
  ::closedir(d);
  std::sort(urls.begin(), urls.end());
  for (std::string const& url : urls) {
    AppView app;
    app.name = url.substr(prefix.size());
    try {
      Kiv::Ptr<MfibDirStatus> dir = new MfibDirStatus(url);
      dir->mountIs(root + "/" + Vorn::fileNameOfUrl(url), Vorn::Status::Mode::reader);
      app.writerPid = dir->region()->writerPid();
      app.writerRunning = dir->region()->writerAlive();
      Vorn::IterHint hint;
      L3::VrfName vrf;
      MfibDirRecord rec;
      auto const& t = dir->dirCollTable();
      for (bool more = t.first(vrf, rec, hint); more; more = t.next(vrf, vrf, rec, hint))
        app.vrfs.push_back({vrf.str(), probe(root, rec.vornUrl.str(), Vorn::Multicast::Fib::Status::typeNameText),
                            probe(root, rec.bitMapperVornUrl.str(), "BitMapper::VornStatus")});
    } catch (std::exception const& e) {
      app.error = e.what();
    }
    apps.push_back(std::move(app));
  }
  return apps;
}

std::string stateText(TableState const& s) {
  if (s.url.empty()) return "-";
  return s.url + (s.error.empty() ? " (readable)" : " (not readable: " + s.error + ")");
}

std::string stateJson(TableState const& s) {
  if (s.url.empty()) return "null";
  return "{\"url\": " + jsonString(s.url) + ", \"readable\": " + (s.error.empty() ? "true" : "false") +
         (s.error.empty() ? "" : ", \"error\": " + jsonString(s.error)) + "}";
}

}  // namespace

std::string announcedBitMapperUrl(std::string const& root, std::string const& mfibUrl) {
  try {
    for (AppView const& app : readDirectory(root))
      for (VrfView const& vrf : app.vrfs)
        if (vrf.mfib.url == mfibUrl) return vrf.bitMapper.url;
  } catch (std::exception const&) {
    // No directory here: the table's own index table names the interfaces.
  }
  return "";
}

int mfibDir(std::string const& root, std::vector<std::string> const& args) {
  bool const json = std::find(args.begin(), args.end(), "--json") != args.end();
  std::vector<AppView> const apps = readDirectory(root);
  if (json) {
    std::cout << "{\"root\": " << jsonString(root) << ", \"applications\": [";
    for (std::size_t i = 0; i < apps.size(); ++i) {
      AppView const& a = apps[i];
      std::cout << (i ? ",\n  " : "\n  ") << "{\"name\": " << jsonString(a.name);
      if (!a.error.empty()) {
        std::cout << ", \"error\": " << jsonString(a.error) << "}";
        continue;
      }
      std::cout << ", \"writer\": "
                << (a.writerPid == 0 ? std::string("null")
                                     : "{\"pid\": " + std::to_string(a.writerPid) +
                                           ", \"running\": " + (a.writerRunning ? "true" : "false") + "}")
                << ", \"vrfs\": [";
      for (std::size_t j = 0; j < a.vrfs.size(); ++j)
        std::cout << (j ? ", " : "") << "{\"vrf\": " << jsonString(a.vrfs[j].vrf)
                  << ", \"vornUrl\": " << stateJson(a.vrfs[j].mfib)
                  << ", \"bitMapperVornUrl\": " << stateJson(a.vrfs[j].bitMapper) << "}";
      std::cout << "]}";
    }
    std::cout << "]}\n";
    return 0;
  }
  if (apps.empty()) std::cout << "no application announces tables under " << root << "\n";
  for (AppView const& a : apps) {
    std::cout << a.name;
    if (!a.error.empty()) {
      std::cout << "  unreadable: " << a.error << "\n";
      continue;
    }
    std::cout << "  writer "
              << (a.writerPid == 0 ? std::string("none")
                                   : std::to_string(a.writerPid) + (a.writerRunning ? " (running)" : " (gone)"))
              << "\n";
    for (VrfView const& v : a.vrfs)
      std::cout << "  " << v.vrf << "\n    mfib       " << stateText(v.mfib) << "\n    bitmapper  "
                << stateText(v.bitMapper) << "\n";
  }
  return 0;
}

}  // namespace Vornctl
