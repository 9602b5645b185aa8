#include "RouteFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <set>
#include <sstream>

#include "Kiv/Exception.h"
#include "Kiv/FileDesc.h"

namespace MrouteStatic {

namespace {

using Wirly::IpGenAddr;
using Wirly::IpGenPrefix;

IpGenAddr address(std::string const& text, char const* role) {
  try {
    return IpGenAddr(text);
  } catch (Kiv::Exception const&) {
    throw Kiv::ParseException("'" + text + "' is not an " + role + " address");
  }
}

Wirly::IntfId interface(std::string const& name) {
  try {
    // The empty name is the empty id, which names no interface.
    if (!name.empty()) return Wirly::IntfId(name);
  } catch (Kiv::Exception const&) {
  }
  throw Kiv::ParseException("'" + name + "' is not an interface name (Ethernet1, Vlan100, ...)");
}

std::vector<Wirly::IntfId> interfaces(std::string const& list) {
  std::vector<Wirly::IntfId> out;
  if (list == "-") return out;
  std::size_t pos = 0;
  while (pos <= list.size()) {
    std::size_t const comma = std::min(list.find(',', pos), list.size());
    out.push_back(interface(list.substr(pos, comma - pos)));
    pos = comma + 1;
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::uint8_t priority(std::string const& text) {
  if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(text) < 1 || std::stoul(text) > 255)
    throw Kiv::ParseException("priority '" + text + "' is not a number from 1 to 255");
  return static_cast<std::uint8_t>(std::stoul(text));
}

}  // namespace

IpGenRouteKey routeKey(std::string const& source, std::string const& group) {
  IpGenAddr const g = address(group, "IP group");
  if (!g.isMulticast()) throw Kiv::ParseException("group " + group + " is not a multicast address");
  if (source == "*")
    return IpGenRouteKey(IpGenPrefix(IpGenAddr(g.af() == Wirly::ipv4 ? "0.0.0.0" : "::"), 0), IpGenPrefix(g));
  IpGenAddr const s = address(source, "IP source");
  if (s.af() != g.af())
    throw Kiv::ParseException("source " + source + " and group " + group + " are of different families");
  if (s.isMulticast()) throw Kiv::ParseException("source " + source + " is a multicast address");
  return IpGenRouteKey(IpGenPrefix(s), IpGenPrefix(g));
}

std::string sourceText(IpGenRouteKey const& key) {
  return key.source().len() == 0 ? "*" : key.source().address().str();
}

std::vector<std::string> routeWords(std::string line) {
  if (std::size_t const hash = line.find('#'); hash != std::string::npos) line.erase(hash);
  std::istringstream words(line);
  std::vector<std::string> w;
  for (std::string s; words >> s;) w.push_back(s);
  return w;
}

std::pair<RouteId, StaticRoute> parseRoute(std::vector<std::string> const& w) {
  if (w.size() < 5 || w.size() > 6)
    throw Kiv::ParseException("expected 'vrf source|* group iif oif[,oif...]|- [priority]', found " +
                              std::to_string(w.size()) + " fields");
  RouteId const id = parseRouteId(w);
  StaticRoute r;
  r.iif = interface(w[3]);
  r.oifs = interfaces(w[4]);
  if (w.size() == 6) r.priority = priority(w[5]);
  if (std::binary_search(r.oifs.begin(), r.oifs.end(), r.iif))
    throw Kiv::ParseException("incoming interface " + w[3] + " is also an outgoing interface");
  return {id, r};
}

RouteId parseRouteId(std::vector<std::string> const& w) {
  if (w.size() < 3)
    throw Kiv::ParseException("expected 'vrf source|* group', found " + std::to_string(w.size()) + " fields");
  L3::VrfName vrf;
  try {
    vrf = L3::VrfName(w[0]);
  } catch (Kiv::Exception const&) {
    throw Kiv::ParseException("VRF name longer than " + std::to_string(L3::VrfName::maxLength) + " bytes");
  }
  return RouteId(vrf, routeKey(w[1], w[2]));
}

std::string routeIdText(RouteId const& id) {
  return id.first.str() + " " + sourceText(id.second) + " " + id.second.group().address().str();
}

std::string routeText(RouteId const& id, StaticRoute const& r) {
  std::string out = routeIdText(id) + " " + r.iif.name() + " ";
  if (r.oifs.empty()) out += "-";
  for (std::size_t i = 0; i < r.oifs.size(); ++i) out += (i ? "," : "") + r.oifs[i].name();
  if (r.priority != 1) out += " " + std::to_string(r.priority);
  return out;
}

ParsedFile parseRoutes(std::istream& in, std::string const& fileName) {
  ParsedFile out;
  std::map<RouteId, unsigned> lineOf;
  std::string line;
  for (unsigned number = 1; std::getline(in, line); ++number) {
    std::vector<std::string> const w = routeWords(line);
    if (w.empty()) continue;
    try {
      auto [id, r] = parseRoute(w);
      if (auto it = lineOf.find(id); it != lineOf.end())
        throw Kiv::ParseException("route (" + w[1] + ", " + w[2] + ") in VRF " + w[0] + " already given on line " +
                                  std::to_string(it->second));
      lineOf.emplace(id, number);
      out.routes.emplace(id, r);
    } catch (Kiv::Exception const& bad) {
      out.errors.push_back(fileName + ":" + std::to_string(number) + ": " + bad.what() + "; line skipped");
    }
  }
  return out;
}

std::string rewriteRoutes(std::string const& text, RouteId const& id, StaticRoute const* route) {
  std::vector<std::string> lines;
  for (std::size_t pos = 0; pos < text.size();) {
    std::size_t const nl = std::min(text.find('\n', pos), text.size());
    lines.push_back(text.substr(pos, nl - pos));
    pos = nl + 1;
  }
  // The lines that name the route, and among them the one the loader
  // takes: the first that is whole.
  std::vector<std::size_t> naming;
  std::size_t taken = lines.size();
  std::set<RouteId> seen;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::vector<std::string> const w = routeWords(lines[i]);
    if (w.empty()) continue;
    try {
      if (parseRouteId(w) == id) naming.push_back(i);
      auto const whole = parseRoute(w);
      if (seen.insert(whole.first).second && whole.first == id) taken = i;
    } catch (Kiv::Exception const&) {
    }
  }
  std::vector<std::string> out;
  if (route == nullptr) {
    for (std::size_t i = 0; i < lines.size(); ++i)
      if (!std::binary_search(naming.begin(), naming.end(), i)) out.push_back(lines[i]);
  } else {
    if (taken == lines.size() && !naming.empty()) taken = naming.front();
    out = lines;
    if (taken == lines.size()) {
      out.push_back(routeText(id, *route));
    } else {
      // Keeps the line's indentation and its comment.
      std::string const& old = lines[taken];
      std::size_t const hash = old.find('#');
      std::string line = old.substr(0, old.find_first_not_of(" \t")) + routeText(id, *route);
      if (hash != std::string::npos) {
        std::size_t const end = old.find_last_not_of(" \t", hash - 1) + 1;  // a route's words come first
        line += (end == hash ? " " : old.substr(end, hash - end)) + old.substr(hash);
      }
      out[taken] = line;
    }
  }
  std::string result;
  for (std::string const& l : out) result += l + "\n";
  return result;
}

void writeRoutesFile(std::string const& path, std::string const& text) {
  // Through a symbolic link to the file it names; the new file takes the
  // old one's mode and, for root, its owner.
  char* real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) throw Kiv::ErrnoException("realpath(" + path + ")", errno);
  std::string const target(real);
  std::free(real);
  struct stat st {};
  if (::stat(target.c_str(), &st) != 0) throw Kiv::ErrnoException("stat(" + target + ")", errno);
  std::size_t const slash = target.rfind('/');
  std::string const dir = target.substr(0, slash == 0 ? 1 : slash);
  std::string tmp = dir + (dir == "/" ? "" : "/") + "." + target.substr(slash + 1) + ".XXXXXX";
  int const fd = ::mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) throw Kiv::ErrnoException("mkstemp(" + tmp + ")", errno);
  Kiv::FileDesc file(fd);
  auto fail = [&](std::string const& call) {
    int const e = errno;
    ::unlink(tmp.c_str());
    throw Kiv::ErrnoException(call + "(" + tmp + ")", e);
  };
  for (std::size_t done = 0; done < text.size();) {
    ssize_t const w = ::write(fd, text.data() + done, text.size() - done);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0) fail("write");
    done += std::size_t(w);
  }
  if (::fchmod(fd, st.st_mode & 07777) != 0) fail("fchmod");
  if (::geteuid() == 0 && ::fchown(fd, st.st_uid, st.st_gid) != 0) fail("fchown");
  if (::fsync(fd) != 0) fail("fsync");
  if (::rename(tmp.c_str(), target.c_str()) != 0) fail("rename");
  Kiv::FileDesc d(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (d && ::fsync(d.fd()) != 0) throw Kiv::ErrnoException("fsync(" + dir + ")", errno);
}

}  // namespace MrouteStatic
