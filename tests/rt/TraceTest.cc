#include <gtest/gtest.h>

#include "rt/Trace.h"

using namespace Tavrin;

namespace {

struct Capture : Rt::TraceSink {
   void write(const Rt::TraceFacility& f, int level, std::string_view m) override {
      lines.push_back(f.name() + "/" + std::to_string(level) + " " + std::string(m));
   }
   std::vector<std::string> lines;
};

void emitter(Rt::TraceFacility& f, int formatted) {
   TAVRIN_TRACE(f, 4, "value " << formatted);
   TAVRIN_TRACE(f, 1, "dropped");
}

}  // namespace

TEST(Trace, messageIsTheFullSignatureThenTextAndOnlyEnabledLevelsAreWritten) {
   Capture cap;
   Rt::traceSinkIs(&cap);
   auto& f = Rt::traceFacility("TraceTestFacility");
   f.maskIs(0);
   f.levelIs(4, true);
   emitter(f, 7);
   Rt::traceSinkIs(nullptr);
   ASSERT_EQ(cap.lines.size(), 1u);
   EXPECT_EQ(cap.lines[0],
             "TraceTestFacility/4 void {anonymous}::emitter(Tavrin::Rt::TraceFacility&, int): value 7");
}

TEST(Trace, aDisabledLevelDoesNotEvaluateItsArguments) {
   auto& f = Rt::traceFacility("TraceTestLazy");
   f.maskIs(0);
   int evaluated = 0;
   auto costly = [&] { return ++evaluated; };
   TAVRIN_TRACE(f, 3, costly());
   EXPECT_EQ(evaluated, 0);
}

TEST(Trace, theRingKeepsTheNewestMessagesPerLevelWithinItsSize) {
   Rt::DualTrace dual;
   std::vector<std::string> twin;
   dual.textTwinIs([&](const Rt::TraceFacility&, int, std::string_view m) { twin.emplace_back(m); });
   dual.ring().init("Tavrin.tr", {2, 0, 0, 0, 0, 0, 0, 0, 0, 0});
   auto& f = Rt::traceFacility("TraceTestRing");
   for (const char* m : {"one", "two", "three"}) dual.write(f, 0, m);
   dual.write(f, 1, "level one has no ring");
   EXPECT_EQ(std::vector<std::string>(dual.ring().level(0).begin(), dual.ring().level(0).end()),
             (std::vector<std::string>{"two", "three"}));
   EXPECT_TRUE(dual.ring().level(1).empty());
   EXPECT_EQ(twin.size(), 4u);  // the text twin gets everything
}
