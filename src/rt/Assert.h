// Internal invariants. A failed assertion prints the checked expression and
// stops the agent; it is never used for conditions imposed by the outside
// world (packets, configuration, kernel replies), which are traced and dropped.
#pragma once

namespace Tavrin::Rt {

// Called with the expression text; must not return. The default prints the
// text to standard error and aborts. The simulator and tests install their
// own (the simulator prints "assert TEXT" and exits with status 3).
using AssertHandler = void (*)(const char* expr, const char* file, int line);
void assertHandlerIs(AssertHandler handler);
[[noreturn]] void assertFailed(const char* expr, const char* file, int line);

}  // namespace Tavrin::Rt

#define TAVRIN_ASSERT(expr) \
   ((expr) ? (void)0 : ::Tavrin::Rt::assertFailed(#expr, __FILE__, __LINE__))
