// Costs of the framework's everyday operations, each beside a plain C++
// baseline measured in the same run.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Kiv/Entity.h"
#include "Kiv/Reflect.h"
#include "Kiv/Trace.h"

namespace {

Kiv::TraceHandle benchTrace("Bench::Kiv");

void DisabledTrace(benchmark::State& state) {
  Kiv::Trace::configIs("");
  int x = 0;
  for (auto _ : state) {
    KIV_TRACE(benchTrace, 8, "value " << x);
    benchmark::DoNotOptimize(x);
    ++x;
  }
}
BENCHMARK(DisabledTrace);

void BaselineEmptyLoop(benchmark::State& state) {
  int x = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(x);
    ++x;
  }
}
BENCHMARK(BaselineEmptyLoop);

class Counter : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<Counter> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onValue() {}
  };
  void valueIs(unsigned v) {
    if (Kiv::changed(value_, v)) notify(&NotifieeConst::onValue);
  }

 private:
  unsigned value_ = 0;
};

class Listener : public Counter::NotifieeConst {
 public:
  using Counter::NotifieeConst::NotifieeConst;
  void onValue() override { benchmark::DoNotOptimize(++heard); }
  unsigned heard = 0;
};

// A setter that changes the value and notifies n notifiees.
void Notify(benchmark::State& state) {
  Kiv::Ptr<Counter> c = new Counter();
  std::vector<std::unique_ptr<Listener>> ls;
  for (int i = 0; i < state.range(0); ++i) ls.push_back(std::make_unique<Listener>(c));
  unsigned v = 0;
  for (auto _ : state) c->valueIs(++v);
}
BENCHMARK(Notify)->Arg(0)->Arg(1)->Arg(8);

// The same counter with its attribute declared once (KIV_ATTR): the typed
// setter must cost what the hand-written one above costs.
class DeclaredCounter : public Kiv::Entity {
 public:
  class NotifieeConst : public Kiv::NotifieeConstBase<DeclaredCounter> {
   public:
    using NotifieeConstBase::NotifieeConstBase;
    virtual void onValue() {}
  };
  KIV_REFLECT_BEGIN(DeclaredCounter, "Bench::DeclaredCounter")
  KIV_ATTR(unsigned, value, onValue, 0)
  KIV_REFLECT_END
};

class DeclaredListener : public DeclaredCounter::NotifieeConst {
 public:
  using DeclaredCounter::NotifieeConst::NotifieeConst;
  void onValue() override { benchmark::DoNotOptimize(++heard); }
  unsigned heard = 0;
};

void NotifyDeclared(benchmark::State& state) {
  Kiv::Ptr<DeclaredCounter> c = new DeclaredCounter();
  std::vector<std::unique_ptr<DeclaredListener>> ls;
  for (int i = 0; i < state.range(0); ++i) ls.push_back(std::make_unique<DeclaredListener>(c));
  unsigned v = 0;
  for (auto _ : state) c->valueIs(++v);
}
BENCHMARK(NotifyDeclared)->Arg(0)->Arg(1)->Arg(8);

// The same change made by name through the text form, for scale.
void NotifyByName(benchmark::State& state) {
  Kiv::Ptr<DeclaredCounter> c = new DeclaredCounter();
  DeclaredListener l(c);
  unsigned v = 0;
  std::string text;
  for (auto _ : state) {
    text = std::to_string(++v);
    Kiv::attrSet(*c, "value", text);
  }
}
BENCHMARK(NotifyByName);

struct PlainObserver {
  virtual ~PlainObserver() = default;
  virtual void onValue() = 0;
};
struct PlainListener : PlainObserver {
  void onValue() override { benchmark::DoNotOptimize(++heard); }
  unsigned heard = 0;
};

// Baseline: the same change announced by plain virtual calls over a vector.
void BaselineVirtualCalls(benchmark::State& state) {
  std::vector<std::unique_ptr<PlainListener>> ls;
  for (int i = 0; i < state.range(0); ++i) ls.push_back(std::make_unique<PlainListener>());
  std::vector<PlainObserver*> obs;
  for (auto& l : ls) obs.push_back(l.get());
  unsigned value = 0, v = 0;
  for (auto _ : state) {
    ++v;
    if (value != v) {
      value = v;
      for (PlainObserver* o : obs) o->onValue();
    }
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BaselineVirtualCalls)->Arg(0)->Arg(1)->Arg(8);

void PtrCopy(benchmark::State& state) {
  Kiv::Ptr<Counter> c = new Counter();
  for (auto _ : state) {
    Kiv::Ptr<Counter> copy = c;
    benchmark::DoNotOptimize(copy.ptr());
  }
}
BENCHMARK(PtrCopy);

void BaselineRawPointerCopy(benchmark::State& state) {
  Kiv::Ptr<Counter> c = new Counter();
  Counter* raw = c.ptr();
  for (auto _ : state) {
    Counter* copy = raw;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BaselineRawPointerCopy);

void BaselineSharedPtrCopy(benchmark::State& state) {
  auto c = std::make_shared<int>(1);
  for (auto _ : state) {
    std::shared_ptr<int> copy = c;
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BaselineSharedPtrCopy);

}  // namespace

BENCHMARK_MAIN();
