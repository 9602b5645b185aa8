#include "Kiv/MappingGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Kiv {

namespace {

constexpr int kSlotsPerChunk = 256;

struct Chunk {
  MappingGuard::Slot slots[kSlotsPerChunk];
  std::atomic<Chunk*> next{nullptr};
};

Chunk firstChunk;
std::atomic<bool> handlerInstalled{false};
struct sigaction previousBus;

void onBusError(int sig, siginfo_t* info, void* context) {
  auto const addr = reinterpret_cast<std::uintptr_t>(info->si_addr);
  std::uintptr_t const pageMask = ~std::uintptr_t(sysconf(_SC_PAGESIZE) - 1);
  for (Chunk* c = &firstChunk; c != nullptr; c = c->next.load(std::memory_order_acquire)) {
    for (MappingGuard::Slot& g : c->slots) {
      std::uintptr_t const base = g.base.load(std::memory_order_acquire);
      std::size_t const length = g.length.load(std::memory_order_acquire);
      if (base == 0 || addr < base || addr >= base + length) continue;
      std::uintptr_t const page = addr & pageMask;
      void* r = mmap(reinterpret_cast<void*>(page), base + length - page, PROT_READ | PROT_WRITE,
                     MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (r != MAP_FAILED) {
        g.truncated.store(true, std::memory_order_relaxed);
        return;
      }
    }
  }
  if ((previousBus.sa_flags & SA_SIGINFO) && previousBus.sa_sigaction != nullptr) {
    previousBus.sa_sigaction(sig, info, context);
    return;
  }
  if (previousBus.sa_handler != SIG_DFL && previousBus.sa_handler != SIG_IGN) {
    previousBus.sa_handler(sig);
    return;
  }
  signal(SIGBUS, SIG_DFL);
  raise(SIGBUS);
}

void installHandler() {
  bool expected = false;
  if (!handlerInstalled.compare_exchange_strong(expected, true)) return;
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = onBusError;
  sa.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGBUS, &sa, &previousBus);
}

MappingGuard::Slot* claim(std::size_t length) {
  for (Chunk* c = &firstChunk;;) {
    for (MappingGuard::Slot& g : c->slots) {
      std::size_t expected = 0;
      if (g.length.compare_exchange_strong(expected, length)) return &g;
    }
    Chunk* next = c->next.load(std::memory_order_acquire);
    if (next == nullptr) {
      // Leaked on purpose: the handler may walk it at any time.
      Chunk* fresh = new Chunk;
      if (!c->next.compare_exchange_strong(next, fresh, std::memory_order_acq_rel)) delete fresh;
      next = c->next.load(std::memory_order_acquire);
    }
    c = next;
  }
}

}  // namespace

MappingGuard::MappingGuard(void* base, std::size_t length) {
  if (base == nullptr || length == 0) return;
  installHandler();
  slot_ = claim(length);
  slot_->truncated.store(false, std::memory_order_relaxed);
  slot_->base.store(reinterpret_cast<std::uintptr_t>(base), std::memory_order_release);
}

MappingGuard::~MappingGuard() { release(); }

MappingGuard::MappingGuard(MappingGuard&& other) noexcept : slot_(std::exchange(other.slot_, nullptr)) {}

MappingGuard& MappingGuard::operator=(MappingGuard&& other) noexcept {
  if (this != &other) {
    release();
    slot_ = std::exchange(other.slot_, nullptr);
  }
  return *this;
}

void MappingGuard::release() {
  if (slot_ == nullptr) return;
  slot_->base.store(0, std::memory_order_release);
  slot_->length.store(0, std::memory_order_release);
  slot_ = nullptr;
}

}  // namespace Kiv
