// Any bytes a local user writes to the control socket, cut into lines as
// the server cuts them: the line buffer never serves more than its limit or
// a line with a newline in it, and every line is either refused with a
// reason or parsed into a request that reads back the same from its own
// wire form. Replies are parsed too, for tavrinctl's side.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <variant>

#include "daemon/ControlProtocol.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

void check(bool ok) {
   if (!ok) __builtin_trap();
}

// Refusal reasons whose round trip through a reply line has been checked.
// Most refusals give one of a few fixed reasons ("request is not JSON"), and
// the round trip of the same text is the same every time: checking it once
// keeps the target's time on parsing what is new. Reasons that quote the
// input are new text and checked when they come. The cap is small on
// purpose: an input that adds a reason allocates more than it frees, which
// makes libFuzzer run it again to look for a leak, and after a thousand
// such inputs it stops looking for leaks at all.
std::unordered_set<std::string>& checkedReasons() {
   static std::unordered_set<std::string> reasons;
   return reasons;
}
constexpr size_t kReasonsRemembered = 64;

void checkLine(std::string_view line) {
   const auto parsed = parseRequest(line);
   if (const auto* why = std::get_if<std::string>(&parsed)) {
      check(!why->empty());
      auto& checked = checkedReasons();
      if (checked.count(*why)) return;
      // The reason goes back to the client as a reply line, intact.
      const Reply back = parseReply(replyError(*why));
      check(!back.ok && back.error == *why);
      if (checked.size() < kReasonsRemembered) checked.insert(*why);
      return;
   }
   const Request& r = std::get<Request>(parsed);
   std::string wire = requestLine(r);
   check(!wire.empty() && wire.back() == '\n');
   wire.pop_back();
   const auto again = parseRequest(wire);
   check(std::holds_alternative<Request>(again) && std::get<Request>(again) == r);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   const std::string_view bytes(reinterpret_cast<const char*>(data), size);
   checkLine(bytes);
   (void)parseReply(bytes);

   // The first byte decides how the rest arrives in reads, so that lines
   // straddle reads the way a slow client makes them.
   if (size == 0) return 0;
   const size_t chunk = size_t(data[0] % 16) + 1;
   LineBuffer buf(kMaxRequestBytes);
   // The fuzzer favours newlines, so most inputs repeat lines (empty ones
   // above all); each distinct line is parsed once, every line is still
   // checked for what the buffer guarantees.
   std::set<std::string> seen;
   for (size_t at = 1; at < size; at += chunk) {
      if (!buf.append(bytes.substr(at, chunk))) break;
      while (auto line = buf.nextLine()) {
         check(line->size() <= kMaxRequestBytes);
         check(line->find('\n') == std::string::npos);
         if (seen.insert(*line).second) checkLine(*line);
      }
   }
   return 0;
}
