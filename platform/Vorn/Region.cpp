#include "Vorn/Region.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "Kiv/Exception.h"
#include "Kiv/MappingGuard.h"
#include "Kiv/PathTrust.h"

namespace Vorn {

StepHook stepHook = nullptr;

namespace {

std::uint32_t pow2AtLeast(std::uint64_t v) {
  std::uint64_t p = 1;
  while (p < v) p <<= 1;
  return static_cast<std::uint32_t>(p);
}

bool isPow2(std::uint64_t v) { return v != 0 && (v & (v - 1)) == 0; }

std::string fixedString(char const* s, std::size_t n) {
  std::size_t len = strnlen(s, n);
  return std::string(s, len);
}

bool pidAlive(std::uint32_t pid) {
  if (pid == 0) return false;
  if (pid == static_cast<std::uint32_t>(getpid())) return true;
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// A writer killed while making a region leaves "<path>.tmp.<pid>" behind;
// the next writer of the same path removes those of processes that are gone.
void removeStaleTemporaries(std::string const& path) {
  std::size_t const slash = path.rfind('/');
  std::string const dir = slash == std::string::npos ? "." : path.substr(0, slash);
  std::string const prefix = path.substr(slash == std::string::npos ? 0 : slash + 1) + ".tmp.";
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* e = ::readdir(d)) {
    std::string const name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    char* end = nullptr;
    unsigned long const pid = std::strtoul(name.c_str() + prefix.size(), &end, 10);
    if (end == name.c_str() + prefix.size() || *end != '\0' || pid == 0 || pid > 0xffffffffu) continue;
    if (!pidAlive(static_cast<std::uint32_t>(pid))) ::unlink((dir + "/" + name).c_str());
  }
  ::closedir(d);
}

struct Plan {
  std::vector<Layout::TableDesc> tables;
  std::uint64_t logOffset = 0;
  std::uint32_t logCapacity = 0;
  std::uint32_t logEntrySize = 0;
  std::uint32_t maxKeySize = 0;
  std::uint64_t fileSize = 0;
};

void shapeEntry(Layout::TableDesc& d) {
  d.keyOffset = sizeof(Layout::EntryHead);
  d.linksOffset = d.keyOffset + static_cast<std::uint32_t>(Layout::roundUp(d.keySize, 4));
  d.recordOffset =
      static_cast<std::uint32_t>(Layout::roundUp(d.linksOffset + sizeof(Layout::Link) * Layout::kMaxLevel, 8));
  d.entrySize = static_cast<std::uint32_t>(Layout::roundUp(d.recordOffset + d.recordSize, 64));
}

}  // namespace

std::string fileNameOfUrl(std::string_view url) {
  std::string const u(url);
  if (url.empty()) throw Kiv::ParseException("Vorn url is empty");
  if (url.size() > 200) throw Kiv::ParseException("Vorn url '" + u + "' is longer than 200 characters");
  if (url.front() == '/') throw Kiv::ParseException("Vorn url '" + u + "' is absolute");
  std::size_t start = 0;
  while (start <= url.size()) {
    std::size_t end = url.find('/', start);
    if (end == std::string_view::npos) end = url.size();
    std::string_view part = url.substr(start, end - start);
    if (part.empty()) throw Kiv::ParseException("Vorn url '" + u + "' has an empty component");
    if (part == "." || part == "..")
      throw Kiv::ParseException("Vorn url '" + u + "' contains '" + std::string(part) + "'");
    start = end + 1;
  }
  static char const hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : url) {
    bool plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  if (out.front() == '.') out.replace(0, 1, "%2E");  // no hidden files
  return out + ".vorn";
}

std::string urlOfFileName(std::string_view name) {
  constexpr std::string_view suffix = ".vorn";
  if (name.size() <= suffix.size() || name.substr(name.size() - suffix.size()) != suffix) return {};
  name.remove_suffix(suffix.size());
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] != '%') {
      out += name[i];
      continue;
    }
    if (i + 2 >= name.size()) return {};
    auto digit = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      return -1;
    };
    int hi = digit(name[i + 1]), lo = digit(name[i + 2]);
    if (hi < 0 || lo < 0) return {};
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return out;
}

