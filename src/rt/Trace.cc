#include "rt/Trace.h"

#include <map>
#include <memory>

namespace Tavrin::Rt {

namespace {

struct Registry {
   std::map<std::string, std::unique_ptr<TraceFacility>, std::less<>> facilities;
   std::optional<uint16_t> allMask;
};

Registry& registry() {
   static Registry r;
   return r;
}

TraceSink* gSink = nullptr;

}  // namespace

TraceFacility& traceFacility(std::string_view name) {
   auto& r = registry();
   auto it = r.facilities.find(name);
   if (it == r.facilities.end()) {
      auto f = std::make_unique<TraceFacility>(std::string(name));
      if (r.allMask) f->maskIs(*r.allMask);
      it = r.facilities.emplace(std::string(name), std::move(f)).first;
   }
   return *it->second;
}

void traceMaskAllIs(uint16_t mask) {
   auto& r = registry();
   r.allMask = mask;
   for (auto& [name, f] : r.facilities) f->maskIs(mask);
}

void traceSinkIs(TraceSink* sink) { gSink = sink; }

void TraceFacility::write(int level, std::string_view signature, std::string_view text) const {
   if (!gSink) return;
   std::string message;
   message.reserve(signature.size() + 2 + text.size());
   message.append(signature).append(": ").append(text);
   gSink->write(*this, level, message);
}

void TraceRing::init(std::string fileName, const std::array<uint32_t, 10>& sizes) {
   fileName_ = std::move(fileName);
   sizes_ = sizes;
   for (auto& r : rings_) r.clear();
}

void TraceRing::write(int level, std::string_view message) {
   if (level < 0 || level > 9) return;
   auto& ring = rings_[size_t(level)];
   uint32_t cap = sizes_[size_t(level)];
   if (cap == 0) return;
   if (ring.size() >= cap) ring.pop_front();
   ring.emplace_back(message);
}

void DualTrace::write(const TraceFacility& facility, int level, std::string_view message) {
   ring_.write(level, message);
   if (text_) text_(facility, level, message);
}

}  // namespace Tavrin::Rt
