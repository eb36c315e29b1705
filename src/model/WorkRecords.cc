#include "model/WorkRecords.h"

namespace Tavrin {

IntfId MacIntfMap::intfIdDel(EthAddr mac) {
   auto it = map_.find(mac);
   if (it == map_.end()) return IntfId();
   IntfId held = it->second;
   map_.erase(it);
   return held;
}

Ptr<IntfMacSet> IntfMacSetMap::intfMacSetIs(IntfId i) {
   auto& slot = map_[i];
   if (!slot) slot = Rt::makePtr<IntfMacSet>(i);
   return slot;
}

}  // namespace Tavrin
