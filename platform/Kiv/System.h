// Time: Kiv::System::currentTime() is monotonic seconds since an arbitrary
// origin, as a double. A test replaces the clock for its scope with
// Kiv::FakeClock, so code that reads time never needs the test to sleep.
#pragma once

namespace Kiv {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual double now() const = 0;
};

class System {
 public:
  static double currentTime();
  // nullptr restores the monotonic system clock; returns the previous clock.
  static Clock* clockIs(Clock* clock);
};

// Installs itself for its lifetime; time moves only when told to.
class FakeClock : public Clock {
 public:
  explicit FakeClock(double start = 1000.0);
  ~FakeClock() override;
  FakeClock(FakeClock const&) = delete;
  FakeClock& operator=(FakeClock const&) = delete;

  double now() const override { return now_; }
  void nowIs(double t) { now_ = t; }
  void advance(double seconds) { now_ += seconds; }

 private:
  double now_;
  Clock* previous_;
};

}  // namespace Kiv
