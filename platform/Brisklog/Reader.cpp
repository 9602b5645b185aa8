#include "Brisklog/Reader.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include "Brisklog/Layout.h"
#include "Brisklog/Retention.h"

namespace Brisklog {

namespace {

// Heads beyond this are damage, not history: it keeps position arithmetic
// far from overflow.
constexpr std::uint64_t kMaxSanePosition = std::uint64_t(1) << 62;

std::uint64_t align8(std::uint64_t v) { return (v + 7) & ~std::uint64_t(7); }

std::string printfText(std::string const& pattern, auto... value) {
  int n = std::snprintf(nullptr, 0, pattern.c_str(), value...);
  if (n <= 0) return {};
  std::string out(std::size_t(n) + 1, '\0');
  std::snprintf(out.data(), out.size(), pattern.c_str(), value...);
  out.resize(std::size_t(n));
  return out;
}

std::string hexPointer(std::uint64_t v) { return printfText("0x%" PRIx64, v); }

bool integerKind(char k) { return k == 'd' || k == 'u' || k == 'b' || k == 'c' || k == 'p'; }

// One printf conversion applied to one recorded argument. The argument's own
// kind decides how it is read, so a format that disagrees with the argument
// prints the argument sensibly instead of reinterpreting its bytes.
std::string convert(std::string const& flags, std::string const& width, std::string const& prec, char conv,
                    Arg const& a) {
  std::string head = "%" + flags + width + prec;
  auto asText = [&] { return printfText(head + "s", a.text().c_str()); };
  switch (conv) {
    case 'd':
    case 'i':
      if (a.kind == 'd') return printfText(head + "lld", static_cast<long long>(a.i));
      if (a.kind == 'u') return printfText(head + "llu", static_cast<unsigned long long>(a.u));
      if (integerKind(a.kind)) return printfText(head + "lld", static_cast<long long>(a.u));
      if (a.kind == 'f' && std::isfinite(a.f) && std::fabs(a.f) < 9.2e18)
        return printfText(head + "lld", static_cast<long long>(a.f));
      return asText();
    case 'u':
    case 'o':
    case 'x':
    case 'X': {
      std::string pattern = head + "ll" + conv;
      if (a.kind == 'd') return printfText(pattern, static_cast<unsigned long long>(a.i));
      if (integerKind(a.kind)) return printfText(pattern, static_cast<unsigned long long>(a.u));
      return asText();
    }
    case 'c':
      if (a.kind == 'd') return printfText(head + "c", int(static_cast<unsigned char>(a.i)));
      if (integerKind(a.kind)) return printfText(head + "c", int(static_cast<unsigned char>(a.u)));
      return asText();
    case 'p':
      if (integerKind(a.kind) || a.kind == 'd') {
        std::uint64_t v = a.kind == 'd' ? std::uint64_t(a.i) : a.u;
        return printfText("%" + flags + width + "s", hexPointer(v).c_str());
      }
      return asText();
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A': {
      std::string pattern = head + conv;
      if (a.kind == 'f') return printfText(pattern, a.f);
      if (a.kind == 'd') return printfText(pattern, double(a.i));
      if (integerKind(a.kind)) return printfText(pattern, double(a.u));
      return asText();
    }
    default:
      return asText();
  }
}

std::string clampedNumber(std::string_view digits) {
  // A width or precision beyond this is damage or nonsense; it must not make
  // the decoder build a gigabyte of spaces.
  if (digits.size() > 4 || (digits.size() == 4 && digits > "4096")) return "4096";
  return std::string(digits);
}

}  // namespace

