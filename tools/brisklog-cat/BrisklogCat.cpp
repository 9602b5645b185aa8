// brisklog-cat: prints the records of trace files in time order, with their
// text rebuilt from the call sites' descriptors. See usage() below.
#include <dirent.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Brisklog/Reader.h"
#include "Brisklog/Retention.h"
#include "MrouteVersion.h"

namespace {

char const* const kUsage = R"(Usage: brisklog-cat [options] FILE...
       brisklog-cat --list [DIR] | --prune [DIR]

Prints the records of Brisklog trace files in time order, oldest first, with
their text rebuilt from the call sites that wrote them. Works on the file of a
running process and on the file a dead process left behind. Records of several
files are merged by time and prefixed with [process:pid].

Options:
  -f, --follow          keep printing records as they are written; ends once
                        every writing process has gone and all is printed
  -s, --source NAME     only records from source NAME; repeatable; a trailing
                        '*' matches a prefix ("Mrt*")
      --since TIME      only records written at or after TIME
      --until TIME      only records written before TIME
      --last DURATION   only the records of the last DURATION before the
                        newest record (of all files given)
  -l, --location        add the call site (file:line function) to each line
  -H, --header          first describe each file (process, sizes, clock)
      --list [DIR]      list the trace files in DIR (default $BRISKLOG_DIR,
                        else /dev/shm) with their process and whether it runs
      --prune [DIR]     remove the trace files in DIR whose process has gone
                        (and abandoned files that are not readable trace
                        files); a running writer holds a lock on its file
  -h, --help            show this text
      --version         print the version

TIME is UTC as 2026-11-21T18:22:26[.123][Z], seconds since the epoch
(1763749346.5), or -DURATION for that long before now. DURATION is a number
with one of ns us ms s m h (500ms, 10s, 1.5m).

Output lines: <UTC time> <source> <text>. Damage found in a file (a region
holding no record, a truncated file, a damaged header) is reported on stderr
as "brisklog-cat: FILE: ..." and decoding goes on with the rest.

Exit status: 0 when all was read, 1 when a file was damaged or unreadable,
2 for a usage error.
)";

volatile sig_atomic_t gStop = 0;

std::int64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return std::int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::optional<std::int64_t> parseDuration(std::string const& s) {
  char* end = nullptr;
  double v = std::strtod(s.c_str(), &end);
  if (end == s.c_str() || !(v >= 0) || !std::isfinite(v)) return std::nullopt;
  std::string unit(end);
  double scale;
  if (unit == "ns")
    scale = 1;
  else if (unit == "us")
    scale = 1e3;
  else if (unit == "ms")
    scale = 1e6;
  else if (unit == "s" || unit.empty())
    scale = 1e9;
  else if (unit == "m")
    scale = 60e9;
  else if (unit == "h")
    scale = 3600e9;
  else
    return std::nullopt;
  double ns = v * scale;
  if (ns > 9e18) return std::nullopt;
  return std::int64_t(ns);
}