std::string defaultRoot() { return Kiv::PathTrust::runtimeDir("vorn", "VORN_ROOT"); }

Region::~Region() {
  if (bellSlot_ >= 0) bellClose();
  for (Bell& b : bells_)
    if (b.fd >= 0) ::close(b.fd);
  if (mode_ == Mode::writer && header_ != nullptr && !truncated()) {
    std::uint32_t me = static_cast<std::uint32_t>(getpid());
    header_->writerPid.compare_exchange_strong(me, 0);
  }
  guard_.release();
  if (base_ != nullptr) munmap(base_, size_);
  if (fd_ >= 0) ::close(fd_);
}

void Region::map(int fd, std::uint64_t size, bool writable) {
  fd_ = fd;
  size_ = size;
  if (size < Layout::kHeaderSize) fail("file is " + std::to_string(size) + " bytes, shorter than a header");
  void* p = mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) throw Kiv::ErrnoException("mmap", errno);
  base_ = static_cast<unsigned char*>(p);
  header_ = reinterpret_cast<Layout::Header*>(base_);
  guard_ = Kiv::MappingGuard(base_, size_);
}

void Region::validate(std::string_view typeName, std::vector<TableShape> const* shapes) {
  Layout::Header const* h = header_;
  if (h->magic != Layout::kMagic) fail("bad magic: not a Vorn region");
  if (h->version != Layout::kVersion)
    fail("layout version " + std::to_string(h->version) + ", expected " + std::to_string(Layout::kVersion));
  if (h->headerSize != Layout::kHeaderSize) fail("header size " + std::to_string(h->headerSize));
  if (h->fileSize != size_)
    fail("file is " + std::to_string(size_) + " bytes, the header says " + std::to_string(h->fileSize));
  if (strnlen(h->typeName, Layout::kTypeLen) == Layout::kTypeLen) fail("type name is not terminated");
  typeName_ = fixedString(h->typeName, Layout::kTypeLen);
  if (!typeName.empty() && typeName_ != typeName)
    fail("holds type '" + typeName_ + "', not '" + std::string(typeName) + "'");
  if (h->tableCount == 0 || h->tableCount > Layout::kMaxTables) fail("table count " + std::to_string(h->tableCount));
  if (shapes != nullptr && shapes->size() != h->tableCount)
    fail("holds " + std::to_string(h->tableCount) + " tables, the type has " + std::to_string(shapes->size()));
  std::uint64_t const controlsEnd =
      Layout::kHeaderSize + Layout::roundUp(h->tableCount * sizeof(Layout::Control), 4096);
  std::uint32_t maxKey = 0;
  for (std::uint32_t i = 0; i < h->tableCount; ++i) maxKey = std::max(maxKey, h->tables[i].keySize);
  if (h->maxKeySize != maxKey) fail("largest key " + std::to_string(h->maxKeySize) + " does not match the tables");
  if (!isPow2(h->logCapacity) || h->logCapacity > (1u << 24)) fail("log capacity " + std::to_string(h->logCapacity));
  if (maxKey > Layout::kMaxKeySize || h->logEntrySize != sizeof(Layout::LogHead) + Layout::roundUp(maxKey, 8))
    fail("log entry size " + std::to_string(h->logEntrySize));
  if (h->logOffset < controlsEnd || h->logOffset % 4096 != 0 ||
      h->logOffset + std::uint64_t(h->logCapacity) * h->logEntrySize > size_)
    fail("change log out of place");
  std::uint64_t previousEnd = h->logOffset + std::uint64_t(h->logCapacity) * h->logEntrySize;
  geometry_.clear();
  for (std::uint32_t i = 0; i < h->tableCount; ++i) {
    Layout::TableDesc d = h->tables[i];
    std::string const where = "table " + std::to_string(i) + ": ";
    if (strnlen(d.name, Layout::kNameLen) == Layout::kNameLen) fail(where + "name is not terminated");
    std::string name = fixedString(d.name, Layout::kNameLen);
    if (shapes != nullptr) {
      TableShape const& s = (*shapes)[i];
      if (s.name != name) fail(where + "named '" + name + "', the type says '" + s.name + "'");
      if (s.keySize != d.keySize || s.recordSize != d.recordSize)
        fail("table '" + name + "': key/record sizes " + std::to_string(d.keySize) + "/" +
             std::to_string(d.recordSize) + ", the type has " + std::to_string(s.keySize) + "/" +
             std::to_string(s.recordSize));
    }
    std::string const tw = "table '" + name + "': ";
    if (d.keySize == 0 || d.keySize > Layout::kMaxKeySize) fail(tw + "key size " + std::to_string(d.keySize));
    if (d.recordSize == 0 || d.recordSize > Layout::kMaxRecordSize)
      fail(tw + "record size " + std::to_string(d.recordSize));
    Layout::TableDesc expect = d;
    shapeEntry(expect);
    if (expect.entrySize != d.entrySize || expect.keyOffset != d.keyOffset || expect.recordOffset != d.recordOffset ||
        expect.linksOffset != d.linksOffset)
      fail(tw + "entry layout does not match its key and record sizes");
    if (d.limit == 0 || d.limit > Layout::kMaxCapacity) fail(tw + "limit " + std::to_string(d.limit));
    if (d.slotCountMax != Layout::slotCountFor(d.limit))
      fail(tw + "slot room " + std::to_string(d.slotCountMax) + " for limit " + std::to_string(d.limit));
    if (d.controlOffset != Layout::kHeaderSize + i * sizeof(Layout::Control)) fail(tw + "control out of place");
    std::uint64_t const slotBytes = std::uint64_t(d.slotCountMax) * sizeof(Layout::Slot);
    if (d.slotsOffset[0] < previousEnd || d.slotsOffset[0] % 4096 != 0) fail(tw + "slots out of place");
    if (d.slotsOffset[1] < d.slotsOffset[0] + slotBytes || d.slotsOffset[1] % 4096 != 0)
      fail(tw + "second slots out of place");
    if (d.entriesOffset < d.slotsOffset[1] + slotBytes || d.entriesOffset % 4096 != 0)
      fail(tw + "entries out of place");
    if (d.end != d.entriesOffset + (std::uint64_t(d.limit) + 1) * d.entrySize || d.end > size_)
      fail(tw + "entries run past the end of the file");
    previousEnd = d.end;
    auto const* control = reinterpret_cast<Layout::Control const*>(base_ + d.controlOffset);
    if (!Layout::shapeFits(control->shape.load(std::memory_order_acquire), d.limit, d.slotCountMax))
      fail(tw + "shape does not fit its limit");
    TableGeometry g;
    g.index = i;
    g.name = name;
    g.keySize = d.keySize;
    g.recordSize = d.recordSize;
    g.entrySize = d.entrySize;
    g.keyOffset = d.keyOffset;
    g.recordOffset = d.recordOffset;
    g.linksOffset = d.linksOffset;
    g.limit = d.limit;
    g.slotCountMax = d.slotCountMax;
    g.control = reinterpret_cast<Layout::Control*>(base_ + d.controlOffset);
    for (int a = 0; a < 2; ++a) {
      g.slotsOffset[a] = d.slotsOffset[a];
      g.slots[a] = reinterpret_cast<Layout::Slot*>(base_ + d.slotsOffset[a]);
    }
    g.entriesOffset = d.entriesOffset;
    g.entries = base_ + d.entriesOffset;
    geometry_.push_back(std::move(g));
  }
  logCapacity_ = h->logCapacity;
  logEntrySize_ = h->logEntrySize;
  maxKeySize_ = maxKey;
  logOffset_ = h->logOffset;
  log_ = base_ + h->logOffset;
}

