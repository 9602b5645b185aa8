// Shared tables, read-only: a table root, and an MFIB table, a bit mapper
// table or the MFIB directory mounted from it the way a reader process
// mounts them. The mapping is read-only, records are copied out on every
// call (nothing in Python points into shared memory), and a record the
// writer left torn raises mroute.CorruptionError naming the file.
#include <dirent.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Bind.h"
#include "Kiv/Exception.h"
#include "Kiv/PathTrust.h"
#include "Kiv/ValuePlain.h"
#include "Mfib/MfibDir.h"
#include "Schema/BitMapper/BitMapperSchema.h"
#include "Schema/Mfib/MfibStatus.h"
#include "Vorn/Region.h"
#include "Vorn/Registry.h"

namespace MroutePython {

namespace {

using Vorn::Multicast::Fib::IpGenRouteKey;
using Vorn::Multicast::Fib::MfibDirRecord;
using Vorn::Multicast::Fib::MfibDirStatus;
using Vorn::Multicast::Fib::OifIndex;
using Vorn::Multicast::Fib::OifIndexIntf;
using Vorn::Multicast::Fib::Route;
using MfibStatus = Vorn::Multicast::Fib::Status;

// A URL under the root, or the path of a region file as given.
std::string pathOf(std::string const& root, std::string const& region) {
  if (region.find('/') == 0 || (region.size() > 5 && region.compare(region.size() - 5, 5, ".vorn") == 0)) return region;
  return root + "/" + Vorn::fileNameOfUrl(region);
}

// Every record of a table in key order, copied out.
template <class Table>
auto recordsOf(Table const& t) {
  std::vector<typename Table::Record> out;
  Vorn::IterHint hint;
  typename Table::Key k{};
  typename Table::Record r;
  for (bool more = t.first(k, r, hint); more; more = t.next(k, k, r, hint)) out.push_back(r);
  return out;
}

template <class R>
std::optional<R> present(R const& r) {
  if (r == R()) return std::nullopt;
  return r;
}

// One mounted reader of status type S.
template <class S>
class Mounted {
 public:
  Mounted(std::string url, std::string path) : url_(std::move(url)), status_(new S(Kiv::Name(url_))) {
    status_->mountIs(path, Vorn::Status::Mode::reader);
  }
  S const& status() const {
    if (!status_) throw Kiv::RangeException("the table " + url_ + " is closed");
    return *status_;
  }
  std::string const& url() const { return url_; }
  std::string path() const { return status().path(); }
  std::uint32_t writerPid() const { return status().region()->writerPid(); }
  bool writerRunning() const { return status().region()->writerAlive(); }
  void close() {
    if (status_) status_->unmount();
    status_ = Kiv::Ptr<S>();
  }

 private:
  std::string url_;
  Kiv::Ptr<S> status_;
};

using MfibTable = Mounted<MfibStatus>;
using BitMapperTable = Mounted<BitMapper::VornStatus>;

struct DirAnnouncement {
  std::string vrfName;
  std::string vornUrl;
  std::string bitMapperVornUrl;
};

class TableRoot {
 public:
  explicit TableRoot(std::optional<std::string> path) : path_(path ? *path : Vorn::defaultRoot()) {}
  std::string const& path() const { return path_; }

  std::vector<std::string> urls() const {
    trustRoot();
    DIR* d = ::opendir(path_.c_str());
    if (d == nullptr) throw Kiv::ErrnoException("opendir(" + path_ + ")", errno);
    std::vector<std::string> out;
    while (dirent* e = ::readdir(d))
      if (std::string u = Vorn::urlOfFileName(e->d_name); !u.empty()) out.push_back(u);
    ::closedir(d);
    std::sort(out.begin(), out.end());
    return out;
  }

  // url -> status type name, for every region that opens as one.
  std::map<std::string, std::string> regions() const {
    std::map<std::string, std::string> out;
    for (std::string const& u : urls()) {
      try {
        out[u] = Vorn::Region::inspectorIs(path_ + "/" + Vorn::fileNameOfUrl(u))->typeName();
      } catch (Kiv::Exception const&) {
        // A region being made or damaged: not listed; mounting it says why.
      }
    }
    return out;
  }

  std::unique_ptr<MfibTable> mfib(std::string const& url) const {
    std::string const path = pathOf(path_, url);
    if (path != url) trustRoot();
    return std::make_unique<MfibTable>(url, path);
  }
  std::unique_ptr<BitMapperTable> bitmapper(std::string const& url) const {
    std::string const path = pathOf(path_, url);
    if (path != url) trustRoot();
    return std::make_unique<BitMapperTable>(url, path);
  }

  // application -> VRF -> its announcement, from each application's part of
  // the shared directory ("mfibdir/<application>").
  std::map<std::string, std::map<std::string, DirAnnouncement>> directory() const {
    std::string const prefix = std::string(Vorn::Multicast::Fib::MfibDir::sharedDirUrl) + "/";
    std::map<std::string, std::map<std::string, DirAnnouncement>> out;
    for (std::string const& url : urls()) {
      if (url.size() <= prefix.size() || url.compare(0, prefix.size(), prefix) != 0 ||
          url.find('/', prefix.size()) != std::string::npos)
        continue;
      Mounted<MfibDirStatus> part(url, path_ + "/" + Vorn::fileNameOfUrl(url));
      auto& app = out[url.substr(prefix.size())];
      for (MfibDirRecord const& r : recordsOf(part.status().dirCollTable()))
        app[r.vrfName.str()] = DirAnnouncement{r.vrfName.str(), r.vornUrl.str(), r.bitMapperVornUrl.str()};
    }
    return out;
  }

