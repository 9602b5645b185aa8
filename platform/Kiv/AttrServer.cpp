#include "Kiv/AttrServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Kiv/Exception.h"
#include "Kiv/PathTrust.h"
#include "Kiv/Reflect.h"
#include "Kiv/Trace.h"
#include "Kiv/ValueJson.h"
#include "Kiv/ValuePlain.h"

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

// A collection's key as a path names it: its text form, or else the plain
// form of one of the collection's keys ("(10.1.0.2, 239.1.1.1)"). The keys
// are walked only for a segment that is no text form of a key at all, so a
// key that is merely absent costs no walk.
std::string keyOf(Entity const& e, Attr const& a, std::string const& seg) {
  try {
    a.has(e, seg);
    return seg;
  } catch (ParseException const&) {
  }
  std::string found;
  a.forEach(e, [&](std::string const& key, std::string const&) {
    if (found.empty() && plainFromStrep(key).text() == seg) found = key;
  });
  return found.empty() ? seg : found;
}

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
    std::string const key = keyOf(*t.entity, *t.attr, seg);
    if (t.attr->lookupEntity != nullptr && !(keyLast && last)) {
      if (!t.attr->has(*t.entity, key)) throw RangeException(walked + ": no such key");
      t.entity = t.attr->lookupEntity(*t.entity, key);
      if (!t.entity) throw RangeException(walked + " is None");
      t.attr = nullptr;
      continue;
    }
    t.key = key;
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

// ---- The plain forms (Kiv/ValuePlain.h): what kivctl shows by default.

// How an answer is written: the value text form ("text"), typed JSON of the
// text form ("rawjson"), the plain form ("plain") or its JSON ("json"); at
// most `limit` entries of each collection.
struct Format {
  bool raw = false;
  bool json = false;
  std::size_t limit = SIZE_MAX;
};

Format formatOf(std::string_view f) {
  Format out;
  std::string_view const name = f.substr(0, f.find(','));
  if (name == "text") {
    out.raw = true;
  } else if (name == "rawjson") {
    out.raw = out.json = true;
  } else if (name == "json") {
    out.json = true;
  } else if (name != "plain") {
    throw ParseException("unknown format " + std::string(name) + " (plain, json, text, rawjson)");
  }
  for (std::size_t at = f.find(','); at != std::string_view::npos;) {
    std::size_t const next = f.find(',', at + 1);
    std::string_view const opt = f.substr(at + 1, next == std::string_view::npos ? next : next - at - 1);
    if (opt.substr(0, 6) != "limit=") throw ParseException("unknown format option " + std::string(opt));
    out.limit = valueFromStrep<std::size_t>(opt.substr(6));
    if (out.limit == 0) out.limit = SIZE_MAX;
    at = next;
  }
  return out;
}

// An entity shows as its name, or, having none, as its attribute `key` (a
// route shows as its route key), or else as its type.
Plain entityPlain(Entity const* e) {
  if (e == nullptr) return Plain::none();
  if (!e->name().str().empty()) return Plain::string(e->name().str());
  if (TypeInfo const* info = e->kivTypeInfo(); info != nullptr)
    if (Attr const* key = info->attr("key"); key != nullptr && key->get != nullptr) return plainFromStrep(key->get(*e));
  return Plain::string(std::string(e->typeName()));
}

Plain scalarPlain(Entity const& e, Attr const& a) {
  if (a.entity != nullptr) return entityPlain(a.entity(e).ptr());
  return plainFromStrep(a.get(e));
}

struct PlainEntries {
  std::vector<std::pair<Plain, Plain>> shown;
  std::size_t total = 0;
};

// A collection's entries, the first `limit` of them rendered.
PlainEntries entriesPlain(Entity const& e, Attr const& a, std::size_t limit) {
  PlainEntries out;
  a.forEach(e, [&](std::string const& key, std::string const& value) {
    if (out.total++ >= limit) return;
    Plain v = a.lookupEntity != nullptr ? entityPlain(a.lookupEntity(e, key).ptr()) : plainFromStrep(value);
    out.shown.emplace_back(plainFromStrep(key), std::move(v));
  });
  return out;
}

// "key\tvalue" lines (the value left out where it reads as the key: an
// entity keyed by its own key), then how many were left out.
std::string entriesText(PlainEntries const& r, std::string const& indent) {
  std::string out;
  for (auto const& [k, v] : r.shown) {
    std::string const key = k.text(), value = v.text();
    out += indent + key + (value == key ? "" : "\t" + value) + "\n";
  }
  if (std::size_t const more = r.total - r.shown.size(); more > 0)
    out += indent + "... " + std::to_string(more) + (more == 1 ? " more entry\n" : " more entries\n");
  return out;
}