std::unique_ptr<Region> Region::create(std::string const& path, std::string_view typeName,
                                       std::vector<TableShape> const& shapes, std::uint32_t logCapacity) {
  if (shapes.empty() || shapes.size() > Layout::kMaxTables)
    throw Kiv::RangeException("a Vorn region holds 1 to " + std::to_string(Layout::kMaxTables) + " tables");
  if (typeName.empty() || typeName.size() >= Layout::kTypeLen)
    throw Kiv::RangeException("Vorn type name '" + std::string(typeName) + "' is empty or too long");
  Plan plan;
  for (TableShape const& s : shapes) plan.maxKeySize = std::max(plan.maxKeySize, s.keySize);
  plan.logCapacity = pow2AtLeast(logCapacity == 0 ? 4096 : std::min<std::uint32_t>(logCapacity, 1u << 24));
  plan.logEntrySize = static_cast<std::uint32_t>(sizeof(Layout::LogHead) + Layout::roundUp(plan.maxKeySize, 8));
  plan.logOffset = Layout::kHeaderSize + Layout::roundUp(shapes.size() * sizeof(Layout::Control), 4096);
  std::uint64_t off = plan.logOffset + std::uint64_t(plan.logCapacity) * plan.logEntrySize;
  for (std::size_t i = 0; i < shapes.size(); ++i) {
    TableShape const& s = shapes[i];
    Layout::TableDesc d;
    std::memset(&d, 0, sizeof d);
    if (s.name.empty() || s.name.size() >= Layout::kNameLen)
      throw Kiv::RangeException("Vorn table name '" + s.name + "' is empty or too long");
    if (s.limit == 0 || s.limit > Layout::kMaxCapacity)
      throw Kiv::RangeException("Vorn table '" + s.name + "': limit " + std::to_string(s.limit) + " is not in 1.." +
                                std::to_string(Layout::kMaxCapacity));
    std::memcpy(d.name, s.name.data(), s.name.size());
    d.keySize = s.keySize;
    d.recordSize = s.recordSize;
    shapeEntry(d);
    d.limit = s.limit;
    d.slotCountMax = Layout::slotCountFor(s.limit);
    d.controlOffset = Layout::kHeaderSize + i * sizeof(Layout::Control);
    d.slotsOffset[0] = Layout::roundUp(off, 4096);
    d.slotsOffset[1] = Layout::roundUp(d.slotsOffset[0] + std::uint64_t(d.slotCountMax) * 8, 4096);
    d.entriesOffset = Layout::roundUp(d.slotsOffset[1] + std::uint64_t(d.slotCountMax) * 8, 4096);
    d.end = d.entriesOffset + (std::uint64_t(d.limit) + 1) * d.entrySize;
    off = d.end;
    plan.tables.push_back(d);
  }
  plan.fileSize = Layout::roundUp(off, 4096);

  removeStaleTemporaries(path);
  std::string const tmp = path + ".tmp." + std::to_string(getpid());
  ::unlink(tmp.c_str());
  // Readers of other users may read a table; only its writer may change it.
  int fd = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) throw Kiv::ErrnoException("open(" + tmp + ")", errno);
  fchmod(fd, 0644);
  // As long as every table at its limit, but with holes: only what is
  // reserved below (and later, as tables grow) takes memory.
  if (ftruncate(fd, static_cast<off_t>(plan.fileSize)) != 0) {
    int e = errno;
    ::close(fd);
    ::unlink(tmp.c_str());
    throw Kiv::ErrnoException("ftruncate(" + tmp + ")", e);
  }
  std::unique_ptr<Region> r(new Region());
  r->mode_ = Mode::writer;
  r->path_ = tmp;
  std::vector<std::uint32_t> initial;
  try {
    r->map(fd, plan.fileSize, true);
    // Every page written below now, not when first touched: a full file
    // system must refuse the table here, not fault a write that the writer
    // then believes done.
    r->reserve(0, plan.logOffset);
    r->logOffset_ = plan.logOffset;
    r->logCapacity_ = plan.logCapacity;
    r->logEntrySize_ = plan.logEntrySize;
    r->logGrow(0);
    for (Layout::TableDesc const& d : plan.tables) {
      std::uint32_t const capacity = Layout::initialCapacity(d.limit);
      r->reserve(d.slotsOffset[0], std::uint64_t(Layout::slotCountFor(capacity)) * 8);
      r->reserve(d.entriesOffset, (std::uint64_t(capacity) + 1) * d.entrySize);
      initial.push_back(capacity);
    }
  } catch (...) {
    ::unlink(tmp.c_str());
    throw;
  }
  r->path_ = path;
  Layout::Header* h = r->header_;
  h->version = Layout::kVersion;
  h->headerSize = Layout::kHeaderSize;
  h->fileSize = plan.fileSize;
  std::memcpy(h->typeName, typeName.data(), typeName.size());
  h->tableCount = static_cast<std::uint32_t>(plan.tables.size());
  h->logCapacity = plan.logCapacity;
  h->logEntrySize = plan.logEntrySize;
  h->maxKeySize = plan.maxKeySize;
  h->logOffset = plan.logOffset;
  h->createdTime = static_cast<std::uint64_t>(::time(nullptr));
  for (std::size_t i = 0; i < plan.tables.size(); ++i) {
    Layout::TableDesc const& d = plan.tables[i];
    h->tables[i] = d;
    auto* c = reinterpret_cast<Layout::Control*>(r->base_ + d.controlOffset);
    c->topLevel.store(1, std::memory_order_relaxed);
    c->shape.store(Layout::packShape(initial[i], std::countr_zero(Layout::slotCountFor(initial[i])), 0),
                   std::memory_order_relaxed);
    unsigned char* headEntry = r->base_ + d.entriesOffset;
    reinterpret_cast<Layout::EntryHead*>(headEntry)->level = Layout::kMaxLevel;
    auto* links = reinterpret_cast<Layout::Link*>(headEntry + d.linksOffset);
    for (std::uint32_t l = 0; l < Layout::kMaxLevel; ++l) links[l].store(Layout::kNone, std::memory_order_relaxed);
  }
  if (!r->writerLockTake()) {
    ::unlink(tmp.c_str());
    throw Kiv::ErrnoException("fcntl(F_OFD_SETLK " + tmp + ")", errno);
  }
  h->writerPid.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
  h->writerEpoch.store(1, std::memory_order_relaxed);
  h->magic = Layout::kMagic;
  std::uint64_t const logReserved = r->logReservedEntries_;
  r->validate(typeName, nullptr);
  r->logReservedEntries_ = logReserved;
  writerStep("create.rename");
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    int e = errno;
    ::unlink(tmp.c_str());
    throw Kiv::ErrnoException("rename(" + path + ")", e);
  }
  return r;
}

