#include "query/LeaseQuerySm.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <vector>

#include "platform/Services.h"
#include "rt/Assert.h"
#include "rt/Clock.h"

namespace Tavrin {

namespace {

// The first round of a delayed query, and every restarted schedule, go out
// one second after the request.
constexpr double kFirstSendDelay = 1.0;

// Eight-bit counters stream as characters; traces want the number.
unsigned num(uint8_t v) { return v; }

// Option values as traced: seconds, or "none" when the server left it out.
struct OptSeconds {
   std::optional<uint32_t> value;
};
std::ostream& operator<<(std::ostream& os, const OptSeconds& s) {
   if (s.value) return os << *s.value;
   return os << "none";
}

}  // namespace

LeaseQuerySm::LeaseQuerySm(Ptr<const CliConfig> cliConfig,
                           Ptr<const LeaseQueryRequest> leaseQueryRequest,
                           Ptr<LeaseQueryResponse> leaseQueryResponse,
                           Ptr<const Platform::IpStatus> ipStatus,
                           Ptr<Rt::TaskScheduler> scheduler)
    : cliConfig_(std::move(cliConfig)),
      leaseQueryRequest_(std::move(leaseQueryRequest)),
      leaseQueryResponse_(std::move(leaseQueryResponse)),
      ipStatus_(std::move(ipStatus)),
      scheduler_(std::move(scheduler)) {
   if (leaseQueryRequest_) {
      leaseQueryRequestReactor_ =
          std::make_unique<LeaseQueryRequestReactor>(*this, leaseQueryRequest_);
   }
   if (cliConfig_) cliConfigReactor_ = std::make_unique<CliConfigReactor>(*this, cliConfig_);
   handleInitialized();
}

LeaseQuerySm::~LeaseQuerySm() {
   // Deaf first, so that nothing reaches the machine while its queries go.
   leaseQueryRequestReactor_.reset();
   cliConfigReactor_.reset();
   udpPamReactor_.reset();
   timerReactor_.clear();
   queryContext_.clear();
}

// ---------------------------------------------------------------- tables

Ptr<QueryContext> LeaseQuerySm::queryContext(const IpMacPair& pair) const {
   return Ptr<QueryContext>(queryContext_.get(pair));
}

Ptr<QueryContext> LeaseQuerySm::queryContextIs(const IpMacPair& pair) {
   // One probe: callers ask for a context they have just found absent.
   auto [it, added] = queryContext_.try_emplace(pair, Rt::makePtr<QueryContext>(pair));
   return it->second;
}

void LeaseQuerySm::queryContextDel(const IpMacPair& pair) { queryContext_.erase(pair); }

Ptr<TimerReactor> LeaseQuerySm::timerReactor(const IpMacPair& pair) const {
   return Ptr<TimerReactor>(timerReactor_.get(pair));
}

Ptr<TimerReactor> LeaseQuerySm::timerReactorIs(const IpMacPair& pair, LeaseQuerySm* leaseQuerySm,
                                               const Ptr<Rt::TaskScheduler>& scheduler,
                                               double sendTime) {
   if (auto existing = timerReactor(pair)) return existing;
   if (!scheduler) return nullptr;
   return timerReactor_.try_emplace(pair, Rt::makePtr<TimerReactor>(pair, leaseQuerySm, scheduler, sendTime))
       .first->second;
}

void LeaseQuerySm::timerReactorDel(const IpMacPair& pair) {
   TimerReactor* reactor = timerReactor_.get(pair);
   if (!reactor) return;
   // The reactor may outlive this call when its own run is on the stack;
   // its task must not.
   reactor->queryTaskDel();
   timerReactor_.erase(pair);
}

// ---------------------------------------------------------------- sending

void LeaseQuerySm::udpPamIs(const Ptr<Platform::UdpPam>& pam) {
   udpPam_ = pam;
   udpPamReactor_.reset();
   if (udpPam_) udpPamReactor_ = std::make_unique<UdpPamReactor>(*this, udpPam_);
}

void LeaseQuerySm::handleInitialized() {
   if (initialized_) return;
   auto pam = Platform::services().udpPamIs("Tavrin");
   if (pam) {
      // A server answers a lease query as it answers a relay agent: to
      // giaddr, on the server port (RFC 4388), so that is where we listen.
      pam->txDstIpAddrIs(IpAddr(0xffffffffu));
      pam->txPortIs(kDhcpServerPort);
      pam->rxIpAddrIs(IpAddr());
      pam->rxPortIs(kDhcpServerPort);
      pam->modeIs(Platform::UdpPam::Mode::txRx);
   }
   udpPamIs(pam);
   initializedIs(true);
}

void LeaseQuerySm::handleLeaseQueryRequest() {
   const auto& request = *leaseQueryRequest_;
   const EthAddr mac = request.mac();
   const IpGenAddr ip = request.ip();
   const IntfId intfId = request.intfId();
   const IpGenAddr dhcpAddr = request.dhcpAddr();
   const bool delay = request.delay();
   const bool force = request.force();
   TAVRIN_TRACE(leaseQueryTrace(), 4,
                "ip: " << ip << ", mac: " << mac << ", delay: " << delay << ", force: " << force);
   if (!cliConfig_) return;  // no configuration, no server to ask
   if (dhcpAddr != IpGenAddr()) {
      // Writers only name servers they took from the configuration.
      // clang-format off
      TAVRIN_ASSERT(cliConfig()->dhcpV4ServerHas( dhcpAddr.v4Addr() ));
      // clang-format on
   }
   if (!force && queryContext(IpMacPair{ip, mac})) {
      TAVRIN_TRACE(leaseQueryTrace(), 4, "QueryContext is already present");
      return;
   }
   if (delay) {
      createQueryContextAndTimer(mac, ip, intfId, dhcpAddr, kInitialGenId);
   } else {
      createQueryAndSend(mac, ip, intfId, dhcpAddr, kInitialGenId);
   }
}

Ptr<QueryContext> LeaseQuerySm::createQueryContextAndTimer(EthAddr mac, IpGenAddr ip,
                                                           IntfId intfId, IpGenAddr dhcpAddr,
                                                           uint32_t genId) {
   const IpMacPair pair{ip, mac};
   auto ctx = queryContext(pair);
   if (ctx) {
      TAVRIN_TRACE(leaseQueryTrace(), 3, "Resetting previous QueryContext");
      // A new generation: answers to the old one are refused from now on.
      ctx->genIdInc(1);
      ctx->sentCountIs(0);
      auto timer = timerReactor(pair);
      if (timer && timer->queryTask()) timer->queryTask()->scheduleTaskDelay(kFirstSendDelay);
   } else {
      ctx = queryContextIs(pair);
      ctx->genIdIs(genId);
      timerReactorIs(pair, this, scheduler_, kFirstSendDelay);
   }
   ctx->intfIdIs(intfId);
   if (dhcpAddr != IpGenAddr()) {
      ctx->pendingServerIs(dhcpAddr);
   } else if (cliConfig_) {
      for (IpAddr server : cliConfig_->dhcpV4ServerAll()) ctx->pendingServerIs(IpGenAddr(server));
   }
   return ctx;
}

void LeaseQuerySm::createQueryAndSend(EthAddr mac, IpGenAddr ip, IntfId intfId,
                                      IpGenAddr dhcpAddr, uint32_t genId) {
   sendRound(createQueryContextAndTimer(mac, ip, intfId, dhcpAddr, genId));
}

void LeaseQuerySm::sendRound(const Ptr<QueryContext>& ctx) {
   sendLeaseQuery(ctx, udpPam_, ipStatus_, cliConfig_ ? cliConfig_->localInterface() : IntfId());
}

void sendLeaseQuery(const Ptr<QueryContext>& ctx, const Ptr<Platform::UdpPam>& pam,
                    const Ptr<const Platform::IpStatus>& ipStatus, IntfId sourceIntf) {
   const IpAddr queryIp = ctx->ipMacPair().ip.v4Addr();
   const EthAddr mac = ctx->ipMacPair().mac;
   const bool byMac = !mac.isZero();
   const uint32_t xid = ctx->genId();
   auto status = ipStatus ? ipStatus->ipIntfStatus(sourceIntf) : nullptr;
   if (!status) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Source intf " << sourceIntf << " is missing an ipIntfStatus");
      return;
   }
   const IpAddr source = status->primaryAddr();
   if (source.isAny()) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Source intf does not have a primary IP configured, return");
      return;
   }
   for (const IpGenAddr& server : ctx->pendingServerAll()) {
      // giaddr names us: the server sends its answer there.
      auto pkt = buildDhcpLeaseQuery(byMac, source, server.v4Addr(), mac, queryIp, xid);
      if (pam) {
         pam->txDstIpAddrIs(server.v4Addr());
         pam->txPortIs(LeaseQuerySm::kDhcpServerPort);
         pam->txSrcIpAddrIs(source);
         pam->pktIs(pkt);
      }
      TAVRIN_TRACE(leaseQueryTrace(), 3,
                   "Send the leaseQuery with IP: " << queryIp << " MAC: " << mac << ", xid: " << xid
                                                   << " to server: " << server);
   }
   ctx->sentCountInc(1);
}