 private:
  // Tables under a root that another user could change are not read as
  // the router's.
  void trustRoot() const { Kiv::PathTrust::dirCheck(path_, {"table root", "VORN_ROOT"}); }

  std::string path_;
};

template <class T>
void mountedCommon(py::class_<T>& c) {
  c.def_property_readonly("url", &T::url)
      .def_property_readonly("path", &T::path)
      .def_property_readonly("writer_pid", &T::writerPid)
      .def_property_readonly("writer_running", &T::writerRunning)
      .def("close", &T::close, "Unmaps the table; later reads raise mroute.RangeError.")
      .def(
          "__enter__", [](T& t) -> T& { return t; }, py::return_value_policy::reference)
      .def("__exit__", [](T& t, py::args) { t.close(); });
}

}  // namespace

void bindTables(py::module_& m) {
  py::class_<DirAnnouncement>(m, "DirAnnouncement", "One application's tables for one VRF, as announced.")
      .def_readonly("vrfName", &DirAnnouncement::vrfName)
      .def_readonly("vornUrl", &DirAnnouncement::vornUrl)
      .def_readonly("bitMapperVornUrl", &DirAnnouncement::bitMapperVornUrl)
      .def("__repr__", [](DirAnnouncement const& a) {
        return "DirAnnouncement(" + a.vrfName + ", " + a.vornUrl + ", " + a.bitMapperVornUrl + ")";
      });

  py::class_<MfibTable> mfib(m, "MfibTable",
                             "One application's MFIB table for one VRF (Vorn::Multicast::Fib::Status), mounted "
                             "read-only. Iterating gives its routes in key order.");
  mountedCommon(mfib);
  mfib.def("__len__", [](MfibTable const& t) { return t.status().routeTable().size(); })
      .def("routes", [](MfibTable const& t) { return recordsOf(t.status().routeTable()); })
      .def("__iter__", [](MfibTable const& t) { return py::iter(py::cast(recordsOf(t.status().routeTable()))); })
      .def("keys",
           [](MfibTable const& t) {
             std::vector<IpGenRouteKey> out;
             for (Route const& r : recordsOf(t.status().routeTable())) out.push_back(r.key());
             return out;
           })
      .def(
          "route", [](MfibTable const& t, IpGenRouteKey const& k) { return present(t.status().route(k)); },
          py::arg("key"), "The route of key, or None.")
      .def("__contains__", [](MfibTable const& t, IpGenRouteKey const& k) { return !(t.status().route(k) == Route()); })
      .def("__getitem__",
           [](MfibTable const& t, IpGenRouteKey const& k) {
             Route r = t.status().route(k);
             if (r == Route()) throw py::key_error(Kiv::valueToPlain(k).text());
             return r;
           })
      .def(
          "oifIndexIntf",
          [](MfibTable const& t) {
            std::map<unsigned, Wirly::IntfId> out;
            for (OifIndexIntf const& e : recordsOf(t.status().oifIndexIntfTable()))
              out[e.oifIndex().value()] = e.intfId();
            return out;
          },
          "The oifIndexIntf table: index -> interface.")
      .def(
          "oifIndexIntf",
          [](MfibTable const& t, OifIndex i) -> std::optional<Wirly::IntfId> {
            OifIndexIntf e = t.status().oifIndexIntf(i);
            if (e == OifIndexIntf()) return std::nullopt;
            return e.intfId();
          },
          py::arg("index"), "The interface index stands for, or None.");

  py::class_<BitMapperTable> bm(m, "BitMapperTable", "A bit mapper table (BitMapper::VornStatus), mounted read-only.");
  mountedCommon(bm);
  bm.def(
        "bitIndexMap", [](BitMapperTable const& t) { return recordsOf(t.status().bitIndexMapTable()); },
        "Every index handed out, in index order.")
      .def(
          "bitIndexMap",
          [](BitMapperTable const& t, BitMapper::BitIndex i) { return present(t.status().bitIndexMap(i)); },
          py::arg("index"), "The record of index, or None.")
      .def(
          "waitlistMap", [](BitMapperTable const& t) { return recordsOf(t.status().waitlistMapTable()); },
          "Every waiting key, in key order.")
      .def(
          "waitlistMap",
          [](BitMapperTable const& t, BitMapper::BitMapperKey const& k) { return present(t.status().waitlistMap(k)); },
          py::arg("key"), "The waiting key's record, or None.");

  py::class_<TableRoot>(m, "TableRoot",
                        "A directory of shared tables: the given path, else $VORN_ROOT, else /run/vorn for root "
                        "and $XDG_RUNTIME_DIR/vorn for other users. It must belong to this user or root and be "
                        "writable by nobody else, or listing and mounting by URL raise.")
      .def(py::init<std::optional<std::string>>(), py::arg("path") = py::none())
      .def_property_readonly("path", &TableRoot::path)
      .def("urls", &TableRoot::urls, "The URLs of the region files under the root.")
      .def("regions", &TableRoot::regions, "URL -> status type name of every readable region.")
      .def("mfib", &TableRoot::mfib, py::arg("url"), "Mounts an MFIB table (URL or .vorn path) read-only.")
      .def("bitmapper", &TableRoot::bitmapper, py::arg("url"), "Mounts a bit mapper table read-only.")
      .def("directory", &TableRoot::directory,
           "The MFIB directory: application -> VRF -> DirAnnouncement (table URLs).");
}

}  // namespace MroutePython