std::unique_ptr<Region> Region::writerIs(std::string const& path, std::string_view typeName,
                                         std::vector<TableShape> const& shapes, std::uint32_t logCapacity) {
  int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) {
    std::unique_ptr<Region> r(new Region());
    r->mode_ = Mode::writer;
    r->path_ = path;
    r->fd_ = fd;
    Kiv::PathTrust::fileCheck(fd, path, "table file");
    try {
      struct stat st;
      if (fstat(fd, &st) != 0) throw Kiv::ErrnoException("fstat(" + path + ")", errno);
      r->map(fd, static_cast<std::uint64_t>(st.st_size), true);
      r->validate(typeName, &shapes);
      r->checkTruncated();
      std::uint32_t const other = r->writerPid();
      bool const mine = other == static_cast<std::uint32_t>(getpid());
      if (!r->writerLockTake() && !mine) {
        r->mode_ = Mode::reader;  // leaves the running writer's pid alone
        throw Kiv::Exception(path + " is being written by pid " + std::to_string(other));
      }
      r->adopted_ = true;
      r->header_->writerPid.store(static_cast<std::uint32_t>(getpid()), std::memory_order_release);
      writerStep("adopt.claim");
      r->header_->writerEpoch.fetch_add(1, std::memory_order_acq_rel);
      return r;
    } catch (Pelto::CorruptionDetectedException const&) {
      // Not ours to adopt: replaced below by a fresh region.
    }
  }
  return create(path, typeName, shapes, logCapacity);
}

