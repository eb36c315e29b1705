// A packet: an owned byte buffer, shared by reference count between the
// socket seam that received it and the parser that reads it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "rt/Ptr.h"

namespace Tavrin::Rt {

class Pkt : public RefCounted {
 public:
   Pkt() = default;
   explicit Pkt(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
   const std::vector<uint8_t>& bytes() const { return bytes_; }
   std::vector<uint8_t>& bytes() { return bytes_; }
   std::span<const uint8_t> span() const { return bytes_; }
   size_t size() const { return bytes_.size(); }

 private:
   std::vector<uint8_t> bytes_;
};

}  // namespace Tavrin::Rt
