// Named trace handles with levels 0-9.
//
//   static Kiv::TraceHandle th("Mroute::BitMapper");
//   KIV_TRACE(th, 9, "handleInitialized" << "(): Initializing ");
//
// A statement whose level is off costs one load and one test: the streamed
// arguments are not evaluated. Levels are switched on by the KIV_TRACE
// environment variable, read once when the first handle is made, or by
// Kiv::Trace::configIs with the same syntax: a comma-separated list of
// "pattern[/levels]", where the pattern may end in or contain '*', and levels
// is a digit or a range "lo-hi" (all ten levels when omitted):
//
//   KIV_TRACE='Mroute::*/0-9,MrouteLib/9'
//
// Lines go to the sink, by default stderr as
// "<local time> <pid> <handle> <level> <text>". Tests capture lines with
// Kiv::TraceCapture.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

class TraceHandle {
 public:
  explicit TraceHandle(std::string_view name);
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  std::string const& name() const { return name_; }
  bool enabled(int level) const { return (levels_ >> level) & 1u; }
  std::uint16_t levels() const { return levels_; }
  void levelsIs(std::uint16_t mask) { levels_ = mask; }

 private:
  std::string name_;
  std::uint16_t levels_ = 0;
};

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void line(TraceHandle const& handle, int level, std::string_view text) = 0;
};

class Trace {
 public:
  // Replaces the whole configuration; handles that match no entry go off.
  // A malformed entry raises Kiv::ParseException naming it.
  static void configIs(std::string_view spec);
  static std::string const& config();
  // The levels mask a configuration gives a handle name (bit n = level n).
  static std::uint16_t levelsFor(std::string_view spec, std::string_view name);
  // nullptr restores the stderr sink. Returns the previous sink.
  static TraceSink* sinkIs(TraceSink* sink);
  static void emit(TraceHandle const& handle, int level, std::string_view text);
};

// Builds one line; the macro below makes one only when the level is on.
class TraceLine {
 public:
  TraceLine(TraceHandle const& h, int level) : h_(h), level_(level) {}
  ~TraceLine() { Trace::emit(h_, level_, os_.view()); }
  template <class T>
  TraceLine& operator<<(T const& v) {
    os_ << v;
    return *this;
  }

 private:
  TraceHandle const& h_;
  int level_;
  std::ostringstream os_;
};

// Collects the lines of every handle while it lives, after switching on the
// levels that `config` names; restores the previous sink and configuration
// when it goes.
class TraceCapture : public TraceSink {
 public:
  struct Line {
    std::string handle;
    int level;
    std::string text;
  };
  explicit TraceCapture(std::string_view config = "*");
  ~TraceCapture() override;

  void line(TraceHandle const& handle, int level, std::string_view text) override;
  std::vector<Line> const& lines() const { return lines_; }
  std::vector<std::string> texts() const;
  // Number of captured lines whose text contains `needle`.
  std::size_t count(std::string_view needle) const;
  bool contains(std::string_view needle) const { return count(needle) > 0; }
  void clear() { lines_.clear(); }

 private:
  std::vector<Line> lines_;
  TraceSink* previous_;
  std::string previousConfig_;
};

}  // namespace Kiv

#define KIV_TRACE(handle, level, expr)                   \
  do {                                                   \
    if ((handle).enabled(level)) {                       \
      ::Kiv::TraceLine kivTraceLine_((handle), (level)); \
      kivTraceLine_ << expr;                             \
    }                                                    \
  } while (0)