std::unique_ptr<Region> Region::readerIs(std::string const& path, std::string_view typeName,
                                         std::vector<TableShape> const& shapes) {
  bool writable = true;
  int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0 && (errno == EACCES || errno == EROFS)) {
    writable = false;
    fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  }
  if (fd < 0) throw Kiv::ErrnoException("open(" + path + ")", errno);
  std::unique_ptr<Region> r(new Region());
  r->mode_ = Mode::reader;
  r->path_ = path;
  r->fd_ = fd;
  Kiv::PathTrust::fileCheck(fd, path, "table file");
  struct stat st;
  if (fstat(fd, &st) != 0) throw Kiv::ErrnoException("fstat(" + path + ")", errno);
  r->map(fd, static_cast<std::uint64_t>(st.st_size), writable);
  r->validate(typeName, &shapes);
  r->checkTruncated();
  if (!writable) r->bellSlot_ = -2;
  return r;
}

std::unique_ptr<Region> Region::inspectorIs(std::string const& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Kiv::ErrnoException("open(" + path + ")", errno);
  std::unique_ptr<Region> r(new Region());
  r->mode_ = Mode::inspector;
  r->path_ = path;
  r->fd_ = fd;
  struct stat st;
  if (fstat(fd, &st) != 0) throw Kiv::ErrnoException("fstat(" + path + ")", errno);
  r->map(fd, static_cast<std::uint64_t>(st.st_size), false);
  r->validate({}, nullptr);
  r->checkTruncated();
  return r;
}

