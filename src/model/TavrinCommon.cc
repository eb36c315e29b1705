#include "model/TavrinCommon.h"

namespace Tavrin {

Rt::TraceFacility& tavrinTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("Tavrin");
   return f;
}

void sendLeaseQuery(const Ptr<LeaseQueryRequest>& request, EthAddr mac, const IpGenAddr& ip,
                    IntfId intfId, bool delay, bool force, const IpGenAddr& dhcpAddr) {
   if (mac.isZero()) {
      TAVRIN_TRACE(tavrinTrace(), 4, "Send leasequery for Ip " << ip << " on intf " << intfId);
   } else {
      TAVRIN_TRACE(tavrinTrace(), 4, "Send leasequery for Mac " << mac << " on intf " << intfId);
   }
   request->macIs(mac);
   request->ipIs(ip);
   request->intfIdIs(intfId);
   request->delayIs(delay);
   request->forceIs(force);
   request->dhcpAddrIs(dhcpAddr);
   request->versionNumberInc(1);
}

}  // namespace Tavrin
