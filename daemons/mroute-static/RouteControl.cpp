#include "RouteControl.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Brisklog/Brisklog.h"
#include "Kiv/Exception.h"
#include "Kiv/ValueText.h"

namespace MrouteStatic {

namespace {

using Answer = Kiv::RequestServer::Answer;

std::vector<std::string> split(std::string const& text) {
  std::istringstream in(text);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

std::string joined(std::vector<std::string> const& words) {
  std::string out;
  for (std::string const& w : words) out += (out.empty() ? "" : " ") + w;
  return out;
}

std::string oifsText(StaticRoute const& r) {
  std::string out;
  for (Wirly::IntfId const& o : r.oifs) out += (out.empty() ? "" : ",") + o.name();
  return out.empty() ? "-" : out;
}

}  // namespace

std::string changesText(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " run-time change" : " run-time changes");
}

std::string controlSocketPath(std::string const& app) {
  return Kiv::PathTrust::runtimeDir("mroute-static", controlSocketUse.envVar.data()) + "/" + app + ".sock";
}

RouteControl::RouteControl(StaticPublisher& pub, std::string file, std::ostream& out, std::ostream& err)
    : pub_(pub), file_(std::move(file)), out_(out), err_(err) {}

RouteMap RouteControl::routes() const {
  RouteMap out = now_.file;
  for (RouteId const& id : now_.removed) out.erase(id);
  for (auto const& [id, r] : now_.added) out[id] = r;
  return out;
}

// A run-time change the file now makes itself is the file's.
void RouteControl::doForgetAgreed() {
  for (auto it = now_.added.begin(); it != now_.added.end();) {
    auto f = now_.file.find(it->first);
    it = f != now_.file.end() && f->second == it->second ? now_.added.erase(it) : std::next(it);
  }
  for (auto it = now_.removed.begin(); it != now_.removed.end();)
    it = now_.file.count(*it) == 0 ? now_.removed.erase(it) : std::next(it);
}

StaticPublisher::Change RouteControl::doApply() {
  StaticPublisher::Change c = pub_.apply(routes());
  c.malformed = malformed_;
  for (std::string const& p : pub_.problems()) err_ << "mroute-static: " << p << "\n";
  err_.flush();
  complete_ = c.refused() == 0;
  return c;
}

StaticPublisher::Change RouteControl::load(ParsedFile const& parsed) {
  now_.file = parsed.routes;
  malformed_ = parsed.errors.size();
  doForgetAgreed();
  StaticPublisher::Change const c = doApply();
  out_ << pub_.summary(c);
  if (runtimeChanges() != 0) out_ << "; " << changesText(runtimeChanges()) << " kept (not in " << file_ << ")";
  out_ << std::endl;
  BRISKLOG("MrouteStatic",
           "load: %zu routes (+%zu -%zu ~%zu), refused %zu: malformed %zu, table full %zu, no interface index %zu, "
           "no VRF table %zu, not published %zu; run-time changes kept %zu",
           c.routes, c.added, c.removed, c.changed, c.refused(), c.malformed, c.tableFull, c.noOifIndex, c.noTable,
           c.otherwise, runtimeChanges());
  return c;
}

Answer RouteControl::answer(std::string const& request, Kiv::RequestServer::Peer const& peer) {
  std::vector<std::string> const w = split(request);
  if (w.size() == 2 && w[0] == "list" && (w[1] == "text" || w[1] == "json"))
    return Answer::okIs(w[1] == "json" ? listJson() : listText());
  if (w.size() >= 2 && (w[0] == "add" || w[0] == "del") && (w[1] == "runtime" || w[1] == "persist"))
    return doChange(w[0] == "add", w[1] == "persist", std::vector<std::string>(w.begin() + 2, w.end()), peer);
  BRISKLOG("MrouteStatic", "control: unknown request from pid %d uid %u", int(peer.pid), unsigned(peer.uid));
  return Answer::errorIs("unknown request '" + request.substr(0, 80) + "'");
}

Answer RouteControl::doChange(bool add, bool persist, std::vector<std::string> const& words,
                              Kiv::RequestServer::Peer const& peer) {
  char const* const verb = add ? "add" : "del";
  std::string const who = "pid " + std::to_string(peer.pid) + " uid " + std::to_string(peer.uid);
  auto refuse = [&](std::string const& why) {
    err_ << "mroute-static: refused " << verb << " " << joined(words) << " from " << who << ": " << why << std::endl;
    BRISKLOG("MrouteStatic", "control: refused %s %s from pid %d uid %u: %s", verb, joined(words), int(peer.pid),
             unsigned(peer.uid), why);
    return Answer::errorIs(std::string(verb) + ": " + why);
  };

  RouteId id;
  StaticRoute route;
  try {
    if (add) {
      std::tie(id, route) = parseRoute(words);
    } else {
      if (words.size() != 3)
        throw Kiv::ParseException("expected 'vrf source|* group', found " + std::to_string(words.size()) + " fields");
      id = parseRouteId(words);
    }
  } catch (Kiv::Exception const& bad) {
    return refuse(std::string(bad.what()) + "; route refused");
  }
  std::string const text = add ? routeText(id, route) : routeIdText(id);
  // A route removed at run time can still be removed from the file.
  if (!add && routes().count(id) == 0 && !(persist && now_.file.count(id) != 0))
    return refuse("no route " + text + "; nothing removed");

  State const saved = now_;
  if (persist) {
    if (add) {
      now_.file[id] = route;
    } else {
      now_.file.erase(id);
    }
    now_.added.erase(id);
    now_.removed.erase(id);
  } else if (add) {
    now_.added[id] = route;
    now_.removed.erase(id);
  } else {
    now_.added.erase(id);
    if (now_.file.count(id) != 0) now_.removed.insert(id);
  }
  doForgetAgreed();

  // The file first: a file that cannot be written changes nothing that
  // readers of the tables see.
  std::string oldText;
  if (persist) {
    std::ifstream in(file_);
    std::stringstream s;
    if (in) s << in.rdbuf();
    if (!in || in.bad()) {
      int const e = errno;
      now_ = saved;
      return refuse("cannot read " + file_ + ": " + std::strerror(e) + "; nothing changed");
    }
    oldText = s.str();
    try {
      writeRoutesFile(file_, rewriteRoutes(oldText, id, add ? &route : nullptr));
    } catch (std::exception const& e) {
      now_ = saved;
      return refuse("cannot write " + file_ + ": " + e.what() + "; nothing changed");
    }
  }
  StaticPublisher::Change const c = doApply();
  if (add && pub_.refused().count(id) != 0) {
    std::string const why = pub_.refused().at(id);
    now_ = saved;
    doApply();
    std::string undo;
    if (persist) try {
        writeRoutesFile(file_, oldText);
      } catch (std::exception const& e) {
        undo = "; " + file_ + " keeps the route: putting it back failed: " + e.what();
      }
    return refuse(routeIdText(id) + ": " + why + "; route refused" + undo);
  }

  std::string const where = persist ? "written to " + file_ : "run-time, " + file_ + " unchanged";
  out_ << pub_.summary(c) << "; " << verb << " " << text << " (" << where << ") by " << who << std::endl;
  BRISKLOG("MrouteStatic", "control: %s %s (%s) from pid %d uid %u: %zu routes (+%zu -%zu ~%zu)", verb, text,
           persist ? "persisted" : "run-time", int(peer.pid), unsigned(peer.uid), c.routes, c.added, c.removed,
           c.changed);
  std::string body = std::string(add ? "added " : "removed ") + text;
  if (persist) {
    body += ", written to " + file_ + "\n";
  } else {
    body += " at run time, not written to " + file_ +
            ": kept across reloads (SIGHUP) until the file says the same, lost when mroute-static stops\n";
  }
  return Answer::okIs(body);
}

bool RouteControl::published(RouteId const& id, StaticRoute const& r) const {
  auto p = pub_.published().find(id);
  return p != pub_.published().end() && p->second == r;
}

std::string RouteControl::listText() const {
  RouteMap const all = routes();
  std::vector<std::vector<std::string>> rows = {{"# vrf", "source", "group", "iif", "oifs", "priority"}};
  std::vector<std::string> notes = {""};
  for (auto const& [id, r] : all) {
    rows.push_back({id.first.str(), sourceText(id.second), id.second.group().address().str(), r.iif.name(), oifsText(r),
                    std::to_string(r.priority)});
    std::string note = now_.added.count(id) != 0 ? "run-time" : "";
    if (!published(id, r)) {
      auto why = pub_.refused().find(id);
      std::string const reason = why == pub_.refused().end() ? "" : why->second;
      note +=
          (note.empty() ? "" : ", ") +
          (reason.rfind("not published", 0) == 0 ? reason : "not published" + (reason.empty() ? "" : ": " + reason));
    }
    notes.push_back(note);
  }
  std::vector<std::size_t> width(rows.front().size(), 0);
  for (auto const& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  std::ostringstream os;
  os << "# " << pub_.app() << ": " << all.size() << " routes from " << file_;
  if (runtimeChanges() != 0) os << "; " << changesText(runtimeChanges()) << " not in the file";
  os << "\n";
  for (std::size_t n = 0; n < rows.size(); ++n) {
    std::string line;
    for (std::size_t i = 0; i < rows[n].size(); ++i)
      line += rows[n][i] + (i + 1 < rows[n].size() ? std::string(width[i] - rows[n][i].size() + 2, ' ') : "");
    if (!notes[n].empty()) line += "  # " + notes[n];
    os << line << "\n";
  }
  for (RouteId const& id : now_.removed) os << "# removed at run time: " << routeIdText(id) << "\n";
  return os.str();
}

std::string RouteControl::listJson() const {
  std::ostringstream os;
  os << "{\"app\": " << Kiv::jsonString(pub_.app()) << ", \"file\": " << Kiv::jsonString(file_) << ", \"routes\": [";
  char const* sep = "";
  for (auto const& [id, r] : routes()) {
    os << sep << "{\"vrf\": " << Kiv::jsonString(id.first.str()) << ", \"family\": \""
       << (id.second.group().address().af() == Wirly::ipv4 ? "ipv4" : "ipv6")
       << "\", \"source\": " << Kiv::jsonString(sourceText(id.second))
       << ", \"group\": " << Kiv::jsonString(id.second.group().address().str())
       << ", \"iif\": " << Kiv::jsonString(r.iif.name()) << ", \"oifs\": [";
    for (std::size_t i = 0; i < r.oifs.size(); ++i) os << (i ? ", " : "") << Kiv::jsonString(r.oifs[i].name());
    bool const up = published(id, r);
    os << "], \"priority\": " << unsigned(r.priority) << ", \"origin\": \""
       << (now_.added.count(id) != 0 ? "run-time" : "file") << "\", \"published\": " << (up ? "true" : "false");
    if (auto why = pub_.refused().find(id); !up && why != pub_.refused().end())
      os << ", \"refused\": " << Kiv::jsonString(why->second);
    os << "}";
    sep = ", ";
  }
  os << "], \"removedAtRunTime\": [";
  sep = "";
  for (RouteId const& id : now_.removed) {
    os << sep << "{\"vrf\": " << Kiv::jsonString(id.first.str())
       << ", \"source\": " << Kiv::jsonString(sourceText(id.second))
       << ", \"group\": " << Kiv::jsonString(id.second.group().address().str()) << "}";
    sep = ", ";
  }
  os << "]}\n";
  return os.str();
}

}  // namespace MrouteStatic
