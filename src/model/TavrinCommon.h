// Helpers shared by every state machine that asks for lease queries.
#pragma once

#include "model/WorkRecords.h"
#include "rt/Trace.h"

namespace Tavrin {

// The one way to post a lease query. An empty ip asks by MAC, the zero MAC
// by IP, an empty dhcpAddr asks every configured server. The record is a
// single slot: the reader consumes this posting before the call returns.
void sendLeaseQuery(const Ptr<LeaseQueryRequest>& request, EthAddr mac, const IpGenAddr& ip,
                    IntfId intfId, bool delay, bool force, const IpGenAddr& dhcpAddr);

// The facility of agent start-up, the configuration machine, the publication
// machine and these shared helpers.
Rt::TraceFacility& tavrinTrace();

}  // namespace Tavrin