std::optional<std::int64_t> parseTime(std::string const& s) {
  if (!s.empty() && s[0] == '-') {
    auto d = parseDuration(s.substr(1));
    if (!d) return std::nullopt;
    return nowNs() - *d;
  }
  if (s.find('-') != std::string::npos) {
    std::tm parts{};
    char const* rest = strptime(s.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest) rest = strptime(s.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (!rest) return std::nullopt;
    std::int64_t ns = std::int64_t(timegm(&parts)) * 1000000000;
    if (*rest == '.') {
      ++rest;
      std::int64_t scale = 100000000;
      while (*rest >= '0' && *rest <= '9') {
        ns += (*rest - '0') * scale;
        scale /= 10;
        ++rest;
      }
    }
    if (*rest == 'Z') ++rest;
    if (*rest) return std::nullopt;
    return ns;
  }
  char* end = nullptr;
  double secs = std::strtod(s.c_str(), &end);
  if (end == s.c_str() || *end || !std::isfinite(secs) || std::fabs(secs) > 9e9) return std::nullopt;
  return std::int64_t(secs * 1e9);
}

struct Options {
  bool follow = false;
  bool location = false;
  bool header = false;
  bool list = false;
  bool prune = false;
  std::string listDir;
  std::vector<std::string> sources;
  std::optional<std::int64_t> since;
  std::optional<std::int64_t> until;
  std::optional<std::int64_t> last;
  std::vector<std::string> files;
};

bool sourceMatches(Options const& o, std::string const& source) {
  if (o.sources.empty()) return true;
  for (std::string const& want : o.sources) {
    if (!want.empty() && want.back() == '*') {
      if (source.compare(0, want.size() - 1, want, 0, want.size() - 1) == 0) return true;
    } else if (source == want) {
      return true;
    }
  }
  return false;
}

struct Input {
  std::unique_ptr<Brisklog::Reader> reader;
  std::string label;
  std::size_t problemsShown = 0;
  std::size_t notesShown = 0;
};

struct Line {
  std::int64_t wallNs;
  std::string text;
};

// Reports what a file's reader found since the last call; true if damage.
bool report(Input& in, std::string const& path) {
  auto const& problems = in.reader->problems();
  for (; in.problemsShown < problems.size(); ++in.problemsShown)
    std::cerr << "brisklog-cat: " << path << ": " << problems[in.problemsShown] << '\n';
  auto const& notes = in.reader->notes();
  for (; in.notesShown < notes.size(); ++in.notesShown)
    std::cerr << "brisklog-cat: " << path << ": note: " << notes[in.notesShown] << '\n';
  return !problems.empty();
}

void describe(Brisklog::FileInfo const& i) {
  std::cout << "# file " << i.path << "\n# process " << i.processName << " pid " << i.pid << "\n# opened "
            << Brisklog::wallTimeText(i.openedNs) << "\n# clock " << (i.tsc ? "tsc" : "monotonic") << ", "
            << i.ticksPerSecond << " ticks/s"
            << "\n# rings " << i.ringCount << " x " << i.ringBytes << " bytes, records up to " << i.maxRecordBytes
            << " bytes, strings up to " << i.maxStringBytes << " bytes\n# descriptor table " << i.descriptorBytes
            << " bytes\n";
}

int listFiles(std::string dir, bool prune) {
  if (dir.empty()) {
    char const* env = std::getenv("BRISKLOG_DIR");
    dir = env && *env ? env : "/dev/shm";
  }
  DIR* d = opendir(dir.c_str());
  if (!d) {
    std::cerr << "brisklog-cat: " << dir << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n.size() > 9 && n.compare(n.size() - 9, 9, ".brisklog") == 0) names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  if (prune) {
    for (std::string const& p : Brisklog::prune(dir, Brisklog::Retention{0, 0}).removed)
      std::cout << "removed " << p << '\n';
    return 0;
  }
  for (std::string const& n : names) {
    std::string path = dir + "/" + n;
    Brisklog::Reader r(path);
    if (!r.usable()) {
      std::cout << path << "  unreadable: " << (r.problems().empty() ? "?" : r.problems().front()) << '\n';
      continue;
    }
    std::cout << path << "  " << r.info().processName << " pid " << r.info().pid << "  "
              << (r.writerAlive() ? "running" : "gone") << "  opened " << Brisklog::wallTimeText(r.info().openedNs)
              << '\n';
  }
  return 0;
}

int usageError(std::string const& what) {
  std::cerr << "brisklog-cat: " << what << "\nTry 'brisklog-cat --help'.\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  std::vector<std::string> args(argv + 1, argv + argc);
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string const& a = args[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= args.size()) return false;
      out = args[++i];
      return true;
    };
    std::string v;
    if (a == "-h" || a == "--help") {
      std::cout << kUsage;
      return 0;
    } else if (a == "--version") {
      std::cout << "brisklog-cat (libmroute) " << MROUTE_VERSION << '\n';
      return 0;
    } else if (a == "-f" || a == "--follow") {
      o.follow = true;
    } else if (a == "-l" || a == "--location") {
      o.location = true;
    } else if (a == "-H" || a == "--header") {
      o.header = true;
    } else if (a == "--list" || a == "--prune") {
      o.list = true;
      o.prune = a == "--prune";
      if (i + 1 < args.size() && args[i + 1][0] != '-') o.listDir = args[++i];
    } else if (a == "-s" || a == "--source") {
      if (!value(v)) return usageError(a + " needs a source name");
      o.sources.push_back(v);
    } else if (a == "--since" || a == "--until") {
      if (!value(v)) return usageError(a + " needs a time");
      auto t = parseTime(v);
      if (!t) return usageError("bad time '" + v + "'");
      (a == "--since" ? o.since : o.until) = *t;
    } else if (a == "--last") {
      if (!value(v)) return usageError(a + " needs a duration");
      o.last = parseDuration(v);
      if (!o.last) return usageError("bad duration '" + v + "'");
    } else if (a == "--") {
      o.files.insert(o.files.end(), args.begin() + std::ptrdiff_t(i) + 1, args.end());
      break;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return usageError("unknown option " + a);
    } else {
      o.files.push_back(a);
    }
  }
  if (o.list) return listFiles(o.listDir, o.prune);
  if (o.files.empty()) return usageError("no trace file given");

  signal(SIGINT, [](int) { gStop = 1; });
  signal(SIGTERM, [](int) { gStop = 1; });
  signal(SIGPIPE, SIG_IGN);

  std::vector<Input> inputs;
  bool damaged = false;
  for (std::string const& f : o.files) {
    Input in;
    in.reader = std::make_unique<Brisklog::Reader>(f);
    auto const& info = in.reader->info();
    if (o.files.size() > 1) in.label = "[" + info.processName + ":" + std::to_string(info.pid) + "] ";
    if (o.header && in.reader->usable()) describe(info);
    inputs.push_back(std::move(in));
  }

  bool first = true;
  for (;;) {
    std::vector<Line> lines;
    bool anyAlive = false;
    for (std::size_t k = 0; k < inputs.size(); ++k) {
      Input& in = inputs[k];
      for (Brisklog::Record const& r : in.reader->read()) {
        if (!sourceMatches(o, r.source())) continue;
        if (o.since && r.wallNs < *o.since) continue;
        if (o.until && r.wallNs >= *o.until) continue;
        std::string text = Brisklog::wallTimeText(r.wallNs) + ' ' + in.label + r.source() + ' ' + r.text();
        if (o.location && r.descriptor) {
          text += "  [" + r.descriptor->file + ':' + std::to_string(r.descriptor->line) + ' ' + r.descriptor->function +
                  ']';
        }
        lines.push_back({r.wallNs, std::move(text)});
      }
      damaged = report(in, o.files[k]) || damaged;
      anyAlive = anyAlive || in.reader->writerAlive();
    }
    std::stable_sort(lines.begin(), lines.end(), [](Line const& a, Line const& b) { return a.wallNs < b.wallNs; });
    std::int64_t cut = INT64_MIN;
    if (first && o.last && !lines.empty() && __builtin_sub_overflow(lines.back().wallNs, *o.last, &cut))
      cut = INT64_MIN;
    for (Line const& l : lines) {
      if (l.wallNs >= cut) std::cout << l.text << '\n';
    }
    std::cout.flush();
    first = false;
    if (!o.follow || gStop) break;
    if (!anyAlive) {
      // One more pass picks up what the writer committed just before it went.
      o.follow = false;
      continue;
    }
    timespec pause{0, 200 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  return damaged ? 1 : 0;
}
