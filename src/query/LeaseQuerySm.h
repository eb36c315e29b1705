// The lease query client: turns requests into DHCPLEASEQUERY messages (RFC
// 4388), retries them, and turns answers into response records.
//
// One QueryContext and one TimerReactor per (IP, MAC) pair in flight. A
// query asks every pending server once per round; it ends when every server
// answered, when its last server is deconfigured, or when seven rounds went
// unanswered (then each silent server is reported as holding no lease).
#pragma once

#include <map>
#include <memory>
#include <string>

#include "dhcp/DhcpCodec.h"
#include "model/WorkRecords.h"
#include "platform/Platform.h"
#include "platform/UdpPam.h"
#include "query/QueryContext.h"
#include "query/TimerReactor.h"
#include "rt/FlatTable.h"
#include "rt/TaskScheduler.h"

namespace Tavrin {

class LeaseQuerySm : public Rt::RefCounted {
 public:
   // Every new context sends its first query with this xid; follow-up
   // queries for associated IPs offset the answer's xid by the same amount.
   static constexpr uint32_t kInitialGenId = 1234;
   static constexpr uint16_t kDhcpServerPort = 67;
   // Rounds sent before the next expiry gives up.
   static constexpr uint8_t kMaxSendRounds = 7;
   // The last gap breaks the doubling on purpose: the no-lease report comes
   // ten seconds after the last round rather than another minute later.
   static constexpr double kLastRetryGap = 10.0;

   LeaseQuerySm(Ptr<const CliConfig> cliConfig,
                Ptr<const LeaseQueryRequest> leaseQueryRequest,
                Ptr<LeaseQueryResponse> leaseQueryResponse,
                Ptr<const Platform::IpStatus> ipStatus,
                Ptr<Rt::TaskScheduler> scheduler);
   ~LeaseQuerySm() override;

   const Ptr<const CliConfig>& cliConfig() const { return cliConfig_; }
   const Ptr<const LeaseQueryRequest>& leaseQueryRequest() const { return leaseQueryRequest_; }
   const Ptr<LeaseQueryResponse>& leaseQueryResponse() const { return leaseQueryResponse_; }
   const Ptr<const Platform::IpStatus>& ipStatus() const { return ipStatus_; }
   const Ptr<Platform::UdpPam>& udpPam() const { return udpPam_; }
   bool initialized() const { return initialized_; }

   // A start re-queries every client, so these hold a million entries at
   // times: flat, with the pair in the slot (a new query's lookup misses,
   // and a miss compares every key of its probe run), in no order
   // (readers that show them sort).
   using QueryContextMap = Rt::FlatMap<IpMacPair, QueryContext>;
   using TimerReactorMap = Rt::FlatMap<IpMacPair, TimerReactor>;

   // Queries in flight (read by the simulator's dump and the daemon's show).
   const QueryContextMap& queryContextAll() const { return queryContext_; }
   Ptr<QueryContext> queryContext(const IpMacPair& pair) const;
   Ptr<QueryContext> queryContextIs(const IpMacPair& pair);
   void queryContextDel(const IpMacPair& pair);

   const TimerReactorMap& timerReactorAll() const { return timerReactor_; }
   Ptr<TimerReactor> timerReactor(const IpMacPair& pair) const;
   Ptr<TimerReactor> timerReactorIs(const IpMacPair& pair, LeaseQuerySm* leaseQuerySm,
                                    const Ptr<Rt::TaskScheduler>& scheduler, double sendTime);
   void timerReactorDel(const IpMacPair& pair);

   // ---- sending
   void handleInitialized();
   void handleLeaseQueryRequest();
   Ptr<QueryContext> createQueryContextAndTimer(EthAddr mac, IpGenAddr ip, IntfId intfId,
                                                IpGenAddr dhcpAddr, uint32_t genId);
   void createQueryAndSend(EthAddr mac, IpGenAddr ip, IntfId intfId, IpGenAddr dhcpAddr,
                           uint32_t genId);

   // ---- retries
   void handleTimer(IpMacPair ipMacPair);
   void handleDhcpServerDeconfigured(IpAddr server);