// ---------------------------------------------------------------- retries

void LeaseQuerySm::handleTimer(IpMacPair ipMacPair) {
   TAVRIN_TRACE(leaseQueryTrace(), 4,
                " ipMacPair: (ip: " << ipMacPair.ip << ", mac: " << ipMacPair.mac << " )");
   auto ctx = queryContext(ipMacPair);
   if (!ctx) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Timer fired with invalid ipMacPair");
      return;
   }
   auto timer = timerReactor(ipMacPair);
   if (ctx->sentCount() >= kMaxSendRounds) {
      // Copied: each report runs its readers before we go on.
      const std::vector<IpGenAddr> silent(ctx->pendingServerAll().begin(),
                                          ctx->pendingServerAll().end());
      for (const auto& server : silent) notifyLeaseInvalid(ipMacPair, server);
      // A reader may have forced the same pair again; that query lives on.
      if (queryContext(ipMacPair) == ctx && ctx->sentCount() >= kMaxSendRounds) {
         queryContextDel(ipMacPair);
         timerReactorDel(ipMacPair);
      }
      return;
   }
   TAVRIN_TRACE(leaseQueryTrace(), 3,
                "SentCount: " << num(ctx->sentCount())
                              << ". Sending the pkt and schedule another timer");
   TAVRIN_ASSERT(timer);
   // A delayed query's first round keeps its generation; every resend is a
   // new one, so that a late answer to an earlier round is refused.
   double gap = kFirstSendDelay;
   if (ctx->sentCount() > 0) {
      ctx->genIdInc(1);
      const bool lastRound = ctx->sentCount() == kMaxSendRounds - 1;
      gap = lastRound ? kLastRetryGap : std::trunc(std::pow(2.0, double(ctx->sentCount())));
   }
   timer->queryTask()->scheduleTaskDelay(gap);
   sendRound(ctx);
}