bool Region::writerAlive() const {
  std::uint32_t const pid = writerPid();
  if (pid == static_cast<std::uint32_t>(getpid())) return true;
  return pidAlive(pid) && writerLockHeld();
}

bool Region::writerLockTake() {
  struct flock fl;
  std::memset(&fl, 0, sizeof fl);
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 1;
  if (fcntl(fd_, F_OFD_SETLK, &fl) == 0) return true;
  // Held by another open file; on a file system without such locks the
  // pid check alone stands.
  return errno != EAGAIN && errno != EACCES;
}

bool Region::writerLockHeld() const {
  struct flock fl;
  std::memset(&fl, 0, sizeof fl);
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 1;
  // A file system without such locks cannot say; the pid alone decides.
  if (fcntl(fd_, F_OFD_GETLK, &fl) != 0) return true;
  return fl.l_type != F_UNLCK;
}

std::uint32_t Region::liveReaders() const {
  std::uint32_t n = 0;
  for (Layout::BellSlot const& b : header_->bells) n += pidAlive(b.pid.load(std::memory_order_acquire));
  return n;
}

void Region::truncatedFail() const { fail("the file was truncated under a live mapping"); }

void Region::fail(std::string const& text) const { throw Pelto::CorruptionDetectedException(path_ + ": " + text); }

namespace {
template <class T>
T waitEvenImpl(Region const& r, std::atomic<T> const& seq, std::string_view what,
               std::chrono::steady_clock::time_point deadline) {
  auto const start = std::chrono::steady_clock::now();
  // Long enough for a writer descheduled mid-write on a busy machine,
  // short enough not to stall the reader's event loop for long.
  deadline = std::min(deadline, start + std::chrono::milliseconds(500));
  for (unsigned i = 0;; ++i) {
    T v = seq.load(std::memory_order_acquire);
    if ((v & 1) == 0) return v;
    r.checkTruncated();
    if (i < 256) continue;
    if ((i & 63) == 0) {
      if (!r.writerAlive())
        r.fail(std::string(what) + " was left mid-write by writer pid " + std::to_string(r.writerPid()) +
               ", which is gone");
      if (std::chrono::steady_clock::now() >= deadline)
        r.fail(std::string(what) + " stayed mid-write while writer pid " + std::to_string(r.writerPid()) +
               " runs: damaged or stuck");
    }
    sched_yield();
  }
}
}  // namespace

std::uint32_t Region::waitEven(std::atomic<std::uint32_t> const& seq, std::string_view what,
                               std::chrono::steady_clock::time_point deadline) const {
  return waitEvenImpl(*this, seq, what, deadline);
}

