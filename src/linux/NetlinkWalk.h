// Walking the messages of a netlink buffer without trusting their lengths.
//
// Not mnl_nlmsg_ok/mnl_nlmsg_next: they compare nlmsg_len as a signed int,
// so a length of 2 GiB or more passes as fitting and the next step leaves
// the buffer, and a length of 0xffffffff aligns to 0 and never advances.
// Bytes from the kernel are outside bytes like any other.
#pragma once

#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Tavrin::Linux::Netlink {

// Whether the message at nlh, with `available` bytes from it, is whole.
inline bool fits(const nlmsghdr* nlh, size_t available) {
   return available >= sizeof(nlmsghdr) && nlh->nlmsg_len >= sizeof(nlmsghdr) &&
          nlh->nlmsg_len <= available;
}

// Calls fn(nlh, available) for each whole message of [data, data + size),
// in order, while fn returns true; `available` is what is left of the
// buffer from nlh on. libmnl walks a message's attributes up to its length
// rounded up to 4 bytes, which the last message need not carry: that one is
// handed over from a zero-padded copy. data must be 4-byte aligned. Returns
// the bytes left after the last whole message (a truncated one).
template <class Fn>
size_t forEachMessage(const void* data, size_t size, Fn&& fn) {
   const auto* at = static_cast<const uint8_t*>(data);
   size_t left = size;
   while (left > 0) {
      const auto* nlh = reinterpret_cast<const nlmsghdr*>(at);
      if (!fits(nlh, left)) return left;
      bool more;
      if (NLMSG_ALIGN(size_t(nlh->nlmsg_len)) > left) {
         std::vector<uint32_t> padded(NLMSG_ALIGN(size_t(nlh->nlmsg_len)) / 4);
         std::memcpy(padded.data(), nlh, nlh->nlmsg_len);
         more = fn(reinterpret_cast<const nlmsghdr*>(padded.data()), size_t(nlh->nlmsg_len));
      } else {
         more = fn(nlh, left);
      }
      if (!more) return 0;
      const size_t step = std::min<size_t>(NLMSG_ALIGN(size_t(nlh->nlmsg_len)), left);
      at += step;
      left -= step;
   }
   return 0;
}

}  // namespace Tavrin::Linux::Netlink
