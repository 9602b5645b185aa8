// Intrusive reference counting for every framework object.
//
// An object derives from Kiv::PtrInterface; Kiv::Ptr<T> holds one count on
// it and the object deletes itself when the last Ptr lets go. Counts are
// plain integers (the framework runs on one thread) unless the build defines
// KIV_THREADSAFE_PTR, which makes them atomic.
//
//   Kiv::Ptr<Foo> foo = new Foo();      // count 1
//   Kiv::PtrConst<Foo> view = foo;      // count 2, read-only access
//
// Objects are created on the heap and handed to a Ptr at once; a back pointer
// from a child to its owner is a plain pointer and holds no count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#ifdef KIV_THREADSAFE_PTR
#include <atomic>
#endif

namespace Kiv {

class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object with its own count.
  PtrInterface(PtrInterface const&) : refs_(0) {}
  PtrInterface& operator=(PtrInterface const&) { return *this; }

  std::uint32_t references() const { return refs_; }

  void newRef() const {
#ifdef KIV_THREADSAFE_PTR
    refs_.fetch_add(1, std::memory_order_relaxed);
#else
    ++refs_;
#endif
  }
  void deleteRef() const {
#ifdef KIV_THREADSAFE_PTR
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) onZeroReferences();
#else
    if (--refs_ == 0) onZeroReferences();
#endif
  }

 protected:
  virtual ~PtrInterface() = default;
  // Called when the last count goes; the default deletes the object.
  virtual void onZeroReferences() const { delete this; }

 private:
#ifdef KIV_THREADSAFE_PTR
  mutable std::atomic<std::uint32_t> refs_{0};
#else
  mutable std::uint32_t refs_ = 0;
#endif
};

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) : p_(o.p_) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U>
  Ptr(Ptr<U> const& o) : p_(o.ptr()) {
    if (p_) p_->newRef();
  }
  template <class U>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  // Copy and swap: assigning a pointer to itself takes a reference first.
  Ptr& operator=(Ptr const& o) {  // NOLINT(bugprone-unhandled-self-assignment)
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  // Gives up the count without dropping it; the caller owns it now.
  T* release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(Ptr<U> const& o) const {
    return p_ == o.ptr();
  }
  template <class U>
  bool operator==(U* o) const {
    return p_ == o;
  }
  bool operator==(std::nullptr_t) const { return p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T>
using PtrConst = Ptr<T const>;

// Downcast that keeps the count: null when the object is not a T.
template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  std::size_t operator()(Kiv::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