void LeaseQuerySm::handleDhcpServerDeconfigured(IpAddr server) {
   if (cliConfig_->dhcpV4ServerHas(server)) return;
   // Collected first: a query that waited only for this server ends here.
   std::vector<IpMacPair> pairs;
   pairs.reserve(queryContext_.size());
   for (const auto& [pair, ctx] : queryContext_) pairs.push_back(pair);
   std::sort(pairs.begin(), pairs.end());  // the same order on every run
   for (const auto& pair : pairs) deleteFromPendingServer(IpGenAddr(server), pair);
}

// ---------------------------------------------------------------- answers

void LeaseQuerySm::handleReadableCount() {
   TAVRIN_TRACE(leaseQueryTrace(), 4, "");
   auto pkt = udpPam_->rxPkt();
   if (!pkt) {
      TAVRIN_TRACE(leaseQueryTrace(), 3, " no pkt, pam only set");
      return;
   }
   // The count may lag the queue; drain it so no answer waits for the next.
   for (; pkt; pkt = udpPam_->rxPkt()) {
      const IpAddr sender = udpPam_->rxSrcIpAddr();
      if (!cliConfig_ || !cliConfig_->dhcpV4ServerHas(sender)) {
         TAVRIN_TRACE(leaseQueryTrace(), 3, "Packet received from an unknown address: " << sender);
         continue;
      }
      PacketParser parser;
      if (!parser.doParse(pkt)) {
         TAVRIN_TRACE(leaseQueryTrace(), 1,
                      "Could not parse DHCP leaseQuery response, dropping packet");
         continue;
      }
      const std::string type = parser.messageTypeName();
      if (type == "DHCPLEASEACTIVE") {
         processLeaseActive(parser.ciaddr(), parser.chaddr(), sender, parser);
      } else if (type == "DHCPLEASEUNASSIGNED" || type == "DHCPLEASEUNKNOWN") {
         processLeaseUnknownOrLeaseUnassigned(parser.ciaddr(), parser.chaddr(), sender,
                                              parser.xid(), type);
      } else {
         TAVRIN_TRACE(leaseQueryTrace(), 1,
                      "Dhcp packet received is not a leaseQuery response, it is a "
                          << type << ", dropping packet");
      }
   }
}

