#include "Kiv/AttrServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/PathTrust.h"
#include "Kiv/Reflect.h"
#include "Kiv/Trace.h"
#include "Kiv/ValueJson.h"

namespace Kiv {

namespace {

TraceHandle introspectTrace("Kiv::AttrServer");

// Where a path leads: an entity, or one of its attributes, or one key of a
// collection attribute, or an operation derived from an attribute's name
// (vornPtrDelAll, reviewsInc).
struct Target {
  Ptr<Entity> entity;
  Attr const* attr = nullptr;
  std::string key;
  bool keyed = false;
  std::string derived;
};

std::vector<std::string> splitPath(std::string_view path) {
  std::vector<std::string> out;
  std::string cur;
  bool quoted = false;
  int depth = 0;
  for (std::size_t i = 0; i < path.size(); ++i) {
    char c = path[i];
    if (quoted) {
      if (c == '\\' && i + 1 < path.size()) {
        cur += c;
        cur += path[++i];
        continue;
      }
      if (c == '\'') quoted = false;
      cur += c;
      continue;
    }
    if (c == '\'') quoted = true;
    if (c == '(' || c == '{' || c == '[') ++depth;
    if (c == ')' || c == '}' || c == ']') --depth;
    if (c == '/' && depth == 0) {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
      continue;
    }
    cur += c;
  }
  if (quoted || depth != 0) throw ParseException("unbalanced quote or bracket in path " + std::string(path));
  if (!cur.empty()) out.push_back(cur);
  return out;
}

bool isQuoted(std::string const& seg) { return seg.size() >= 2 && seg.front() == '\'' && seg.back() == '\''; }

// For a write (keyLast), a path's last key stays a key even in a collection
// of entities, so that an entry can be made or removed, and a last pointer
// attribute stays the attribute. A segment that names
// no attribute is a key of the entity's path collection, if it has one (a
// quoted segment always is).
Target resolve(Entity const& root, std::string_view path, bool keyLast) {
  Target t;
  t.entity = Ptr<Entity>(const_cast<Entity*>(&root));
  std::string walked;
  std::vector<std::string> const segs = splitPath(path);
  for (std::size_t i = 0; i < segs.size(); ++i) {
    std::string const& seg = segs[i];
    bool const last = i + 1 == segs.size();
    walked += "/" + seg;
    if (t.keyed) throw RangeException(walked + ": " + t.attr->name + " entries have nothing below them");
    if (!t.derived.empty()) throw RangeException(walked + ": " + t.derived + " is an operation");
    if (t.attr == nullptr) {
      TypeInfo const& info = typeInfo(*t.entity);
      Attr const* a = isQuoted(seg) ? nullptr : info.attr(seg);
      if (a == nullptr && info.pathCollection() != nullptr) {
        Attr const* pc = info.pathCollection();
        if (!pc->has(*t.entity, seg)) {
          if (!(keyLast && last)) throw RangeException(walked + ": no such entry");
        } else if (pc->lookupEntity != nullptr && !(keyLast && last)) {
          Ptr<Entity> e = pc->lookupEntity(*t.entity, seg);
          if (!e) throw RangeException(walked + " is None");
          t.entity = e;
          continue;
        }
        t.attr = pc;
        t.key = seg;
        t.keyed = true;
        continue;
      }
      if (a == nullptr && derivedOperation(*t.entity, seg).attr != nullptr) {
        t.derived = seg;
        continue;
      }
      if (a == nullptr) a = &attrOf(*t.entity, seg);
      // A write names the pointer itself (None removes); a read walks in.
      if (a->kind == AttrKind::pointer && !(keyLast && last)) {
        Ptr<Entity> e = a->entity(*t.entity);
        if (!e) throw RangeException(walked + " is None");
        t.entity = e;
        continue;
      }
      t.attr = a;
      continue;
    }
    if (t.attr->kind != AttrKind::collection)
      throw RangeException(walked + ": " + t.attr->name + " is not a collection");
    if (t.attr->lookupEntity != nullptr && !(keyLast && last)) {
      if (!t.attr->has(*t.entity, seg)) throw RangeException(walked + ": no such key");
      t.entity = t.attr->lookupEntity(*t.entity, seg);
      if (!t.entity) throw RangeException(walked + " is None");
      t.attr = nullptr;
      continue;
    }
    t.key = seg;
    t.keyed = true;
  }
  return t;
}

// A key as a path collection's listing shows it: a name without quotes.
std::string plainKey(std::string const& key) { return jsonKeyFromStrep(key); }

// Rows of (name, value text): "name\tvalue" lines, or one JSON object of
// typed values keyed by the names.
std::string rows(std::vector<std::pair<std::string, std::string>> const& r, bool json) {
  std::string out;
  if (json) {
    out = "{";
    for (std::size_t i = 0; i < r.size(); ++i)
      out += (i ? ", " : "") + jsonString(jsonKeyFromStrep(r[i].first)) + ": " + jsonFromStrep(r[i].second);
    return out + "}\n";
  }
  for (auto const& [k, v] : r) out += k + "\t" + v + "\n";
  return out;
}

std::string listEntity(Entity const& e, bool json) {
  std::string out = json ? "[" : "";
  bool first = true;
  auto row = [&](std::string const& name, std::string_view kind, std::string const& type, bool writable) {
    if (json) {
      out += std::string(first ? "" : ", ") + "{\"name\": " + jsonString(name) + ", \"kind\": " + jsonString(kind) +
             ", \"type\": " + jsonString(type) + ", \"writable\": " + (writable ? "true" : "false") + "}";
    } else {
      out += name + "\t" + std::string(kind) + "\t" + type + "\t" + (writable ? "rw" : "ro") + "\n";
    }
    first = false;
  };
  TypeInfo const& info = typeInfo(e);
  // A path collection's entries stand where its name would.
  if (Attr const* pc = info.pathCollection(); pc != nullptr) {
    for (auto const& [key, value] : attrEntries(e, pc->name)) {
      std::string type = pc->valueType;
      if (pc->lookupEntity != nullptr) {
        Ptr<Entity> entity = pc->lookupEntity(e, key);
        type = entity ? std::string(entity->typeName()) : "None";
      }
      row(plainKey(key), "entry", type, false);
    }
  }
  for (Attr const& a : info.attrs()) {
    if (a.pathKeys) continue;
    std::string type = a.keyType.empty() ? a.valueType : a.keyType + " -> " + a.valueType;
    row(a.name, attrKindName(a.kind), type, a.writable);
  }
  return json ? out + "]\n" : out;
}

std::string getEntity(Entity const& e, bool json) {
  std::string attrs = json ? "{" : "";
  bool first = true;
  auto row = [&](std::string const& name, std::string const& text, std::string const& typed) {
    if (json) {
      attrs += std::string(first ? "" : ", ") + jsonString(name) + ": " + typed;
    } else {
      attrs += name + "\t" + text + "\n";
    }
    first = false;
  };
  for (Attr const& a : typeInfo(e).attrs()) {
    if (a.pathKeys) {
      for (auto const& [key, value] : attrEntries(e, a.name)) row(plainKey(key), value, jsonFromStrep(value));
      continue;
    }
    if (a.get != nullptr) row(a.name, a.get(e), jsonFromStrep(a.get(e)));
    if (a.count != nullptr) {
      // In JSON a collection is its entries; in text, how many.
      std::string typed;
      if (json) {
        typed = rows(attrEntries(e, a.name), true);
        typed.pop_back();
      }
      row(a.name, std::to_string(a.count(e)) + " entries", typed);
    }
  }
  if (!json) return attrs;
  return "{\"type\": " + jsonString(e.typeName()) + ", \"name\": " + jsonString(e.name().str()) +
         ", \"attributes\": " + attrs + "}}\n";
}

std::string oneValue(std::string const& value, bool json) { return json ? jsonFromStrep(value) + "\n" : value + "\n"; }

std::string answerOf(Entity const& root, std::string_view verb, bool json, std::string_view path,
                     std::string_view arg) {
  Target t = resolve(root, path, verb == "set" || verb == "del");
  Entity const& e = *t.entity;
  if (!t.derived.empty()) {
    if (verb != "invoke") throw RangeException(std::string(path) + " is an operation: invoke it");
    std::string result = attrInvoke(e, t.derived, arg);
    return result.empty() ? std::string() : oneValue(result, json);
  }
  if (verb == "ls") {
    if (t.attr == nullptr) return listEntity(e, json);
    if (t.attr->kind == AttrKind::collection && !t.keyed) return rows(attrEntries(e, t.attr->name), json);
    return listEntity(e, json);
  }
  if (verb == "get") {
    if (t.attr == nullptr) return getEntity(e, json);
    if (t.keyed) return oneValue(attrLookup(e, t.attr->name, t.key), json);
    if (t.attr->kind == AttrKind::collection) return rows(attrEntries(e, t.attr->name), json);
    if (t.attr->kind == AttrKind::operation) throw RangeException(t.attr->name + " is an operation: invoke it");
    return oneValue(attrGet(e, t.attr->name), json);
  }
  if (verb == "set") {
    if (t.attr == nullptr) throw RangeException(std::string(path) + " is an entity: name one of its attributes");
    if (t.keyed) {
      attrEntryIs(e, t.attr->name, t.key, arg);
    } else {
      attrSet(e, t.attr->name, arg);
    }
    return std::string();
  }
  if (verb == "del") {
    if (!t.keyed) throw RangeException(std::string(path) + " is not a collection entry");
    attrEntryDel(e, t.attr->name, t.key);
    return std::string();
  }
  if (verb == "invoke") {
    if (t.attr == nullptr || t.keyed) throw RangeException(std::string(path) + " is not an operation");
    std::string result = attrInvoke(e, t.attr->name, arg);
    return result.empty() ? std::string() : oneValue(result, json);
  }
  throw RangeException("unknown verb " + std::string(verb) + " (ls, get, set, del, invoke)");
}

}  // namespace

std::string AttrServer::answer(Entity const& root, std::string_view request) {
  std::vector<std::string_view> f;
  std::size_t start = 0;
  while (f.size() < 3) {
    std::size_t tab = request.find('\t', start);
    if (tab == std::string_view::npos) break;
    f.push_back(request.substr(start, tab - start));
    start = tab + 1;
  }
  f.push_back(request.substr(start));
  if (f.size() < 3) return "error\nmalformed request: expected verb, format, path and argument\n";
  if (f[1] != "text" && f[1] != "json") return "error\nunknown format " + std::string(f[1]) + " (text, json)\n";
  try {
    return "ok\n" + answerOf(root, f[0], f[1] == "json", f[2], f.size() > 3 ? f[3] : std::string_view());
  } catch (Exception const& ex) {
    return "error\n" + std::string(ex.what()) + "\n";
  }
}

std::string AttrServer::defaultPath(std::string_view agentName) {
  return PathTrust::runtimeDir("kiv", "KIV_INTROSPECT_DIR") + "/" + std::string(agentName) + ".sock";
}

AttrServer::AttrServer(EventLoop& loop, Ptr<Entity> root, std::string path)
    : loop_(loop), root_(std::move(root)), socket_(std::move(path), {"introspection socket", "KIV_INTROSPECT_DIR"}) {
  loop_.readableIs(socket_.fd(), [this] { doAccept(); });
  KIV_TRACE(introspectTrace, 4, "serving introspection on " << socket_.path());
}

AttrServer::~AttrServer() {
  while (!clients_.empty()) doDrop(clients_.begin()->first);
  loop_.readableDel(socket_.fd());
}

void AttrServer::doAccept() {
  for (;;) {
    int fd = ::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    FileDesc conn(fd);
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != ::getuid()) {
      ++refused_;
      KIV_TRACE(introspectTrace, 2, "refused an introspection client of user " << cred.uid);
      continue;
    }
    Client& c = clients_[fd];
    c.fd = std::move(conn);
    c.timer = loop_.timerIs(requestTimeout, [this, fd] {
      clients_[fd].timer = 0;
      ++refused_;
      KIV_TRACE(introspectTrace, 2, "dropped an introspection client that sent no request");
      doDrop(fd);
    });
    loop_.readableIs(fd, [this, fd] { doRead(fd); });
  }
}

void AttrServer::doRead(int fd) {
  Client& c = clients_[fd];
  char buf[4096];
  ssize_t n = ::read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    doDrop(fd);
    return;
  }
  c.in.append(buf, static_cast<std::size_t>(n));
  std::size_t nl = c.in.find('\n');
  if (nl == std::string::npos) {
    if (c.in.size() > maxRequest) {
      ++refused_;
      doDrop(fd);
    }
    return;
  }
  std::string out = answer(*root_, std::string_view(c.in).substr(0, nl));
  ++requests_;
  // The answer goes out in this turn; a client that does not read it within
  // the send timeout loses the rest rather than stall the agent.
  timeval tv{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  c.fd.nonBlockingIs(false);
  std::size_t sent = 0;
  while (sent < out.size()) {
    ssize_t w = ::send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    sent += static_cast<std::size_t>(w);
  }
  doDrop(fd);
}

void AttrServer::doDrop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  loop_.readableDel(fd);
  if (it->second.timer != 0) loop_.timerDel(it->second.timer);
  clients_.erase(it);
}

}  // namespace Kiv
