// Records every posting of the lease query request record, as the lease
// query client would see it.
#pragma once

#include <ostream>
#include <vector>

#include "model/WorkRecords.h"

namespace Tavrin::TestKit {

struct Posting {
   EthAddr mac;
   IpGenAddr ip;
   IntfId intf;
   bool delay = false;
   bool force = false;
   IpGenAddr server;
   bool operator==(const Posting&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const Posting& p) {
   return os << "{mac " << p.mac << " ip " << p.ip << " intf " << p.intf << " delay " << p.delay
             << " force " << p.force << " server " << p.server << "}";
}

// A query by MAC to every server: what the learning triggers post.
inline Posting byMac(EthAddr mac, IntfId intf, bool delay, bool force) {
   return Posting{mac, IpGenAddr(), intf, delay, force, IpGenAddr()};
}

class RequestRecorder : public LeaseQueryRequest::Notifiee {
 public:
   explicit RequestRecorder(const Ptr<LeaseQueryRequest>& r) : LeaseQueryRequest::Notifiee(r) {}
   void onVersionNumber() override {
      const auto& r = *notifier();
      postings.push_back({r.mac(), r.ip(), r.intfId(), r.delay(), r.force(), r.dhcpAddr()});
   }
   // The postings since the last call.
   std::vector<Posting> take() { return std::exchange(postings, {}); }

   std::vector<Posting> postings;
};

}  // namespace Tavrin::TestKit
