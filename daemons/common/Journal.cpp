#include "Journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <streambuf>
#include <string>

#include "Kiv/Trace.h"

namespace Daemon {

namespace {

char const* const kPrefixes[] = {"<0>", "<1>", "<2>", "<3>", "<4>", "<5>", "<6>", "<7>"};

// Passes characters on to the stream's own buffer, with the prefix before
// the first character of every line.
class PrefixBuf : public std::streambuf {
 public:
  PrefixBuf(std::streambuf* next, char const* prefix) : next_(next), prefix_(prefix) {}

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return next_->pubsync() == 0 ? 0 : traits_type::eof();
    if (atLineStart_ &&
        next_->sputn(prefix_.data(), std::streamsize(prefix_.size())) != std::streamsize(prefix_.size()))
      return traits_type::eof();
    atLineStart_ = traits_type::to_char_type(c) == '\n';
    return next_->sputc(traits_type::to_char_type(c));
  }
  int sync() override { return next_->pubsync(); }

 private:
  std::streambuf* next_;
  std::string prefix_;
  bool atLineStart_ = true;
};

class JournalTraceSink : public Kiv::TraceSink {
 public:
  void line(Kiv::TraceHandle const& h, int level, std::string_view text) override {
    std::fprintf(stderr, "%s%s %d %.*s\n", kPrefixes[int(tracePriority(level))], h.name().c_str(), level,
                 int(text.size()), text.data());
  }
};

}  // namespace

bool fdIsJournal(int fd, char const* journalStream) {
  if (!journalStream) return false;
  unsigned long long dev = 0, ino = 0;
  char end = 0;
  if (std::sscanf(journalStream, "%llu:%llu%c", &dev, &ino, &end) != 2) return false;
  struct stat st {};
  if (::fstat(fd, &st) != 0) return false;
  return static_cast<unsigned long long>(st.st_dev) == dev && static_cast<unsigned long long>(st.st_ino) == ino;
}

bool fdIsJournal(int fd) { return fdIsJournal(fd, std::getenv("JOURNAL_STREAM")); }

char const* priorityPrefix(Priority p) { return kPrefixes[int(p)]; }

Priority tracePriority(int level) {
  if (level <= 1) return Priority::err;
  if (level == 2) return Priority::warning;
  if (level == 3) return Priority::notice;
  if (level == 4) return Priority::info;
  return Priority::debug;
}

void journalStreamIs(std::ostream& os, int fd, Priority p) {
  if (!fdIsJournal(fd)) return;
  // Never freed: std::cout and std::cerr write through it until the very
  // end, after every static object is gone.
  os.rdbuf(new PrefixBuf(os.rdbuf(), kPrefixes[int(p)]));
}

bool journalTraceIs() {
  if (!fdIsJournal(STDERR_FILENO)) return false;
  static JournalTraceSink sink;
  Kiv::Trace::sinkIs(&sink);
  return true;
}

}  // namespace Daemon
