// The trace facility. Every message is the emitting function's full
// signature, ": ", then the text; it carries a level from 0 to 9 and is
// formatted only when that level of its named facility is enabled, so a
// disabled trace costs one bit test. Messages go to the installed sink
// (DualTrace: the in-memory ring and its text twin).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>

#include "rt/Types.h"

namespace Tavrin::Rt {

class TraceFacility {
 public:
   explicit TraceFacility(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   bool enabled(int level) const { return (mask_ >> level) & 1u; }
   void levelIs(int level, bool on) {
      mask_ = on ? uint16_t(mask_ | (1u << level)) : uint16_t(mask_ & ~(1u << level));
   }
   void maskIs(uint16_t mask) { mask_ = mask; }
   uint16_t mask() const { return mask_; }
   // Writes one message: signature ": " text.
   void write(int level, std::string_view signature, std::string_view text) const;

 private:
   std::string name_;
   uint16_t mask_ = 0x3;  // levels 0 and 1 (errors, dropped input) by default
};

// Finds or creates the facility of that name; references stay valid.
TraceFacility& traceFacility(std::string_view name);
// Applies a mask to every facility, present and future.
void traceMaskAllIs(uint16_t mask);
constexpr uint16_t kAllTraceLevels = 0x3ff;

class TraceSink {
 public:
   virtual ~TraceSink() = default;
   virtual void write(const TraceFacility& facility, int level, std::string_view message) = 0;
};
void traceSinkIs(TraceSink* sink);

// The in-memory ring: the newest messages per level, bounded per level.
class TraceRing {
 public:
   TraceRing() = default;
   void init(std::string fileName, const std::array<uint32_t, 10>& sizes);
   const std::string& fileName() const { return fileName_; }
   const std::array<uint32_t, 10>& sizes() const { return sizes_; }
   void write(int level, std::string_view message);
   const std::deque<std::string>& level(int l) const { return rings_[size_t(l)]; }

 private:
   std::string fileName_;
   std::array<uint32_t, 10> sizes_{};
   std::array<std::deque<std::string>, 10> rings_;
};

// Writes every message to the ring and to its text twin (a line writer
// the host supplies: a trace file, standard error, the simulator's log).
class DualTrace : public TraceSink {
 public:
   using TextWriter = std::function<void(const TraceFacility&, int, std::string_view)>;
   TraceRing& ring() { return ring_; }
   void textTwinIs(TextWriter writer) { text_ = std::move(writer); }
   void write(const TraceFacility& facility, int level, std::string_view message) override;

 private:
   TraceRing ring_;
   TextWriter text_;
};

}  // namespace Tavrin::Rt

// TAVRIN_TRACE(facility, level, a << b << c): formats only when enabled.
#define TAVRIN_TRACE(facility, level, ...)                             \
   do {                                                                \
      const ::Tavrin::Rt::TraceFacility& tf__ = (facility);            \
      if (tf__.enabled(level)) {                                       \
         std::ostringstream ts__;                                      \
         ts__ << __VA_ARGS__;                                          \
         tf__.write((level), __PRETTY_FUNCTION__, ts__.str());         \
      }                                                                \
   } while (0)