std::string Arg::text() const {
  switch (kind) {
    case 'd':
      return std::to_string(i);
    case 'u':
      return std::to_string(u);
    case 'f':
      return printfText("%g", f);
    case 'b':
      return u ? "true" : "false";
    case 'c':
      return std::string(1, char(u));
    case 'p':
      return hexPointer(u);
    case 'a': {
      char buf[INET6_ADDRSTRLEN] = {};
      if (bytes.size() == 4) inet_ntop(AF_INET, bytes.data(), buf, sizeof buf);
      if (bytes.size() == 16) inet_ntop(AF_INET6, bytes.data(), buf, sizeof buf);
      return buf;
    }
    case 's':
      return cut ? bytes + std::string(kCutMark) : bytes;
    default:
      return "?";
  }
}

std::string formatText(std::string_view format, std::vector<Arg> const& args, bool truncated) {
  std::string out;
  std::size_t next = 0;
  bool markedTruncation = false;
  std::size_t i = 0;
  while (i < format.size()) {
    char ch = format[i];
    if (ch != '%') {
      out += ch;
      ++i;
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == '%') {
      out += '%';
      i += 2;
      continue;
    }
    std::size_t j = i + 1;
    std::string flags;
    while (j < format.size() && std::strchr("-+ #0", format[j]) && format[j] != '\0') flags += format[j++];
    std::size_t w = j;
    while (j < format.size() && format[j] >= '0' && format[j] <= '9') ++j;
    std::string width = clampedNumber(format.substr(w, j - w));
    std::string prec;
    if (j < format.size() && format[j] == '.') {
      std::size_t p = ++j;
      while (j < format.size() && format[j] >= '0' && format[j] <= '9') ++j;
      prec = "." + clampedNumber(format.substr(p, j - p));
    }
    while (j < format.size() && std::strchr("hlLqjzt", format[j]) && format[j] != '\0') ++j;
    if (j >= format.size() || !std::strchr("diuoxXcspfFeEgGaA", format[j]) || format[j] == '\0') {
      // Not a conversion this decoder knows (or one that writes, like %n):
      // shown as written.
      out.append(format.substr(i, std::min(j + 1, format.size()) - i));
      i = j + 1;
      continue;
    }
    char conv = format[j];
    i = j + 1;
    if (next < args.size()) {
      out += convert(flags, width, prec, conv, args[next++]);
    } else if (truncated) {
      out += kTruncatedMark;
      markedTruncation = true;
    } else {
      out += "<missing>";
    }
  }
  for (; next < args.size(); ++next) {
    out += ' ';
    out += args[next].text();
  }
  if (truncated && !markedTruncation) {
    out += ' ';
    out += kTruncatedMark;
  }
  return out;
}

std::string wallTimeText(std::int64_t ns) {
  std::int64_t secs = ns / 1000000000;
  std::int64_t frac = ns % 1000000000;
  if (frac < 0) {
    frac += 1000000000;
    --secs;
  }
  std::time_t t = std::time_t(secs);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
  return printfText("%s.%09" PRId64 "Z", buf, frac);
}

std::string Record::source() const { return descriptor ? descriptor->source : "?"; }

std::string Record::text() const {
  if (!descriptor) {
    return descriptorId == 0 ? "<record of a call site that found the descriptor table full>"
                             : "<record of unknown call site " + std::to_string(descriptorId) + ">";
  }
  return formatText(descriptor->format, args, truncated);
}

Reader::Reader(std::string path) : path_(std::move(path)) {
  info_.path = path_;
  openFile();
  if (map_) validateHeader();
}

Reader::~Reader() {
  guard_.release();
  if (map_) munmap(const_cast<char*>(map_), mappedBytes_);
}

void Reader::problem(std::string text) {
  if (std::find(problems_.begin(), problems_.end(), text) == problems_.end()) problems_.push_back(std::move(text));
}

void Reader::note(std::string text) {
  if (std::find(notes_.begin(), notes_.end(), text) == notes_.end()) notes_.push_back(std::move(text));
}

bool Reader::in(std::uint64_t offset, std::uint64_t n) const { return offset <= mapBytes_ && n <= mapBytes_ - offset; }

std::uint64_t Reader::load64(std::uint64_t offset) const {
  return __atomic_load_n(reinterpret_cast<std::uint64_t const*>(map_ + offset), __ATOMIC_ACQUIRE);
}

