// Vorn::Status: the entity that owns one region and the typed tables in it.
//
// A schema declares a status as a short class: its NotifieeConst with one
// hook per table, and one VORN_TABLE line per table (see Vorn/Table.h and
// Vorn/TestSchema.h). The status is created unmounted; KivVorn::Mount (or a
// test) mounts it on a region file as the writer or as a reader.
//
// Notification: in the writer's process every real change reaches the
// table's hook synchronously, after the record is visible to readers. A
// reader that follows the region from an event loop hears every changed key
// of every table, in change order, from that loop; if it fell so far behind
// that the change log wrapped, it compares the tables against what it last
// saw and hears of every key that differs (then in key order per table), so
// nothing is lost silently.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/Entity.h"
#include "Vorn/Region.h"

namespace Kiv {
class EventLoop;
}

namespace Vorn {

class TableBase;

struct MountOptions {
  // Records a table may grow to, by table name; tables not named keep
  // their schema's default. A table starts small and grows as written.
  std::map<std::string, std::uint32_t> limit;
  // Change-log entries (rounded up to a power of two); 0: 4096.
  std::uint32_t logCapacity = 0;
};

class Status : public Kiv::Entity {
 public:
  enum class Mode { unmounted, writer, reader };

  Mode mode() const { return mode_; }
  bool mounted() const { return mode_ != Mode::unmounted; }
  Region* region() const { return region_.get(); }
  std::string const& path() const { return path_; }
  std::vector<TableBase*> const& tableList() const { return tables_; }
  TableBase* tableByName(std::string_view name) const;

  // Maps the region at `path`. A writer creates it or adopts the records of
  // an existing one; a reader opens an existing one. Raises
  // Kiv::ErrnoException (no such file, no permission) or
  // Pelto::CorruptionDetectedException (not a valid region of this type).
  void mountIs(std::string const& path, Mode mode, MountOptions const& options = {});
  void unmount();

  // Reader: follows the writer's changes from `loop` (nullptr stops). The
  // hooks fire from the loop for every change made after this call.
  void followIs(Kiv::EventLoop* loop);
  Kiv::EventLoop* follow() const { return loop_; }
  // Delivers the changes logged since the last call, at most drainLimit()
  // keys and one catch-up comparison at a time, so that a writer faster than
  // the hooks cannot hold the caller's loop (the loop calls it when the
  // doorbell rings and is woken again while changes remain; tests may call
  // it directly). Returns how many keys were notified.
  std::size_t drain();
  std::size_t drainLimit() const { return drainLimit_; }
  void drainLimitIs(std::size_t n) { drainLimit_ = n == 0 ? 1 : n; }
  std::uint64_t changesHeard() const { return changesHeard_; }
  std::uint64_t resyncs() const { return resyncs_; }

  // Called for every change, in the writer and in a following reader
  // alike (resyncs included); for tools that watch any table.
  using ChangeHook = std::function<void(TableBase const& table, void const* key)>;
  void changeHookIs(ChangeHook hook) { changeHook_ = std::move(hook); }

  // Where callers report corruption they caught from a table operation:
  // traced at level 1 and counted.
  void corruptionDetected(std::string const& text) const;
  std::uint64_t corruptions() const { return corruptions_; }

 protected:
  explicit Status(Kiv::Name name = Kiv::Name());
  ~Status() override;

 private:
  friend class TableBase;
  void tableAdd(TableBase* table);
  std::uint64_t changeLogged(TableBase const& table, void const* key);
  void resync();
  void handleBell();

  Mode mode_ = Mode::unmounted;
  std::string path_;
  std::unique_ptr<Region> region_;
  std::vector<TableBase*> tables_;
  Kiv::EventLoop* loop_ = nullptr;
  int bellFd_ = -1;
  std::uint64_t cursor_ = 0;
  std::vector<unsigned char> keyBuffer_;
  std::uint64_t changesHeard_ = 0;
  std::uint64_t resyncs_ = 0;
  bool draining_ = false;
  std::size_t drainLimit_ = 1024;
  mutable std::uint64_t corruptions_ = 0;
  ChangeHook changeHook_;
};

}  // namespace Vorn
