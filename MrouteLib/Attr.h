// The attribute macros the route model's entities declare their attributes
// with. An entity that uses them has a nested NotifieeConst with one
// on<Name>() hook per attribute and storage named <name>_.
#pragma once

#include <memory>

#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"

// A scalar or pointer attribute: reader, a setter that notifies on<Name>()
// only on a real change, and its reflective entry (in the order declared).
// Storage is declared apart, so that the hot words sit together.
#define MROUTELIB_ATTR(T, name, Name)                                 \
  T const& name() const { return name##_; }                           \
  void name##Is(T const& v) {                                         \
    if (::Kiv::changed(name##_, v)) notify(&NotifieeConst::on##Name); \
  }                                                                   \
  KIV_REFLECT_SCALAR(name)

// A counter: the attribute plus Inc/Dec that wrap at the counter's width and
// return the new value.
#define MROUTELIB_COUNTER(T, name, Name)                              \
  T const& name() const { return name##_; }                           \
  void name##Is(T const& v) {                                         \
    if (::Kiv::changed(name##_, v)) notify(&NotifieeConst::on##Name); \
  }                                                                   \
  T name##Inc(T d) {                                                  \
    name##Is(static_cast<T>(name##_ + d));                            \
    return name##_;                                                   \
  }                                                                   \
  T name##Dec(T d) {                                                  \
    name##Is(static_cast<T>(name##_ - d));                            \
    return name##_;                                                   \
  }                                                                   \
  KIV_REFLECT_COUNTER(name)

// A large attribute that most routes never set: held outside the route from
// its first non-default value on, so that an unset one costs a pointer.
#define MROUTELIB_BOXED_ATTR(T, name, Name)                                             \
  T const& name() const { return name##_ ? *name##_ : ::MrouteLib::boxedDefault<T>(); } \
  void name##Is(T const& v) {                                                           \
    if (!name##_) {                                                                     \
      if (v == T()) return;                                                             \
      name##_ = std::make_unique<T>(v);                                                 \
      notify(&NotifieeConst::on##Name);                                                 \
    } else if (::Kiv::changed(*name##_, v)) {                                           \
      notify(&NotifieeConst::on##Name);                                                 \
    }                                                                                   \
  }                                                                                     \
  KIV_REFLECT_SCALAR(name)

namespace MrouteLib {

// What an unset boxed attribute reads as.
template <class T>
T const& boxedDefault() {
  static T const value{};
  return value;
}

}  // namespace MrouteLib
