// The generic attribute interface of any entity (Kiv/Reflect.h) from
// Python, and a few factories so that scripts can make entities in-process.
//
//   cfg = mroute.configFactory(8, False)
//   [a.name for a in cfg.attributes()]        # declaration order
//   cfg.set("bitMapMinIndex", 2)              # through the typed setter
//   cfg.get("bitMapMinIndex")                 # '2', the value text form
//
// Nothing here knows an entity type: whatever a type declares reflectively
// is reachable, and a type added later needs no change here. Values go in
// and come out as the value text form (see textOf for what Python values
// are accepted; plain() gives a value's plain form, query() kivctl's
// answers); entities reached through pointers, collections of
// entities and Kiv::Dir entries come back as Entity objects.
#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Bind.h"
#include "BitMapper/BitMapperSm.h"
#include "Kiv/AttrServer.h"
#include "Kiv/Dir.h"
#include "Kiv/EventLoop.h"
#include "Kiv/Reflect.h"
#include "Kiv/ValuePlain.h"
#include "Mfib/MfibDir.h"
#include "Mfib/MfibDirSm.h"
#include "Mfib/MfibVorn.h"
#include "Stelo/EntityManager.h"
#include "Stelo/Mount.h"

namespace MroutePython {

namespace {

struct EntityRef {
  Kiv::Ptr<Kiv::Entity> p;
  Kiv::Entity& e() const { return *p; }
};

std::optional<EntityRef> refOf(Kiv::Ptr<Kiv::Entity> const& p) {
  if (!p) return std::nullopt;
  return EntityRef{p};
}

struct AttrInfo {
  std::string name;
  std::string kind;
  std::string valueType;
  std::string keyType;
  bool writable;
};

AttrInfo infoOf(Kiv::Attr const& a) {
  return AttrInfo{a.name, std::string(Kiv::attrKindName(a.kind)), a.valueType, a.keyType, a.writable};
}

std::string argsText(py::args const& args) {
  std::string out;
  for (py::handle a : args) out += (out.empty() ? "" : ", ") + textOf(a);
  return out;
}

Kiv::Dir const* dirOf(EntityRef const& r) { return dynamic_cast<Kiv::Dir const*>(r.p.ptr()); }

// The entity an attribute (or one key of it) leads to; for a Kiv::Dir, the
// entry of that name. None when the pointer is null or the key absent.
std::optional<EntityRef> entityAt(EntityRef const& r, std::string const& name, std::optional<py::object> const& key) {
  if (Kiv::Dir const* dir = dirOf(r); dir != nullptr && !key) return refOf(dir->entity(Kiv::Name(name)));
  Kiv::Attr const& a = Kiv::attrOf(r.e(), name);
  if (key) {
    if (a.lookupEntity == nullptr)
      throw Kiv::RangeException(std::string(r.e().typeName()) + "::" + name + " is not a collection of entities");
    std::string const k = textOf(*key);
    if (!a.has(r.e(), k)) return std::nullopt;
    return refOf(a.lookupEntity(r.e(), k));
  }
  if (a.entity == nullptr)
    throw Kiv::RangeException(std::string(r.e().typeName()) + "::" + name + " does not hold an entity");
  return refOf(a.entity(r.e()));
}

// One collection attribute of one entity, as a read-mostly mapping of key
// text to value text.
struct Collection {
  EntityRef owner;
  std::string name;
};

// The answer to a kivctl-style request against this entity as the root.
std::string query(EntityRef const& r, std::string const& verb, std::string const& path, std::string const& arg,
                  bool json, bool raw, std::size_t limit) {
  std::string const format =
      std::string(raw ? (json ? "rawjson" : "text") : (json ? "json" : "plain")) + ",limit=" + std::to_string(limit);
  std::string const request = verb + "\t" + format + "\t" + path + "\t" + arg;
  if (request.find('\n') != std::string::npos) throw Kiv::ParseException("a request may not hold a newline");
  std::string const reply = Kiv::AttrServer::answer(r.e(), request);
  std::size_t const nl = reply.find('\n');
  std::string body = reply.substr(nl + 1);
  if (reply.compare(0, nl, "ok") == 0) return body;
  if (!body.empty() && body.back() == '\n') body.pop_back();
  throw Kiv::RangeException(body);
}

template <class T>
Kiv::Ptr<T> entityAs(EntityRef const& r, char const* what) {
  Kiv::Ptr<T> p = Kiv::ptrCast<T>(r.p);
  if (!p) throw Kiv::RangeException(std::string("expected a ") + what + ", given " + std::string(r.e().typeName()));
  return p;
}

// The reading side of the MFIB directory in this process, built as an
// agent builds it: the shared directory mirrored on the loop's entity
// manager, and MfibDirSm mounting every announced table into mfibVornDir.
// Turning the loop delivers what the applications change.
struct MfibDirReader {
  MfibDirReader(Kiv::EventLoop& loop, std::optional<std::string> const& root)
      : em(Stelo::EntityManager::entityManagerIs(&loop, root ? *root : std::string())) {
    using namespace Vorn::Multicast::Fib;
    KivVorn::Mount mount(em);
    mount.doMount(MfibDir::sharedDirUrl, MfibDir::typeNameText, KivVorn::MountInfo(KivVorn::MountInfo::dirReader));
    dir = Kiv::ptrCast<Kiv::Dir>(mount.getEntity(MfibDir::sharedDirUrl));
    if (!dir) throw Kiv::RangeException("cannot mount the MFIB directory under " + em->root());
    vornDir = mfibVornDirFactory();
    sm = mfibDirSmFactory(dir, vornDir, em);
  }
  ~MfibDirReader() {
    sm = Kiv::Ptr<Vorn::Multicast::Fib::MfibDirSm>();
    KivVorn::Mount(em).doUnmount(Vorn::Multicast::Fib::MfibDir::sharedDirUrl);
  }
  Kiv::Ptr<Stelo::EntityManager> em;
  Kiv::Ptr<Kiv::Dir> dir;
  Kiv::Ptr<Vorn::Multicast::Fib::MfibVornDir> vornDir;
  Kiv::Ptr<Vorn::Multicast::Fib::MfibDirSm> sm;
};

}  // namespace

void bindEntities(py::module_& m) {
  py::class_<AttrInfo>(m, "Attr", "One reflective attribute: name, kind, value type, key type, writable.")
      .def_readonly("name", &AttrInfo::name)
      .def_readonly("kind", &AttrInfo::kind)
      .def_readonly("value_type", &AttrInfo::valueType)
      .def_readonly("key_type", &AttrInfo::keyType)
      .def_readonly("writable", &AttrInfo::writable)
      .def("__repr__", [](AttrInfo const& a) {
        return "Attr(" + a.name + ", " + a.kind + ", " + (a.keyType.empty() ? "" : a.keyType + " -> ") + a.valueType +
               ", " + (a.writable ? "rw" : "ro") + ")";
      });

  py::class_<EntityRef> entity(m, "Entity",
                               "Any entity, through the generic attribute interface. Values are text forms.");
  entity.def_property_readonly("type_name", [](EntityRef const& r) { return std::string(r.e().typeName()); })
      .def_property_readonly("name", [](EntityRef const& r) { return r.e().name().str(); })
      .def(
          "attributes",
          [](EntityRef const& r) {
            std::vector<AttrInfo> out;
            for (Kiv::Attr const& a : Kiv::typeInfo(r.e()).attrs()) out.push_back(infoOf(a));
            return out;
          },
          "Attributes and operations in declaration order.")
      .def(
          "attribute", [](EntityRef const& r, std::string const& name) { return infoOf(Kiv::attrOf(r.e(), name)); },
          py::arg("name"))
      .def(
          "get",
          [](EntityRef const& r, std::string const& name, std::optional<py::object> const& key) {
            if (key) return Kiv::attrLookup(r.e(), name, textOf(*key));
            return Kiv::attrGet(r.e(), name);
          },
          py::arg("name"), py::arg("key") = py::none(),
          "A scalar's text form, or with key a collection entry's (its absent value when missing).")
      .def(
          "plain",
          [](EntityRef const& r, std::string const& name, std::optional<py::object> const& key) {
            return Kiv::plainFromStrep(key ? Kiv::attrLookup(r.e(), name, textOf(*key)) : Kiv::attrGet(r.e(), name))
                .text();
          },
          py::arg("name"), py::arg("key") = py::none(),
          "What get() gives, in its plain form: 10.1.0.2/32, Ethernet1, (10.1.0.2, 239.1.1.1).")
      .def(
          "set",
          [](EntityRef const& r, std::string const& name, py::object const& value) {
            Kiv::attrSet(r.e(), name, textOf(value));
          },
          py::arg("name"), py::arg("value"), "Writes through the typed setter; RangeError when read-only.")
      .def(
          "entry_set",
          [](EntityRef const& r, std::string const& name, py::object const& key, py::object const& value) {
            Kiv::attrEntryIs(r.e(), name, textOf(key), textOf(value));
          },
          py::arg("name"), py::arg("key"), py::arg("value") = py::none())
      .def(
          "entry_del",
          [](EntityRef const& r, std::string const& name, py::object const& key) {
            Kiv::attrEntryDel(r.e(), name, textOf(key));
          },
          py::arg("name"), py::arg("key"))
      .def(
          "keys",
          [](EntityRef const& r, std::string const& name) {
            std::vector<std::string> out;
            for (auto& [k, v] : Kiv::attrEntries(r.e(), name)) out.push_back(k);
            return out;
          },
          py::arg("name"))
      .def(
          "items", [](EntityRef const& r, std::string const& name) { return Kiv::attrEntries(r.e(), name); },
          py::arg("name"))
      .def(
          "contains",
          [](EntityRef const& r, std::string const& name, py::object const& key) {
            return Kiv::attrHas(r.e(), name, textOf(key));
          },
          py::arg("name"), py::arg("key"))
      .def(
          "count", [](EntityRef const& r, std::string const& name) { return Kiv::attrCount(r.e(), name); },
          py::arg("name"))
      .def(
          "collection",
          [](EntityRef const& r, std::string const& name) {
            Kiv::attrCount(r.e(), name);  // refuses what is not a collection
            return Collection{r, name};
          },
          py::arg("name"), "A mapping view of a collection attribute.")
      .def(
          "invoke",
          [](EntityRef const& r, std::string const& op, py::args const& args) -> std::optional<std::string> {
            std::string result = Kiv::attrInvoke(r.e(), op, argsText(args));
            if (result.empty()) return std::nullopt;
            return result;
          },
          py::arg("op"), "Runs an operation; each argument a text form or a value. Its result's text, or None.")
      .def("entity", &entityAt, py::arg("name"), py::arg("key") = py::none(),
           "The entity a pointer attribute holds, a collection holds under key, or a Dir entry; or None.")
      .def_property_readonly("is_dir", [](EntityRef const& r) { return dirOf(r) != nullptr; })
      .def(
          "entries",
          [](EntityRef const& r) {
            Kiv::Dir const* dir = dirOf(r);
            if (dir == nullptr) throw Kiv::RangeException(std::string(r.e().typeName()) + " is not a Kiv::Dir");
            std::vector<std::pair<std::string, std::optional<EntityRef>>> out;
            for (auto const& [name, e] : *dir) out.emplace_back(name.str(), refOf(e));
            return out;
          },
          "A Kiv::Dir's entries in name order: (name, Entity or None).")
      .def("query", &query, py::arg("verb"), py::arg("path"), py::arg("arg") = "", py::arg("json") = false,
           py::arg("raw") = false, py::arg("limit") = 0,
           "What kivctl would answer with this entity as the agent's root: verb ls, get, set, del or invoke; "
           "raw for the value text form, limit to bound each collection (0: all).")
      .def("__repr__", [](EntityRef const& r) { return Kiv::ReflectDetail::entityText(r.p.ptr()); })
      .def(
          "__eq__", [](EntityRef const& a, EntityRef const& b) { return a.p.ptr() == b.p.ptr(); }, py::is_operator())
      .def("__hash__", [](EntityRef const& r) { return std::hash<void const*>()(r.p.ptr()); });

  py::class_<Collection>(m, "Collection", "A collection attribute: keys and values in their text forms.")
      .def_readonly("name", &Collection::name)
      .def("__len__", [](Collection const& c) { return Kiv::attrCount(c.owner.e(), c.name); })
      .def("__contains__",
           [](Collection const& c, py::object const& k) { return Kiv::attrHas(c.owner.e(), c.name, textOf(k)); })
      .def("__getitem__",
           [](Collection const& c, py::object const& k) {
             std::string const key = textOf(k);
             if (!Kiv::attrHas(c.owner.e(), c.name, key)) throw py::key_error(key);
             return Kiv::attrLookup(c.owner.e(), c.name, key);
           })
      .def(
          "get",
          [](Collection const& c, py::object const& k) { return Kiv::attrLookup(c.owner.e(), c.name, textOf(k)); },
          py::arg("key"), "The entry's text, or the collection's absent value for a missing key.")
      .def("keys",
           [](Collection const& c) {
             std::vector<std::string> out;
             for (auto& [k, v] : Kiv::attrEntries(c.owner.e(), c.name)) out.push_back(k);
             return out;
           })
      .def("items", [](Collection const& c) { return Kiv::attrEntries(c.owner.e(), c.name); })
      .def("__iter__",
           [](Collection const& c) {
             py::list keys;
             for (auto& [k, v] : Kiv::attrEntries(c.owner.e(), c.name)) keys.append(k);
             return py::iter(keys);
           })
      .def(
          "entity",
          [](Collection const& c, py::object const& k) { return entityAt(c.owner, c.name, std::optional(k)); },
          py::arg("key"));

  py::class_<Kiv::EventLoop>(m, "EventLoop", "The framework's event loop, turned by the script.")
      .def(py::init<>())
      .def("run_once", &Kiv::EventLoop::runOnce, py::arg("timeout") = 0.0,
           "Waits up to timeout seconds (negative: forever) and runs what is ready; returns how many ran.")
      .def(
          "run_until",
          [](Kiv::EventLoop& loop, std::function<bool()> const& done, double timeout) {
            return loop.runUntil(done, timeout);
          },
          py::arg("done"), py::arg("timeout"), "Turns the loop until done() or timeout; returns done().")
      .def(
          "run_for", [](Kiv::EventLoop& loop, double seconds) { loop.runUntil([] { return false; }, seconds); },
          py::arg("seconds"));

  py::class_<MfibDirReader>(m, "MfibDirReader",
                            "The MFIB directory read as an agent reads it, on an event loop the script turns: "
                            "mfibDir mirrors the shared directory, mfibDirSm mounts every announced table into "
                            "mfibVornDir.")
      .def(py::init<Kiv::EventLoop&, std::optional<std::string> const&>(), py::arg("loop"),
           py::arg("root") = py::none(), py::keep_alive<1, 2>())
      .def_property_readonly("mfibDir", [](MfibDirReader const& r) { return EntityRef{r.dir}; })
      .def_property_readonly("mfibVornDir", [](MfibDirReader const& r) { return EntityRef{r.vornDir}; })
      .def_property_readonly("mfibDirSm", [](MfibDirReader const& r) { return EntityRef{r.sm}; });

  // Serving introspection from a script: the root entity answers kivctl and
  // mroute.agent while the script turns the loop.
  py::class_<Kiv::AttrServer>(m, "AttrServer",
                              "Serves an entity's generic interface on a Unix socket from a loop (see kivctl).")
      .def(py::init([](Kiv::EventLoop& loop, EntityRef const& root, std::string const& path) {
             return std::make_unique<Kiv::AttrServer>(loop, root.p, path);
           }),
           py::arg("loop"), py::arg("root"), py::arg("path"), py::keep_alive<1, 2>())
      .def_property_readonly("path", &Kiv::AttrServer::path)
      .def_property_readonly("requests", &Kiv::AttrServer::requests)
      .def_static("default_path", &Kiv::AttrServer::defaultPath, py::arg("agent"));

  m.def(
      "configFactory",
      [](std::uint32_t size, std::uint32_t enableRefCount) {
        return EntityRef{BitMapper::configFactory(size, enableRefCount)};
      },
      py::arg("bitMapSize"), py::arg("enableRefCount"), "A BitMapper::Config.");
  m.def(
      "statusFactory", [] { return EntityRef{BitMapper::statusFactory()}; }, "A BitMapper::Status.");
  m.def(
      "bitMapperSmFactory",
      [](EntityRef const& config, EntityRef const& status, std::string const& tablePath) {
        Kiv::Ptr<BitMapper::VornStatus> table = new BitMapper::VornStatus(Kiv::Name("bitmapper"));
        table->mountIs(tablePath, Vorn::Status::Mode::writer);
        return EntityRef{BitMapper::bitMapperSmFactory(entityAs<BitMapper::Config>(config, "BitMapper::Config"),
                                                       entityAs<BitMapper::Status>(status, "BitMapper::Status"),
                                                       table)};
      },
      py::arg("config"), py::arg("status"), py::arg("table_path"),
      "A BitMapper::BitMapperSm that owns the bit mapper table it writes at table_path (a file it creates or "
      "adopts); other processes read it as a BitMapperTable.");
  m.def(
      "mfibVornDirFactory", [] { return EntityRef{Vorn::Multicast::Fib::mfibVornDirFactory()}; },
      "An empty Vorn::Multicast::Fib::MfibVornDir.");
  m.def(
      "mfibVornCollFactory",
      [](L3::VrfName const& vrf) { return EntityRef{Vorn::Multicast::Fib::mfibVornCollFactory(vrf)}; },
      py::arg("vrfName"));
}

}  // namespace MroutePython
