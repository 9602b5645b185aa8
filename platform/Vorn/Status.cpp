#include "Vorn/Status.h"

#include <algorithm>

#include "Kiv/EventLoop.h"
#include "Kiv/Exception.h"
#include "Kiv/Trace.h"
#include "Vorn/Table.h"

namespace Vorn {

namespace {
Kiv::TraceHandle th("Vorn::Status");
}

Status::Status(Kiv::Name name) : Kiv::Entity(std::move(name)) {}

Status::~Status() {
  // The tables (members of the derived class) are gone already; only the
  // region and the doorbell are left to release.
  if (loop_ != nullptr && bellFd_ >= 0) loop_->readableDel(bellFd_);
  loop_ = nullptr;
  region_.reset();
}

TableBase* Status::tableByName(std::string_view name) const {
  for (TableBase* t : tables_)
    if (t->name() == name) return t;
  return nullptr;
}

void Status::tableAdd(TableBase* table) { tables_.push_back(table); }

void Status::mountIs(std::string const& path, Mode mode, MountOptions const& options) {
  if (mode == Mode::unmounted) {
    unmount();
    return;
  }
  if (mounted()) throw Kiv::Exception(std::string(typeName()) + " is already mounted on " + path_);
  std::vector<TableShape> shapes;
  for (TableBase* t : tables_) {
    auto it = options.limit.find(t->name());
    shapes.push_back(
        {t->name(), t->keySize(), t->recordSize(), it != options.limit.end() ? it->second : t->defaultCapacity()});
  }
  std::unique_ptr<Region> region = mode == Mode::writer
                                       ? Region::writerIs(path, typeName(), shapes, options.logCapacity)
                                       : Region::readerIs(path, typeName(), shapes);
  region_ = std::move(region);
  mode_ = mode;
  path_ = path;
  try {
    // A table's shape is checked, and a writer's room made, here.
    for (std::uint32_t i = 0; i < tables_.size(); ++i) tables_[i]->attach(region_.get(), i);
  } catch (...) {
    unmount();
    throw;
  }
  if (mode == Mode::writer && region_->adopted()) {
    KIV_TRACE(th, 4,
              "mountIs: adopting " << path << " from writer epoch " << region_->header()->writerEpoch.load() - 1);
    try {
      for (TableBase* t : tables_) t->adopt();
    } catch (...) {
      unmount();
      throw;
    }
  }
  KIV_TRACE(th, 5, "mountIs: " << path << (mode == Mode::writer ? " as writer" : " as reader"));
}

void Status::unmount() {
  if (!mounted()) return;
  followIs(nullptr);
  for (TableBase* t : tables_) t->detach();
  region_.reset();
  mode_ = Mode::unmounted;
  KIV_TRACE(th, 5, "unmount: " << path_);
}

void Status::followIs(Kiv::EventLoop* loop) {
  if (loop == loop_) return;
  if (loop_ != nullptr) {
    loop_->readableDel(bellFd_);
    loop_ = nullptr;
    bellFd_ = -1;
    if (region_) region_->bellClose();
    for (TableBase* t : tables_) t->snapshotStop();
  }
  if (loop == nullptr) return;
  if (mode_ != Mode::reader) throw Kiv::Exception("only a reader follows the changes of " + path_);
  bellFd_ = region_->bellOpen();
  cursor_ = region_->logHead();
  for (TableBase* t : tables_) t->snapshotStart();
  loop_ = loop;
  loop_->readableIs(bellFd_, [this] { handleBell(); });
  region_->bellArm();
  if (region_->logHead() != cursor_) drain();
}

void Status::handleBell() {
  Kiv::Ptr<Status> self(this);
  if (!region_) return;
  region_->bellDrain();
  drain();
}

void Status::resync() {
  std::uint64_t const head = region_->logHead();
  ++resyncs_;
  KIV_TRACE(th, 3, "resync: " << path_ << " fell behind the change log; comparing tables");
  cursor_ = head;
  for (TableBase* t : tables_) {
    t->resync();
    if (!region_) return;
  }
}

std::size_t Status::drain() {
  if (!region_ || mode_ != Mode::reader || draining_) return 0;
  // A hook may drop the last reference: keep this alive until the guard
  // below has run.
  Kiv::Ptr<Status> self(this);
  struct Guard {
    bool& flag;
    ~Guard() { flag = false; }
  } guard{draining_};
  draining_ = true;
  std::size_t n = 0;
  bool resynced = false;
  keyBuffer_.resize(Layout::kMaxKeySize);
  // Stops at the bound with changes left: the loop is woken again for them.
  auto more = [&] {
    if (loop_ != nullptr && region_) region_->bellPoke();
    return n;
  };
  for (;;) {
    std::uint64_t const head = region_->logHead();
    if (head < cursor_ || head - cursor_ > region_->logCapacity()) {
      if (resynced) return more();
      resync();
      resynced = true;
      if (!region_) return n;
      continue;
    }
    bool wrapped = false;
    while (cursor_ < head) {
      if (n >= drainLimit_) return more();
      std::uint32_t table = 0;
      bool ok;
      try {
        ok = region_->logRead(cursor_, table, keyBuffer_.data());
      } catch (Pelto::CorruptionDetectedException const& e) {
        corruptionDetected(e.what());
        ok = false;
      }
      if (!ok) {
        wrapped = true;
        break;
      }
      ++cursor_;
      ++n;
      ++changesHeard_;
      tables_[table]->notifyKey(keyBuffer_.data());
      if (!region_) return n;
      if (changeHook_) changeHook_(*tables_[table], keyBuffer_.data());
      if (!region_) return n;
    }
    if (wrapped) {
      // One comparison per call: an entry that stays unreadable (a writer
      // stopped mid-write) must not make this loop compare forever.
      if (resynced) return more();
      resync();
      resynced = true;
      if (!region_) return n;
      continue;
    }
    if (loop_ != nullptr) region_->bellArm();
    if (region_->logHead() == cursor_) break;
  }
  return n;
}

std::uint64_t Status::changeLogged(TableBase const& table, void const* key) {
  std::uint64_t const stamp = region_->logChange(table.index(), key, table.keySize());
  if (changeHook_) changeHook_(table, key);
  return stamp;
}

void Status::corruptionDetected(std::string const& text) const {
  ++corruptions_;
  KIV_TRACE(th, 1, "corruptionDetected: " << (path_.empty() ? std::string(typeName()) : path_) << ": " << text);
}

}  // namespace Vorn