   // ---- answers
   void handleReadableCount();
   void processLeaseActive(IpGenAddr leaseIp, EthAddr leaseMac, IpGenAddr dhcpAddr,
                           const PacketParser& parser);
   void processLeaseUnknownOrLeaseUnassigned(IpGenAddr queryIp, EthAddr queryMac,
                                             IpGenAddr dhcpAddr, uint32_t xid,
                                             const std::string& dhcpMsgType);
   void notifyLeaseInvalid(IpMacPair ipMacPair, IpGenAddr dhcpAddr);
   void deleteFromPendingServer(IpGenAddr dhcpAddr, IpMacPair ipMacPair);

 private:
   class LeaseQueryRequestReactor : public LeaseQueryRequest::Notifiee {
    public:
      LeaseQueryRequestReactor(LeaseQuerySm& sm, const Ptr<const LeaseQueryRequest>& r)
          : LeaseQueryRequest::Notifiee(r), sm_(sm) {}
      void onVersionNumber() override { sm_.handleLeaseQueryRequest(); }

    private:
      LeaseQuerySm& sm_;
   };
   class CliConfigReactor : public CliConfig::Notifiee {
    public:
      CliConfigReactor(LeaseQuerySm& sm, const Ptr<const CliConfig>& c)
          : CliConfig::Notifiee(c), sm_(sm) {}
      void onDhcpV4Server(IpAddr server) override { sm_.handleDhcpServerDeconfigured(server); }

    private:
      LeaseQuerySm& sm_;
   };
   class UdpPamReactor : public Platform::UdpPam::Notifiee {
    public:
      UdpPamReactor(LeaseQuerySm& sm, const Ptr<const Platform::UdpPam>& p)
          : Platform::UdpPam::Notifiee(p), sm_(sm) {}
      void onReadableCount() override { sm_.handleReadableCount(); }

    private:
      LeaseQuerySm& sm_;
   };

   void udpPamIs(const Ptr<Platform::UdpPam>& pam);
   void initializedIs(bool v) { initialized_ = v; }
   void sendRound(const Ptr<QueryContext>& ctx);
   void writeLeaseActive(const Ptr<QueryContext>& ctx, bool queryByMac, IpGenAddr dhcpAddr,
                         const PacketParser& parser);
   void writeResponse(bool queryByMac, EthAddr mac, IpGenAddr ip, IpGenAddr dhcpAddr,
                      IntfId intfId, Seconds lastTransactionTime, Seconds expirationTime,
                      uint8_t messageType);
   void publishResponse();

   Ptr<const CliConfig> cliConfig_;
   Ptr<const LeaseQueryRequest> leaseQueryRequest_;
   Ptr<LeaseQueryResponse> leaseQueryResponse_;
   Ptr<const Platform::IpStatus> ipStatus_;
   Ptr<Rt::TaskScheduler> scheduler_;
   Ptr<Platform::UdpPam> udpPam_;
   QueryContextMap queryContext_;
   TimerReactorMap timerReactor_;
   bool initialized_ = false;
   std::unique_ptr<LeaseQueryRequestReactor> leaseQueryRequestReactor_;
   std::unique_ptr<CliConfigReactor> cliConfigReactor_;
   std::unique_ptr<UdpPamReactor> udpPamReactor_;
};

// One send round: a DHCPLEASEQUERY for the context's pair to each of its
// pending servers, from the primary IPv4 address of `sourceIntf`. A round
// that cannot name its source sends nothing and is not counted, so a
// missing address never uses up retries.
void sendLeaseQuery(const Ptr<QueryContext>& ctx, const Ptr<Platform::UdpPam>& pam,
                    const Ptr<const Platform::IpStatus>& ipStatus, IntfId sourceIntf);

Ptr<LeaseQuerySm> leaseQuerySmFactory(Ptr<const CliConfig> cliConfig,
                                      Ptr<const LeaseQueryRequest> leaseQueryRequest,
                                      Ptr<LeaseQueryResponse> leaseQueryResponse,
                                      Ptr<const Platform::IpStatus> ipStatus,
                                      Ptr<Rt::TaskScheduler> scheduler);

}  // namespace Tavrin