// An object keyed by each key's text; one left out at the limit carries a
// last member "..." with how many were.
std::string entriesJson(PlainEntries const& r) {
  std::string out = "{";
  for (std::size_t i = 0; i < r.shown.size(); ++i)
    out += (i ? ", " : "") + jsonString(r.shown[i].first.text()) + ": " + r.shown[i].second.json();
  if (r.total > r.shown.size())
    out += std::string(r.shown.empty() ? "" : ", ") + "\"...\": " + std::to_string(r.total - r.shown.size());
  return out + "}";
}

std::string entriesAnswer(Entity const& e, Attr const& a, Format const& f) {
  PlainEntries const r = entriesPlain(e, a, f.limit);
  return f.json ? entriesJson(r) + "\n" : entriesText(r, "");
}

std::string getEntityPlain(Entity const& e, Format const& f) {
  std::string out;
  bool first = true;
  auto row = [&](std::string const& name, std::string const& text) {
    out += f.json ? std::string(first ? "" : ", ") + jsonString(name) + ": " + text : name + "\t" + text + "\n";
    first = false;
  };
  for (Attr const& a : typeInfo(e).attrs()) {
    if (a.pathKeys) {
      PlainEntries const r = entriesPlain(e, a, f.limit);
      if (!f.json) {
        out += entriesText(r, "");
        continue;
      }
      for (auto const& [k, v] : r.shown) row(k.text(), v.json());
      continue;
    }
    if (a.get != nullptr) {
      Plain const v = scalarPlain(e, a);
      row(a.name, f.json ? v.json() : v.text());
    }
    if (a.count != nullptr) {
      PlainEntries const r = entriesPlain(e, a, f.limit);
      if (f.json) {
        row(a.name, entriesJson(r));
      } else {
        row(a.name, std::to_string(r.total) + (r.total == 1 ? " entry" : " entries"));
        out += entriesText(r, "  ");
      }
    }
  }
  if (!f.json) return out;
  return "{\"type\": " + jsonString(e.typeName()) + ", \"name\": " + jsonString(e.name().str()) +
         ", \"attributes\": {" + out + "}}\n";
}

std::string onePlain(Plain const& v, Format const& f) { return (f.json ? v.json() : v.text()) + "\n"; }

std::string answerOf(Entity const& root, std::string_view verb, Format const& f, std::string_view path,
                     std::string_view arg) {
  Target t = resolve(root, path, verb == "set" || verb == "del");
  Entity const& e = *t.entity;
  bool const json = f.json;
  // raw keeps the value text form as it always was (an entity's get shows
  // each collection by its count); plain shows entries, bounded.
  auto value = [&](std::string const& text) {
    return f.raw ? oneValue(text, json) : onePlain(plainFromStrep(text), f);
  };
  if (!t.derived.empty()) {
    if (verb != "invoke") throw RangeException(std::string(path) + " is an operation: invoke it");
    std::string result = attrInvoke(e, t.derived, arg);
    return result.empty() ? std::string() : value(result);
  }
  if (verb == "ls") {
    if (t.attr == nullptr) return listEntity(e, json);
    if (t.attr->kind == AttrKind::collection && !t.keyed)
      return f.raw ? rows(attrEntries(e, t.attr->name), json) : entriesAnswer(e, *t.attr, f);
    return listEntity(e, json);
  }
  if (verb == "get") {
    if (t.attr == nullptr) return f.raw ? getEntity(e, json) : getEntityPlain(e, f);
    if (t.keyed) {
      if (!f.raw && t.attr->lookupEntity != nullptr && t.attr->has(e, t.key))
        return onePlain(entityPlain(t.attr->lookupEntity(e, t.key).ptr()), f);
      return value(attrLookup(e, t.attr->name, t.key));
    }
    if (t.attr->kind == AttrKind::collection)
      return f.raw ? rows(attrEntries(e, t.attr->name), json) : entriesAnswer(e, *t.attr, f);
    if (t.attr->kind == AttrKind::operation) throw RangeException(t.attr->name + " is an operation: invoke it");
    if (!f.raw) {
      attrGet(e, t.attr->name);  // refuses what is not a value
      return onePlain(scalarPlain(e, *t.attr), f);
    }
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
    return result.empty() ? std::string() : value(result);
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
  try {
    return "ok\n" + answerOf(root, f[0], formatOf(f[1]), f[2], f.size() > 3 ? f[3] : std::string_view());
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