std::uint64_t Region::waitEven64(std::atomic<std::uint64_t> const& seq, std::string_view what) const {
  return waitEvenImpl(*this, seq, what, std::chrono::steady_clock::time_point::max());
}

void Region::reserve(std::uint64_t offset, std::uint64_t length) {
  std::uint64_t const from = offset / 4096 * 4096;
  std::uint64_t const to = std::min(size_, Layout::roundUp(offset + length, 4096));
  if (to <= from) return;
  if (int e = posix_fallocate(fd_, static_cast<off_t>(from), static_cast<off_t>(to - from)); e != 0)
    throw Kiv::ErrnoException("posix_fallocate(" + path_ + ", " + std::to_string(to - from) + " bytes)", e);
}

void Region::logGrow(std::uint64_t position) {
  std::uint64_t const total = std::uint64_t(logCapacity_) * logEntrySize_;
  std::uint64_t want = total;
  if (position < logCapacity_) {
    // Doubling: a table written without pause allocates its log in a few
    // steps, an idle one keeps a page.
    std::uint64_t const had = logReservedEntries_ * logEntrySize_;
    want = std::min(total, std::max(Layout::roundUp((position + 1) * logEntrySize_, 4096), 2 * had));
  }
  reserve(logOffset_, want);
  logReservedEntries_ = want >= total ? ~std::uint64_t(0) : want / logEntrySize_;
}