void Reader::openFile() {
  int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    problem("cannot open: " + std::string(std::strerror(errno)));
    return;
  }
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    problem("not a regular file");
    ::close(fd);
    return;
  }
  if (std::uint64_t(st.st_size) < sizeof(FileHeader)) {
    problem("file is " + std::to_string(st.st_size) + " bytes, too short for a trace header");
    ::close(fd);
    return;
  }
  void* m = mmap(nullptr, std::size_t(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
  int err = errno;
  ::close(fd);
  if (m == MAP_FAILED) {
    problem("cannot map: " + std::string(std::strerror(err)));
    return;
  }
  map_ = static_cast<char const*>(m);
  mapBytes_ = mappedBytes_ = std::uint64_t(st.st_size);
  guard_ = Kiv::MappingGuard(m, mappedBytes_);
}

void Reader::validateHeader() {
  FileLayout l;
  std::memcpy(&l, map_, sizeof l);
  if (std::memcmp(l.magic, kMagic, sizeof kMagic) != 0) {
    problem("not a trace file, or its header is destroyed (bad magic)");
    return;
  }
  if (l.version != kVersion) {
    problem("file version " + std::to_string(l.version) + "; this decoder reads version " + std::to_string(kVersion));
    return;
  }
  std::uint64_t storedChecksum;
  std::memcpy(&storedChecksum, map_ + offsetof(FileHeader, layoutChecksum), sizeof storedChecksum);
  if (storedChecksum != layoutChecksum(l)) problem("header checksum mismatch: the header is damaged");

  bool sane = true;
  auto bad = [&](char const* field, auto value) {
    problem("header damaged: " + std::string(field) + " = " + std::to_string(value));
    sane = false;
  };
  std::uint64_t ringSpan = std::uint64_t(kRingHeaderBytes) + l.ringBytes;
  if (l.headerBytes != kHeaderBytes) bad("headerBytes", l.headerBytes);
  if (l.ringBytes < kMinRingBytes || l.ringBytes > kMaxRingBytes || (l.ringBytes & (l.ringBytes - 1)))
    bad("ringBytes", l.ringBytes);
  if (l.ringCount < 1 || l.ringCount > kMaxRings) bad("ringCount", l.ringCount);
  if (l.descriptorBytes < 4096 || l.descriptorBytes > kMaxDescriptorBytes || (l.descriptorBytes & 7))
    bad("descriptorBytes", l.descriptorBytes);
  if (l.descriptorOffset != kHeaderBytes) bad("descriptorOffset", l.descriptorOffset);
  if (l.ringOffset != l.descriptorOffset + l.descriptorBytes) bad("ringOffset", l.ringOffset);
  if (sane && l.fileBytes != l.ringOffset + l.ringCount * ringSpan) bad("fileBytes", l.fileBytes);
  if (l.maxRecordBytes < sizeof(RecordHeader) + 8 || l.maxRecordBytes > 65528 || (l.maxRecordBytes & 7) ||
      l.maxRecordBytes > l.ringBytes)
    bad("maxRecordBytes", l.maxRecordBytes);
  if (l.maxStringBytes > kMaxStringLimit) bad("maxStringBytes", l.maxStringBytes);
  if (l.sharedRing >= l.ringCount) bad("sharedRing", l.sharedRing);
  if (l.clockKind != std::uint32_t(ClockKind::tsc) && l.clockKind != std::uint32_t(ClockKind::monotonicNs))
    bad("clockKind", l.clockKind);
  if (!(l.ticksPerSecond > 1e3 && l.ticksPerSecond < 1e11)) bad("ticksPerSecond", l.ticksPerSecond);
  if (!sane) return;

  if (mapBytes_ < l.fileBytes) {
    problem("file truncated: " + std::to_string(mapBytes_) + " of " + std::to_string(l.fileBytes) + " bytes present");
  } else if (mapBytes_ > l.fileBytes) {
    note(std::to_string(mapBytes_ - l.fileBytes) + " bytes after the last ring ignored");
    mapBytes_ = l.fileBytes;
  }
  usable_ = true;
  info_.pid = l.pid;
  info_.processName.assign(l.processName, strnlen(l.processName, sizeof l.processName));
  info_.tsc = l.clockKind == std::uint32_t(ClockKind::tsc);
  info_.ticksPerSecond = l.ticksPerSecond;
  info_.ringCount = l.ringCount;
  info_.ringBytes = l.ringBytes;
  info_.descriptorBytes = l.descriptorBytes;
  info_.maxRecordBytes = l.maxRecordBytes;
  info_.maxStringBytes = l.maxStringBytes;
  info_.fileBytes = l.fileBytes;
  info_.openedNs = l.opened.realNs;
  descriptorOffset_ = l.descriptorOffset;
  ringOffset_ = l.ringOffset;
  sharedRing_ = l.sharedRing;
  anchorTicks_ = l.opened.ticks;
  anchorRealNs_ = l.opened.realNs;
  ticksPerNs_ = l.ticksPerSecond / 1e9;
  cursors_.resize(l.ringCount);
}

bool Reader::writerAlive() const { return usable_ && writerRuns(path_); }

void Reader::refreshClock() {
  FileHeader const* h = reinterpret_cast<FileHeader const*>(map_);
  FileLayout const& l = h->layout;
  ClockSync latest{};
  bool got = false;
  for (int attempt = 0; attempt < 100 && !got; ++attempt) {
    std::uint32_t s1 = __atomic_load_n(&h->syncSeq, __ATOMIC_ACQUIRE);
    if (s1 & 1) continue;
    latest.ticks = __atomic_load_n(&h->latest.ticks, __ATOMIC_RELAXED);
    latest.realNs = __atomic_load_n(&h->latest.realNs, __ATOMIC_RELAXED);
    latest.monoNs = __atomic_load_n(&h->latest.monoNs, __ATOMIC_RELAXED);
    std::atomic_thread_fence(std::memory_order_acquire);
    got = __atomic_load_n(&h->syncSeq, __ATOMIC_RELAXED) == s1;
  }
  if (!got || latest.monoNs < l.opened.monoNs || latest.ticks < l.opened.ticks) {
    if (got) problem("clock reading in the header is damaged; times use the first reading");
    return;
  }
  anchorTicks_ = latest.ticks;
  anchorRealNs_ = latest.realNs;
  std::uint64_t const monoSpan = std::uint64_t(latest.monoNs) - std::uint64_t(l.opened.monoNs);
  if (!info_.tsc) {
    ticksPerNs_ = 1;
  } else if (monoSpan >= 100000000) {
    // The rate over the file's life beats the 2 ms measurement at open.
    ticksPerNs_ = double(latest.ticks - l.opened.ticks) / double(monoSpan);
  }
  if (!(ticksPerNs_ > 1e-6 && ticksPerNs_ < 1e2)) ticksPerNs_ = l.ticksPerSecond / 1e9;
}

std::int64_t Reader::wallNs(std::uint64_t ticks) const {
  double delta = double(std::int64_t(ticks - anchorTicks_)) / ticksPerNs_;
  // Damaged ticks must not overflow: times are kept within some 126 years.
  delta = std::clamp(delta, -4e18, 4e18);
  std::int64_t ns;
  if (__builtin_add_overflow(anchorRealNs_, std::int64_t(delta), &ns)) ns = delta < 0 ? INT64_MIN : INT64_MAX;
  return ns;
}

void Reader::readDescriptors() {
  FileHeader const* h = reinterpret_cast<FileHeader const*>(map_);
  info_.descriptorOverflows = __atomic_load_n(&h->descriptorOverflows, __ATOMIC_RELAXED);
  std::uint32_t used = __atomic_load_n(&h->descriptorUsed, __ATOMIC_ACQUIRE);
  if (used > info_.descriptorBytes) {
    problem("descriptor table size damaged: " + std::to_string(used) + " bytes in use of " +
            std::to_string(info_.descriptorBytes));
    used = info_.descriptorBytes;
  }
  std::uint64_t off = descriptorScanned_;
  bool inGap = false;
  std::uint64_t gapStart = 0;
  while (off + sizeof(DescriptorHeader) <= used) {
    std::uint64_t at = descriptorOffset_ + off;
    if (!in(at, sizeof(DescriptorHeader))) {
      problem("descriptor table cut short by the end of the file at offset " + std::to_string(off));
      break;
    }
    DescriptorHeader dh;
    std::memcpy(&dh, map_ + at, sizeof dh);
    dh.commit = __atomic_load_n(reinterpret_cast<std::uint32_t const*>(map_ + at), __ATOMIC_ACQUIRE);
    bool ok = dh.commit == (std::uint32_t(off) ^ kDescriptorKey) && dh.bytes >= 24 && (dh.bytes & 7) == 0 &&
              off + dh.bytes <= used && in(at, dh.bytes) && dh.id != 0;
    std::string texts[5];
    if (ok) {
      char const* p = map_ + at + sizeof dh;
      char const* end = map_ + at + dh.bytes;
      for (std::string& t : texts) {
        char const* nul = static_cast<char const*>(std::memchr(p, '\0', std::size_t(end - p)));
        if (!nul) {
          ok = false;
          break;
        }
        t.assign(p, nul);
        p = nul + 1;
      }
    }
    if (ok && descriptors_.count(dh.id)) ok = false;
    if (!ok) {
      if (!inGap) gapStart = off;
      inGap = true;
      off += 8;
      continue;
    }
    if (inGap) {
      problem("descriptor table damaged: " + std::to_string(off - gapStart) + " bytes at offset " +
              std::to_string(gapStart) + " hold no call site");
      inGap = false;
    }
    auto d = std::make_unique<Descriptor>();
    d->id = dh.id;
    d->line = dh.line;
    d->source = std::move(texts[0]);
    d->file = std::move(texts[1]);
    d->function = std::move(texts[2]);
    d->format = std::move(texts[3]);
    d->signature = std::move(texts[4]);
    descriptors_[dh.id] = std::move(d);
    off += dh.bytes;
  }
  if (inGap) {
    problem("descriptor table damaged: " + std::to_string(off - gapStart) + " bytes at offset " +
            std::to_string(gapStart) + " hold no call site");
  }
  descriptorScanned_ = std::uint32_t(off);
  if (info_.descriptorOverflows)
    note(std::to_string(info_.descriptorOverflows) +
         " call sites found the descriptor table full; their records have no text");
}

bool Reader::decode(std::uint32_t ring, std::uint64_t pos, char const* bytes, std::size_t n, Record& out) {
  RecordHeader rh;
  std::memcpy(&rh, bytes, sizeof rh);
  out.ticks = rh.ticks;
  out.wallNs = wallNs(rh.ticks);
  out.ring = ring;
  out.position = pos;
  out.descriptorId = rh.descriptorId;
  out.truncated = rh.flags & kRecordTruncated;
  std::string where = "ring " + std::to_string(ring) + " position " + std::to_string(pos) + ": ";
  if (rh.descriptorId == 0) return true;
  auto found = descriptors_.find(rh.descriptorId);
  if (found == descriptors_.end()) {
    readDescriptors();
    found = descriptors_.find(rh.descriptorId);
  }
  if (found == descriptors_.end()) {
    problem("records name call site " + std::to_string(rh.descriptorId) + ", which the descriptor table lacks");
    return false;
  }
  Descriptor const& d = *found->second;
  out.descriptor = &d;
  if (rh.argCount > d.signature.size() || (!out.truncated && rh.argCount != d.signature.size())) {
    problem(where + "record holds " + std::to_string(rh.argCount) + " arguments, its call site " +
            std::to_string(d.signature.size()));
    return false;
  }
  std::size_t q = sizeof(RecordHeader);
  auto take = [&](void* dst, std::size_t k) {
    if (k > n - q) return false;
    std::memcpy(dst, bytes + q, k);
    q += k;
    return true;
  };
  for (std::size_t i = 0; i < rh.argCount; ++i) {
    Arg a;
    a.kind = d.signature[i];
    bool ok = true;
    switch (a.kind) {
      case 'd':
        ok = take(&a.i, 8);
        break;
      case 'u':
      case 'p':
        ok = take(&a.u, 8);
        break;
      case 'f':
        ok = take(&a.f, 8);
        break;
      case 'b':
      case 'c': {
        std::uint8_t v = 0;
        ok = take(&v, 1);
        a.u = v;
        break;
      }
      case 'a': {
        std::uint8_t len = 0;
        ok = take(&len, 1) && (len == 4 || len == 16);
        if (ok) {
          a.bytes.resize(len);
          ok = take(a.bytes.data(), len);
        }
        break;
      }
      case 's': {
        std::uint16_t word = 0;
        ok = take(&word, 2);
        std::size_t len = word & ~kStringCut;
        a.cut = word & kStringCut;
        if (ok) {
          a.bytes.resize(len);
          ok = take(a.bytes.data(), len);
        }
        break;
      }
      default:
        ok = false;
    }
    if (!ok) {
      problem(where + "payload does not match its call site's arguments");
      return false;
    }
    out.args.push_back(std::move(a));
  }
  if (q != n) {
    problem(where + "payload longer than its arguments");
    return false;
  }
  return true;
}

// The end of the furthest record in a ring found by its stamp, or 0. The
// stamp alone is not enough: a word inside a record (a checksum, an
// argument) matches some position's stamp now and then, and it is taken
// only if a whole record of the ring's kind follows, naming a known call
// site, and in the shared ring with a checksum that holds.
std::uint64_t Reader::lastStampedEnd(std::uint32_t index, std::uint64_t data, std::uint64_t ringBytes) const {
  bool const shared = index == sharedRing_;
  std::uint64_t best = 0;
  for (std::uint64_t off = 0; off + sizeof(RecordHeader) <= ringBytes; off += 8) {
    if (!in(data + off, sizeof(RecordHeader))) break;
    std::uint64_t const pos = load64(data + off) ^ kRecordKey;
    if ((pos & (ringBytes - 1)) != off || pos > kMaxSanePosition) continue;
    RecordHeader rh;
    std::memcpy(&rh, map_ + data + off, sizeof rh);
    if (rh.bytes < sizeof(RecordHeader) || rh.bytes > info_.maxRecordBytes) continue;
    if ((rh.flags & ~(kRecordTruncated | kRecordChecked)) != 0 || bool(rh.flags & kRecordChecked) != shared) continue;
    if (rh.descriptorId != 0 && descriptors_.count(rh.descriptorId) == 0) continue;
    std::uint64_t const span = align8(rh.bytes) + (shared ? 8 : 0);
    if (off + span > ringBytes || !in(data + off, span)) continue;
    if (shared) {
      std::uint64_t sum;
      std::memcpy(&sum, map_ + data + off + span - 8, 8);
      if (recordChecksum(pos, map_ + data + off + 8, span - 16) != sum) continue;
    }
    best = std::max(best, pos + span);
  }
  return best;
}

void Reader::readRing(std::uint32_t index, std::vector<Record>& out) {
  std::uint64_t const ringBytes = info_.ringBytes;
  std::uint64_t const mask = ringBytes - 1;
  std::uint64_t const base = ringOffset_ + index * (kRingHeaderBytes + ringBytes);
  std::uint64_t const data = base + kRingHeaderBytes;
  std::string const name = "ring " + std::to_string(index) + ": ";
  Cursor& c = cursors_[index];
  if (!in(base, kRingHeaderBytes)) {
    problem(name + "lies beyond the end of the file; its records are lost");
    return;
  }
  if (c.headDamaged) return;
  std::uint64_t head = load64(base);
  bool const insane = head > kMaxSanePosition || (head & 7);
  if (insane && c.started) {
    problem(name + "head position " + std::to_string(head) + " is damaged; ring skipped");
    return;
  }
  if (!c.started) {
    // The head is checked against the records themselves, found by their
    // stamps: records are reserved before they are written, so none ends
    // past the head; and the head runs ahead of the last one that ends only
    // by what writers had reserved and not yet finished, a record or two per
    // thread, far less than half a ring. A head outside those bounds was
    // damaged: the ring is read up to its last record instead, so that a
    // head moved a lap (or 2^40 bytes) on does not hide the ring. A record
    // past a head that has moved since it was read is a live writer's, not
    // damage.
    std::uint64_t const found = lastStampedEnd(index, data, ringBytes);
    std::string what;
    if (insane)
      what = "is not a record position";
    else if (found > head && load64(base) == head)
      what = "lies before the end of its records";
    else if (head >= found && head - found > ringBytes / 2)
      what = found == 0 ? "is past the ring's start, which holds no record" : "lies far past the end of its records";
    if (!what.empty()) {
      problem(name + "head position " + std::to_string(head) + " is damaged: it " + what +
              "; records read up to position " + std::to_string(found));
      head = found;
      c.headDamaged = true;
    }
  }
  std::uint64_t floor = head > ringBytes ? head - ringBytes : 0;
  std::uint64_t p;
  bool synced;  // p is known to be a record boundary
  if (c.started && c.next >= floor && c.next <= head) {
    p = c.next;
    synced = true;
  } else {
    if (c.started && c.next < floor)
      note(name + std::to_string(floor - c.next) + " bytes were overwritten before they were read");
    p = floor;
    synced = floor == 0;
    c.started = true;
  }

  bool inGap = false;
  std::uint64_t gapStart = 0;
  std::vector<char> copy;
  // Ends a run of bytes that held no record: kStop when reading must stop at
  // the run's start because a live writer may still commit there, kRescan
  // when it just did.
  enum GapEnd { kGo, kStop, kRescan };
  std::uint64_t rescanned = ~std::uint64_t(0);  // each run is waited for once
  auto closeGap = [&](bool atHead) {
    if (!inGap) return kGo;
    inGap = false;
    if (!synced) {
      synced = true;  // the scan for the first boundary after a wrap
      return kGo;
    }
    std::uint64_t length = (atHead ? head : p) - gapStart;
    if (!c.headDamaged && load64(base) > gapStart + ringBytes) {
      // Not damage: a live writer went a whole ring past while this was read.
      note(name + "records were overwritten while being read");
      c.started = false;
      return kStop;
    }
    bool const maybeUnfinished = live_ && length <= info_.maxRecordBytes && gapStart != rescanned;
    if (maybeUnfinished && atHead) {
      c.next = gapStart;  // the record being written now; next read takes it
      return kStop;
    }
    // Only in the shared ring can a record be unfinished while later ones
    // are done: an exclusive ring's writer finishes each before the next.
    if (maybeUnfinished && index == sharedRing_) {
      // Another thread reserved this before the records after it and has
      // not finished (it may have been preempted in between); give it up to
      // 50 ms.
      std::uint64_t const off = data + (gapStart & mask);
      for (int spin = 0; spin < 500; ++spin) {
        std::uint64_t w = load64(off);
        if (w == (gapStart ^ kRecordKey) || w == (gapStart ^ kPadKey)) {
          p = rescanned = gapStart;
          return kRescan;
        }
        usleep(100);
      }
      // A writer preempted for that long on a busy machine, most likely:
      // not damage, but the record is given up.
      note(name + std::to_string(length) + " bytes at position " + std::to_string(gapStart) +
           " were still being written after 50 ms; skipped");
      return kGo;
    }
    if (atHead && !live_ && length <= info_.maxRecordBytes) {
      note(name + "the last record, at position " + std::to_string(gapStart) +
           ", is incomplete: its writer stopped while writing it");
    } else if (index == sharedRing_ && !live_ && length <= info_.maxRecordBytes) {
      // Threads sharing a ring finish out of order: a process killed while
      // one of them was mid-record leaves it unfinished among whole ones.
      note(name + "a record at position " + std::to_string(gapStart) +
           " was never finished: its writer stopped while writing it");
    } else {
      problem(name + std::to_string(length) + " bytes at position " + std::to_string(gapStart) + " hold no record");
    }
    return kGo;
  };

  while (p < head) {
    std::uint64_t off = data + (p & mask);
    if (!in(off, 8)) {
      problem(name + "records beyond the end of the file are lost");
      if (closeGap(false) == kStop) return;
      synced = false;
      p = (p | mask) + 1;
      continue;
    }
    std::uint64_t w = load64(off);
    if (w == (p ^ kRecordKey) && in(off, sizeof(RecordHeader))) {
      RecordHeader rh;
      std::memcpy(&rh, map_ + off, sizeof rh);
      bool const checked = rh.flags & kRecordChecked;
      std::uint64_t span = align8(rh.bytes) + (checked ? 8 : 0);
      bool const whole = rh.bytes >= sizeof(RecordHeader) && rh.bytes <= info_.maxRecordBytes &&
                         (p & mask) + span <= ringBytes && p + span <= head && in(off, span);
      if (whole) {
        copy.assign(map_ + off, map_ + off + span);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!c.headDamaged && load64(base) > p + ringBytes) {
          // Overwritten while being copied: start over after the wrap next time.
          note(name + "records were overwritten while being read");
          c.started = false;
          return;
        }
      }
      // A stamped record in the shared ring whose bytes do not add up was
      // written over by a thread that had reserved the same space a lap
      // earlier and was preempted before it finished.
      bool const late =
          index == sharedRing_ && (!whole || !checked || recordChecksum(p, copy.data() + 8, span - 16) != [&] {
            std::uint64_t sum;
            std::memcpy(&sum, copy.data() + span - 8, 8);
            return sum;
          }());
      if (whole || late) {
        GapEnd g = closeGap(false);
        if (g == kStop) return;
        if (g == kRescan) continue;
      }
      if (late) {
        note(name + "a record at position " + std::to_string(p) +
             " was written over by a thread that finished late; both are lost");
        // Its length may be damaged too: find the next record by its stamp.
        synced = false;
        inGap = true;
        gapStart = p;
        p += 8;
        continue;
      }
      if (whole) {
        synced = true;
        Record r;
        if (decode(index, p, copy.data(), rh.bytes, r)) out.push_back(std::move(r));
        p += span;
        continue;
      }
    } else if (w == (p ^ kPadKey)) {
      GapEnd g = closeGap(false);
      if (g == kStop) return;
      if (g == kRescan) continue;
      synced = true;
      p = (p | mask) + 1;
      continue;
    }
    if (!inGap) {
      inGap = true;
      gapStart = p;
    }
    p += 8;
  }
  if (closeGap(true) == kStop) return;
  c.next = std::min(p, head);
}

std::vector<Record> Reader::read() {
  std::vector<Record> out;
  if (!usable_) return out;
  live_ = writerAlive();
  refreshClock();
  readDescriptors();
  for (std::uint32_t i = 0; i < info_.ringCount; ++i) readRing(i, out);
  if (guard_.truncated()) {
    // What was read from the lost pages was zeros, not records: drop it all.
    problem("file truncated while being read; reading stopped");
    usable_ = false;
    out.clear();
    return out;
  }
  std::stable_sort(out.begin(), out.end(), [](Record const& a, Record const& b) { return a.ticks < b.ticks; });
  return out;
}

}  // namespace Brisklog
