// The clock seam. now() is wall-clock seconds since the Unix epoch, so that
// persisted lease times stay meaningful across restarts; timers run on the
// monotonic reading, so a wall-clock step never fires or starves a timer.
#pragma once

#include "rt/Types.h"

namespace Tavrin::Rt {

class Clock {
 public:
   virtual ~Clock() = default;
   virtual Seconds now() const = 0;
   virtual Seconds monotonic() const = 0;
};

class SystemClock final : public Clock {
 public:
   Seconds now() const override;
   Seconds monotonic() const override;
};

// A clock that moves only when told to. Both readings are the same value.
class VirtualClock final : public Clock {
 public:
   explicit VirtualClock(Seconds start = 1000.0) : t_(start) {}
   Seconds now() const override { return t_; }
   Seconds monotonic() const override { return t_; }
   void timeIs(Seconds t) { t_ = t; }
   void advance(Seconds dt) { t_ += dt; }

 private:
   Seconds t_;
};

// The clock that now() reads. Defaults to the system clock.
void clockIs(const Clock* clock);
const Clock& clock();
inline Seconds now() { return clock().now(); }

}  // namespace Tavrin::Rt