std::uint64_t Region::logChange(std::uint32_t table, void const* key, std::uint32_t keySize) {
  // The shared head, not a private copy: a process that inherits the
  // writer across fork() may write too, one at a time.
  std::uint64_t const p = header_->logHead.load(std::memory_order_relaxed);
  unsigned char* e = log_ + (p & (logCapacity_ - 1)) * logEntrySize_;
  auto* lh = reinterpret_cast<Layout::LogHead*>(e);
  lh->seq.store(2 * p + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  writerStep("log.change");
  lh->table = table;
  lh->keySize = keySize;
  std::memcpy(e + sizeof(Layout::LogHead), key, std::min(keySize, maxKeySize_));
  lh->seq.store(2 * p + 2, std::memory_order_release);
  // Sequentially consistent store then load, against the reader's arm
  // (fetch_or) then logHead load: one of the two sees the other.
  header_->logHead.store(p + 1, std::memory_order_seq_cst);
  if (header_->armed.load(std::memory_order_seq_cst) != 0) ring(header_->armed.exchange(0, std::memory_order_seq_cst));
  return p + 1;
}

void Region::ring(std::uint64_t armed) {
  if (bells_.empty()) bells_.resize(Layout::kBells);
  for (std::uint32_t i = 0; i < Layout::kBells; ++i) {
    if ((armed >> i & 1) == 0) continue;
    std::uint32_t const pid = header_->bells[i].pid.load(std::memory_order_acquire);
    std::uint32_t const nonce = header_->bells[i].nonce.load(std::memory_order_acquire);
    if (pid == 0) continue;
    Bell& b = bells_[i];
    if (b.fd < 0 || b.pid != pid || b.nonce != nonce) {
      if (b.fd >= 0) ::close(b.fd);
      // Opened read-write: the writer never gets SIGPIPE from a FIFO whose
      // reader died, and never blocks.
      b.fd = ::open(bellPath(i, nonce).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
      b.pid = pid;
      b.nonce = nonce;
      if (b.fd < 0) continue;
    }
    char const c = 1;
    [[maybe_unused]] ssize_t n = ::write(b.fd, &c, 1);
  }
}

bool Region::logRead(std::uint64_t position, std::uint32_t& table, void* key) const {
  unsigned char const* e = log_ + (position & (logCapacity_ - 1)) * logEntrySize_;
  auto const* lh = reinterpret_cast<Layout::LogHead const*>(e);
  std::uint64_t const s1 = lh->seq.load(std::memory_order_acquire);
  if (s1 != 2 * position + 2) return false;
  std::uint32_t const t = lh->table;
  std::uint32_t const ks = lh->keySize;
  std::memcpy(key, e + sizeof(Layout::LogHead), maxKeySize_);
  std::atomic_thread_fence(std::memory_order_acquire);
  if (lh->seq.load(std::memory_order_relaxed) != s1) return false;
  checkTruncated();
  if (t >= geometry_.size()) fail("change " + std::to_string(position) + " names table " + std::to_string(t));
  if (ks != geometry_[t].keySize)
    fail("change " + std::to_string(position) + " has a " + std::to_string(ks) + "-byte key for table '" +
         geometry_[t].name + "'");
  table = t;
  return true;
}

std::string Region::bellPath(std::uint32_t slot, std::uint32_t nonce) const {
  return path_ + ".bell." + std::to_string(slot) + "." + std::to_string(nonce);
}

int Region::bellOpen() {
  if (bellSlot_ == -2) throw Kiv::Exception(path_ + ": mapped read-only, cannot follow changes");
  if (bellSlot_ >= 0) return bellFd_;
  std::uint32_t const me = static_cast<std::uint32_t>(getpid());
  for (int pass = 0; pass < 2; ++pass) {
    for (std::uint32_t i = 0; i < Layout::kBells; ++i) {
      Layout::BellSlot& s = header_->bells[i];
      std::uint32_t cur = s.pid.load(std::memory_order_acquire);
      if (cur != 0 && (pass == 0 || cur == me || pidAlive(cur))) continue;
      std::uint32_t const oldNonce = s.nonce.load(std::memory_order_acquire);
      if (!s.pid.compare_exchange_strong(cur, me, std::memory_order_acq_rel)) continue;
      if (cur != 0) ::unlink(bellPath(i, oldNonce).c_str());
      header_->armed.fetch_and(~(std::uint64_t(1) << i), std::memory_order_seq_cst);
      static std::atomic<std::uint32_t> counter{0};
      std::uint32_t const nonce = static_cast<std::uint32_t>(
          (std::chrono::steady_clock::now().time_since_epoch().count() ^ (std::uint64_t(me) << 20)) + counter++);
      std::string const p = bellPath(i, nonce);
      ::unlink(p.c_str());
      if (mkfifo(p.c_str(), 0660) != 0) {
        int e = errno;
        s.pid.store(0, std::memory_order_release);
        throw Kiv::ErrnoException("mkfifo(" + p + ")", e);
      }
      int fd = ::open(p.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) {
        int e = errno;
        ::unlink(p.c_str());
        s.pid.store(0, std::memory_order_release);
        throw Kiv::ErrnoException("open(" + p + ")", e);
      }
      s.nonce.store(nonce, std::memory_order_release);
      bellSlot_ = static_cast<int>(i);
      bellNonce_ = nonce;
      bellFd_ = fd;
      return fd;
    }
  }
  throw Kiv::Exception(path_ + ": all " + std::to_string(Layout::kBells) + " doorbells are taken");
}

void Region::bellArm() {
  if (bellSlot_ < 0) return;
  header_->armed.fetch_or(std::uint64_t(1) << bellSlot_, std::memory_order_seq_cst);
}

void Region::bellDrain() {
  if (bellFd_ < 0) return;
  char buf[256];
  while (::read(bellFd_, buf, sizeof buf) > 0) {
  }
}

void Region::bellPoke() {
  if (bellFd_ < 0) return;
  char const c = 1;
  [[maybe_unused]] ssize_t n = ::write(bellFd_, &c, 1);
}

void Region::bellClose() {
  if (bellSlot_ < 0) return;
  if (!truncated()) {
    header_->armed.fetch_and(~(std::uint64_t(1) << bellSlot_), std::memory_order_seq_cst);
    std::uint32_t me = static_cast<std::uint32_t>(getpid());
    header_->bells[bellSlot_].pid.compare_exchange_strong(me, 0, std::memory_order_acq_rel);
  }
  ::close(bellFd_);
  ::unlink(bellPath(static_cast<std::uint32_t>(bellSlot_), bellNonce_).c_str());
  bellFd_ = -1;
  bellSlot_ = -1;
}

}  // namespace Vorn