void LeaseQuerySm::processLeaseActive(IpGenAddr leaseIp, EthAddr leaseMac, IpGenAddr dhcpAddr,
                                      const PacketParser& parser) {
   const uint32_t xid = parser.xid();
   // A by-IP query sits under (IP, zero MAC), a by-MAC one under (empty, MAC).
   auto ctx = queryContext(IpMacPair{leaseIp, EthAddr()});
   if (ctx && ctx->genId() != xid) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "IP QueryContext has wrong genId: " << ctx->genId());
      ctx = nullptr;
   }
   const bool queryByMac = !ctx;
   if (!ctx) {
      ctx = queryContext(IpMacPair{IpGenAddr(), leaseMac});
      if (ctx && ctx->genId() != xid) {
         TAVRIN_TRACE(leaseQueryTrace(), 1, "MAC QueryContext has wrong genId: " << ctx->genId());
         ctx = nullptr;
      }
   }
   if (!ctx) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "No valid matching queryContext found");
      return;
   }
   TAVRIN_TRACE(leaseQueryTrace(), 4,
                (queryByMac ? "Query by MAC" : "Query by IP") << ", Intf: " << ctx->intfId());
   if (!ctx->pendingServerHas(dhcpAddr)) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Response from non pending server " << dhcpAddr);
      return;
   }
   TAVRIN_TRACE(leaseQueryTrace(), 3,
                "leaseIp: " << leaseIp << ", leaseMac " << leaseMac << ", xid: " << xid
                            << ", dhcpAddr: " << dhcpAddr << ", lastTransactionTime: "
                            << OptSeconds{parser.clientLastTransactionTime()}
                            << ", expirationTime:" << OptSeconds{parser.leaseTime()});
   ctx->receivedValidLeaseIs(true);
   // Without both times there is nothing to install; the server stays
   // pending so that the next round asks it again.
   if (!parser.leaseTime()) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Receive a leaseActive without leaseTime");
      return;
   }
   if (!parser.clientLastTransactionTime()) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Receive a leaseActive without lastTransactionTime");
      return;
   }
   writeLeaseActive(ctx, queryByMac, dhcpAddr, parser);
   deleteFromPendingServer(dhcpAddr, ctx->ipMacPair());
}

void LeaseQuerySm::writeLeaseActive(const Ptr<QueryContext>& ctx, bool queryByMac,
                                    IpGenAddr dhcpAddr, const PacketParser& parser) {
   // The server's times are relative to its answer (RFC 4388 options 51
   // and 91); anchor them on our clock now.
   const Seconds now = Rt::now();
   writeResponse(queryByMac, parser.chaddr(), IpGenAddr(parser.ciaddr()), dhcpAddr,
                 ctx->intfId(), now - *parser.clientLastTransactionTime(),
                 now + *parser.leaseTime(), parser.messageType().value_or(0));
   if (queryByMac) {
      // Each further address of the client is confirmed by its own query.
      const std::set<IpAddr> associated(parser.associatedIp().begin(),
                                        parser.associatedIp().end());
      const uint32_t genId = parser.xid() + kInitialGenId;
      const IntfId intfId = ctx->intfId();
      for (IpAddr ip : associated) {
         createQueryAndSend(EthAddr(), IpGenAddr(ip), intfId, dhcpAddr, genId);
         if (leaseQueryResponse_) leaseQueryResponse_->associatedIpIs(IpGenAddr(ip));
      }
   }
   publishResponse();
}

