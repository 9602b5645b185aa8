#include "Kiv/Trace.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "Kiv/Exception.h"

namespace Kiv {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<TraceHandle*> handles;
  std::string config;
  bool envRead = false;
  TraceSink* sink = nullptr;
};

Registry& registry() {
  static Registry* r = new Registry();  // outlives handles in other libraries
  return *r;
}

bool globMatch(std::string_view pat, std::string_view s) {
  std::size_t p = 0, i = 0, star = std::string_view::npos, mark = 0;
  while (i < s.size()) {
    if (p < pat.size() && pat[p] == '*') {
      star = p++;
      mark = i;
    } else if (p < pat.size() && pat[p] == s[i]) {
      ++p;
      ++i;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      i = ++mark;
    } else {
      return false;
    }
  }
  while (p < pat.size() && pat[p] == '*') ++p;
  return p == pat.size();
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::uint16_t parseLevels(std::string_view entry, std::string_view lv) {
  auto digit = [&](char c) {
    if (c < '0' || c > '9') throw ParseException("bad trace levels in '" + std::string(entry) + "'");
    return c - '0';
  };
  if (lv.size() == 1) return std::uint16_t(1u << digit(lv[0]));
  if (lv.size() == 3 && lv[1] == '-') {
    int lo = digit(lv[0]), hi = digit(lv[2]);
    if (lo > hi) throw ParseException("bad trace levels in '" + std::string(entry) + "'");
    return std::uint16_t(((1u << (hi + 1)) - 1) & ~((1u << lo) - 1));
  }
  throw ParseException("bad trace levels in '" + std::string(entry) + "'");
}

// Later entries add to earlier ones that match the same name.
std::uint16_t levelsOf(std::string_view spec, std::string_view name) {
  std::uint16_t mask = 0;
  while (!spec.empty()) {
    std::size_t comma = spec.find(',');
    std::string_view entry = trim(spec.substr(0, comma));
    spec = comma == std::string_view::npos ? std::string_view() : spec.substr(comma + 1);
    if (entry.empty()) continue;
    std::size_t slash = entry.find('/');
    std::string_view pat = trim(entry.substr(0, slash));
    std::uint16_t lv = slash == std::string_view::npos ? 0x3ff : parseLevels(entry, trim(entry.substr(slash + 1)));
    if (pat.empty()) throw ParseException("empty trace pattern in '" + std::string(entry) + "'");
    if (globMatch(pat, name)) mask |= lv;
  }
  return mask;
}

void readEnvOnce(Registry& r) {
  if (r.envRead) return;
  r.envRead = true;
  if (char const* env = std::getenv("KIV_TRACE")) {
    try {
      levelsOf(env, "");  // validate
      r.config = env;
    } catch (ParseException const& e) {
      std::fprintf(stderr, "KIV_TRACE ignored: %s\n", e.what());
    }
  }
}

class StderrSink : public TraceSink {
 public:
  void line(TraceHandle const& h, int level, std::string_view text) override {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    tm t;
    localtime_r(&ts.tv_sec, &t);
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &t);
    std::fprintf(stderr, "%s.%06ld %d %s %d %.*s\n", when, ts.tv_nsec / 1000, int(getpid()), h.name().c_str(), level,
                 int(text.size()), text.data());
  }
};

}  // namespace

TraceHandle::TraceHandle(std::string_view name) : name_(name) {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.mutex);
  readEnvOnce(r);
  levels_ = levelsOf(r.config, name_);
  r.handles.push_back(this);
}

TraceHandle::~TraceHandle() {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.mutex);
  r.handles.erase(std::remove(r.handles.begin(), r.handles.end(), this), r.handles.end());
}

void Trace::configIs(std::string_view spec) {
  levelsOf(spec, "");  // throws before anything changes
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.mutex);
  r.envRead = true;
  r.config = std::string(spec);
  for (TraceHandle* h : r.handles) h->levelsIs(levelsOf(r.config, h->name()));
}

std::string const& Trace::config() {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.mutex);
  readEnvOnce(r);
  return r.config;
}

std::uint16_t Trace::levelsFor(std::string_view spec, std::string_view name) { return levelsOf(spec, name); }

TraceSink* Trace::sinkIs(TraceSink* sink) {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.mutex);
  TraceSink* old = r.sink;
  r.sink = sink;
  return old;
}

void Trace::emit(TraceHandle const& handle, int level, std::string_view text) {
  static StderrSink stderrSink;
  TraceSink* s = registry().sink;
  (s ? *s : static_cast<TraceSink&>(stderrSink)).line(handle, level, text);
}

TraceCapture::TraceCapture(std::string_view config) : previous_(Trace::sinkIs(this)), previousConfig_(Trace::config()) {
  Trace::configIs(config);
}

TraceCapture::~TraceCapture() {
  Trace::sinkIs(previous_);
  Trace::configIs(previousConfig_);
}

void TraceCapture::line(TraceHandle const& handle, int level, std::string_view text) {
  lines_.push_back(Line{handle.name(), level, std::string(text)});
}

std::vector<std::string> TraceCapture::texts() const {
  std::vector<std::string> out;
  for (auto const& l : lines_) out.push_back(l.text);
  return out;
}

std::size_t TraceCapture::count(std::string_view needle) const {
  return std::size_t(std::count_if(lines_.begin(), lines_.end(),
                                   [&](Line const& l) { return l.text.find(needle) != std::string::npos; }));
}

}  // namespace Kiv
