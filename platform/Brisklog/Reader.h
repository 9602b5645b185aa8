// Decodes a trace file: the one of a live process (read again and again to
// follow it) or of a process that has died, however it died.
//
//   Brisklog::Reader reader(path);
//   for (Brisklog::Record const& r : reader.read())
//     std::cout << Brisklog::wallTimeText(r.wallNs) << ' ' << r.source() << ' ' << r.text() <<
//     '\n';
//   for (std::string const& p : reader.problems()) std::cerr << p << '\n';
//
// The file is written by another process and may be damaged, truncated or
// not a trace file at all. Nothing in it is trusted: every offset and length
// is checked against the file's real size before it is used, a region that
// holds no record is skipped and reported, and reading never throws, crashes
// or loops without end. A ring's head is checked against the ring's own
// records: one that lies before the last record, or far past it (moved on by
// a lap or more), is reported in problems() by ring, and the ring is read up
// to its last record. What cannot be decoded is reported in problems();
// expected losses (an incomplete last record of a killed writer, records
// overwritten before a follower read them, a record that a live writer
// sharing a ring with other threads had not finished after 50 ms, a record
// in the shared ring whose checksum shows another thread wrote into it late)
// go to notes().
//
// Against a live writer: a record is taken only if its position stamp is in
// place (the writer stores it last, with release ordering) and, after its
// bytes are copied, the ring's head has not moved a whole ring past it (which
// would mean the copy may mix in a newer record). The ring head is loaded
// with acquire ordering after the copy; it pairs with the release fence the
// writer issues between advancing the head and writing the record.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/MappingGuard.h"

namespace Brisklog {

struct Descriptor {
  std::uint32_t id = 0;
  std::string source;
  std::string file;
  std::string function;
  std::uint32_t line = 0;
  std::string format;
  std::string signature;  // one kind character per argument
};

struct Arg {
  char kind = 0;  // d u f b c p a s, as in Layout.h
  std::int64_t i = 0;
  std::uint64_t u = 0;  // also bool, char, pointer
  double f = 0;
  std::string bytes;  // string text, or an address's 4 or 16 bytes
  bool cut = false;   // a string cut to the file's bound

  // The argument on its own: decimal integers, dotted or colon addresses,
  // 0x pointers, "true"/"false", a cut string followed by kCutMark.
  std::string text() const;
};

inline constexpr std::string_view kCutMark = "[cut]";
inline constexpr std::string_view kTruncatedMark = "[truncated]";

struct Record {
  std::uint64_t ticks = 0;
  std::int64_t wallNs = 0;  // since the epoch
  std::uint32_t ring = 0;
  std::uint64_t position = 0;
  std::uint32_t descriptorId = 0;
  Descriptor const* descriptor = nullptr;  // null for an unknown call site; owned by the Reader
  std::vector<Arg> args;
  bool truncated = false;  // arguments were left out for lack of room

  std::string source() const;
  // The format text with the arguments put in; arguments without a place in
  // the format follow, each after a space; left-out ones show kTruncatedMark.
  std::string text() const;
};

struct FileInfo {
  std::string path;
  std::uint32_t pid = 0;
  std::string processName;
  bool tsc = false;
  double ticksPerSecond = 0;
  std::uint32_t ringCount = 0;
  std::uint32_t ringBytes = 0;
  std::uint32_t descriptorBytes = 0;
  std::uint32_t maxRecordBytes = 0;
  std::uint32_t maxStringBytes = 0;
  std::uint64_t fileBytes = 0;
  std::int64_t openedNs = 0;  // wall time the file was made
  std::uint64_t descriptorOverflows = 0;
};

class Reader {
 public:
  explicit Reader(std::string path);
  ~Reader();
  Reader(Reader const&) = delete;
  Reader& operator=(Reader const&) = delete;

  // False when the file could not be opened or its header is unusable; the
  // reason is in problems().
  bool usable() const { return usable_; }
  FileInfo const& info() const { return info_; }
  // Records committed since the previous call (all of them the first time),
  // oldest first.
  std::vector<Record> read();
  // True while the process that wrote the file still runs.
  bool writerAlive() const;

  std::vector<std::string> const& problems() const { return problems_; }
  std::vector<std::string> const& notes() const { return notes_; }

 private:
  struct Cursor {
    bool started = false;
    std::uint64_t next = 0;
    bool headDamaged = false;  // read once, up to its last record, and left
  };

  void openFile();
  void validateHeader();
  void readDescriptors();
  void readRing(std::uint32_t index, std::vector<Record>& out);
  std::uint64_t lastStampedEnd(std::uint32_t index, std::uint64_t data, std::uint64_t ringBytes) const;
  bool decode(std::uint32_t ring, std::uint64_t pos, char const* bytes, std::size_t n, Record& out);
  std::int64_t wallNs(std::uint64_t ticks) const;
  void refreshClock();
  bool in(std::uint64_t offset, std::uint64_t n) const;
  std::uint64_t load64(std::uint64_t offset) const;
  void problem(std::string text);
  void note(std::string text);

  std::string path_;
  char const* map_ = nullptr;
  std::uint64_t mapBytes_ = 0;     // what decoding may touch
  std::uint64_t mappedBytes_ = 0;  // what was mapped
  Kiv::MappingGuard guard_;        // the file may be truncated while read
  bool usable_ = false;
  FileInfo info_;
  std::uint64_t descriptorOffset_ = 0;
  std::uint64_t ringOffset_ = 0;
  std::uint32_t sharedRing_ = 0;
  std::uint32_t descriptorScanned_ = 0;
  std::map<std::uint32_t, std::unique_ptr<Descriptor>> descriptors_;
  std::vector<Cursor> cursors_;
  // Clock conversion: wall = anchorReal + (ticks - anchorTicks) / rate.
  std::uint64_t anchorTicks_ = 0;
  std::int64_t anchorRealNs_ = 0;
  double ticksPerNs_ = 1;
  bool live_ = false;
  std::vector<std::string> problems_;
  std::vector<std::string> notes_;
};

// The record text for a format and its arguments (see Record::text).
std::string formatText(std::string_view format, std::vector<Arg> const& args, bool truncated);
// "2026-11-21T18:22:26.123456789Z"
std::string wallTimeText(std::int64_t ns);

}  // namespace Brisklog
