#include "rt/Clock.h"

#include <chrono>

namespace Tavrin::Rt {

Seconds SystemClock::now() const {
   using namespace std::chrono;
   return duration<double>(system_clock::now().time_since_epoch()).count();
}

Seconds SystemClock::monotonic() const {
   using namespace std::chrono;
   return duration<double>(steady_clock::now().time_since_epoch()).count();
}

namespace {
const SystemClock gSystemClock;
const Clock* gClock = &gSystemClock;
}  // namespace

void clockIs(const Clock* c) { gClock = c ? c : &gSystemClock; }
const Clock& clock() { return *gClock; }

}  // namespace Tavrin::Rt
