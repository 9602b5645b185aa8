// The framework's exceptions. Messages are exact texts that callers and tests
// compare, so they are stored as given.
#pragma once

#include <stdexcept>
#include <string>

namespace Kiv {

class Exception : public std::runtime_error {
 public:
  explicit Exception(std::string const& message) : std::runtime_error(message) {}
};

// A value out of its allowed range, or an index space that is exhausted.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A name that is already taken where names must be unique.
class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

// Text that does not parse as the value it should hold.
class ParseException : public Exception {
 public:
  using Exception::Exception;
};

// A failed system call: call() is the call's text as given ("socket",
// "setsocketopt(MRT_NOTIFY_INIT)"), error() its errno. what() reads
// "<call>: <strerror(errno)>".
class ErrnoException : public Exception {
 public:
  ErrnoException(std::string const& call, int error);
  std::string const& call() const { return call_; }
  int error() const { return error_; }

 private:
  std::string call_;
  int error_;
};

}  // namespace Kiv

namespace Pelto {

// Shared memory written by another process is inconsistent; the text says
// what was wrong. Readers report it and treat the data as absent.
class CorruptionDetectedException : public Kiv::Exception {
 public:
  using Kiv::Exception::Exception;
};

}  // namespace Pelto
