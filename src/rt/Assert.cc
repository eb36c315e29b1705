#include "rt/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Tavrin::Rt {

namespace {
AssertHandler gHandler = nullptr;
}

void assertHandlerIs(AssertHandler handler) { gHandler = handler; }

void assertFailed(const char* expr, const char* file, int line) {
   if (gHandler) gHandler(expr, file, line);
   std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", expr, file, line);
   std::abort();
}

}  // namespace Tavrin::Rt