void LeaseQuerySm::processLeaseUnknownOrLeaseUnassigned(IpGenAddr queryIp, EthAddr queryMac,
                                                        IpGenAddr dhcpAddr, uint32_t xid,
                                                        const std::string& dhcpMsgType) {
   TAVRIN_TRACE(leaseQueryTrace(), 3,
                "queryIp: " << queryIp << ", queryMac " << queryMac << ", xid: " << xid
                            << ", dhcpAddr: " << dhcpAddr << ", messageType: " << dhcpMsgType);
   auto ctx = queryContext(IpMacPair{queryIp, queryMac});
   if (!ctx) {
      TAVRIN_TRACE(leaseQueryTrace(), 1,
                   "Receive a leaseQuery response for a unknown lease, dropping packet");
      return;
   }
   if (ctx->genId() != xid) {
      TAVRIN_TRACE(leaseQueryTrace(), 1,
                   "xid: " << xid << ", QueryContext genId " << ctx->genId()
                           << " does not match xid. Drop the pkt");
      return;
   }
   if (!ctx->pendingServerHas(dhcpAddr)) {
      TAVRIN_TRACE(leaseQueryTrace(), 1, "Response from non pending server " << dhcpAddr);
      return;
   }
   const IpMacPair pair = ctx->ipMacPair();
   const bool queryByMac = !pair.mac.isZero();
   if (queryByMac && dhcpMsgType == "DHCPLEASEUNASSIGNED") {
      // RFC 4388: unassigned answers only a query by IP address.
      TAVRIN_TRACE(leaseQueryTrace(), 1,
                   "Server should never send a leaseUnassign for a query by MAC");
      return;
   }
   TAVRIN_TRACE(leaseQueryTrace(), 3,
                "sentCount: " << num(ctx->sentCount())
                              << ", receivedValidLease: " << ctx->receivedValidLease()
                              << ", queryByMac: " << queryByMac);
   // A server that does not know a MAC may simply not have seen it yet:
   // keep asking it until the retries run out, unless another server
   // already vouched for the client.
   if (!queryByMac || ctx->sentCount() >= kMaxSendRounds || ctx->receivedValidLease()) {
      deleteFromPendingServer(dhcpAddr, pair);
      notifyLeaseInvalid(pair, dhcpAddr);
   }
}

void LeaseQuerySm::notifyLeaseInvalid(IpMacPair ipMacPair, IpGenAddr dhcpAddr) {
   TAVRIN_TRACE(leaseQueryTrace(), 3,
                "ip: " << ipMacPair.ip << ", mac: " << ipMacPair.mac << ", dhcpAddr: " << dhcpAddr);
   writeResponse(!ipMacPair.mac.isZero(), ipMacPair.mac, ipMacPair.ip, dhcpAddr, IntfId(), 0, 0,
                 0);
   publishResponse();
}

void LeaseQuerySm::deleteFromPendingServer(IpGenAddr dhcpAddr, IpMacPair ipMacPair) {
   auto ctx = queryContext(ipMacPair);
   if (!ctx) return;
   if (ctx->pendingServerAll().size() == 1 && ctx->pendingServerHas(dhcpAddr)) {
      queryContextDel(ipMacPair);
      timerReactorDel(ipMacPair);
   } else {
      ctx->pendingServerDel(dhcpAddr);
   }
}

void LeaseQuerySm::writeResponse(bool queryByMac, EthAddr mac, IpGenAddr ip, IpGenAddr dhcpAddr,
                                 IntfId intfId, Seconds lastTransactionTime,
                                 Seconds expirationTime, uint8_t messageType) {
   if (!leaseQueryResponse_) return;
   auto& r = *leaseQueryResponse_;
   r.queryByMacIs(queryByMac);
   r.macIs(mac);
   r.ipIs(ip);
   r.dhcpAddrIs(dhcpAddr);
   r.intfIdIs(intfId);
   r.lastTransactionTimeIs(lastTransactionTime);
   r.expirationTimeIs(expirationTime);
   r.associatedIpDelAll();
   r.messageTypeIs(messageType);
}

void LeaseQuerySm::publishResponse() {
   if (leaseQueryResponse_) leaseQueryResponse_->versionNumberInc(1);
}

Ptr<LeaseQuerySm> leaseQuerySmFactory(Ptr<const CliConfig> cliConfig,
                                      Ptr<const LeaseQueryRequest> leaseQueryRequest,
                                      Ptr<LeaseQueryResponse> leaseQueryResponse,
                                      Ptr<const Platform::IpStatus> ipStatus,
                                      Ptr<Rt::TaskScheduler> scheduler) {
   return Rt::makePtr<LeaseQuerySm>(std::move(cliConfig), std::move(leaseQueryRequest),
                                    std::move(leaseQueryResponse), std::move(ipStatus),
                                    std::move(scheduler));
}

}  // namespace Tavrin
