#include "linux/NftProgrammer.h"

#include <nftables/libnftables.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>

#include "rt/Trace.h"

namespace Tavrin::Linux {

namespace {

Rt::TraceFacility& nftTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinNft");
   return f;
}

// Reads per wake-up of the notification socket, so that a storm of changes
// (someone flushing the table) cannot keep timers and other sockets waiting.
constexpr int kNotificationReads = 64;
constexpr size_t kRecvBuffer = 65536;
// Rounds of rebuild, re-read and commit one flush may take before it waits
// for the retry timer: enough for "table gone -> rebuilt -> read back ->
// counters added", never a tight loop against a kernel that keeps refusing.
constexpr int kFlushRounds = 4;
// The first lines of libnftables' complaint are the useful ones; it quotes
// the offending input, which may be a very long table.
constexpr size_t kMaxErrorText = 600;

struct NftCtxFree {
   void operator()(nft_ctx* c) const { nft_ctx_free(c); }
};

std::string trimmed(std::string text) {
   while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
   if (text.size() > kMaxErrorText) text = text.substr(0, kMaxErrorText) + " ...";
   for (auto& c : text) {
      if (c == '\n') c = ' ';
   }
   return text;
}

}  // namespace

// ---------------------------------------------------------------- reactors

class NftProgrammer::StatusReactor : public IpMacLeaseTable::Notifiee {
 public:
   StatusReactor(NftProgrammer& p, const Ptr<const Status>& s)
       : IpMacLeaseTable::Notifiee(Ptr<const IpMacLeaseTable>(s)), p_(p) {}
   void onIpMacLease(const IpMacLeaseKey& key) override { p_.handlePair(key); }

 private:
   NftProgrammer& p_;
};

class NftProgrammer::RulesReactor : public ConfiguredInterfaceStatus::Notifiee {
 public:
   RulesReactor(NftProgrammer& p, const Ptr<const ConfiguredInterfaceStatus>& r)
       : ConfiguredInterfaceStatus::Notifiee(r), p_(p) {}
   void onInterfaceRule(IntfId port) override { p_.handleRule(port); }

 private:
   NftProgrammer& p_;
};

// The retry itself happens in flush(), at the end of the loop iteration
// this timer's run makes.
class NftProgrammer::RetryReactor : public Rt::TimerTask::Notifiee {
 public:
   void onTaskRun() override {}
};

// ---------------------------------------------------------------- life

NftProgrammer::NftProgrammer(EventLoop& loop, Ptr<const Status> status,
                             Ptr<const ConfiguredInterfaceStatus> rules,
                             Ptr<Hardware::InstalledConfig> installed, Options options)
    : loop_(loop),
      status_(std::move(status)),
      rules_(std::move(rules)),
      installed_(std::move(installed)),
      options_(options),
      commands_(
          std::make_unique<Nft::NlSocket>(Nft::NlSocket::Role::commands, options.bufferBytes)),
      retry_(std::make_unique<Rt::TimerTask>(loop.scheduler(), Rt::TaskPriority(0),
                                             "NftProgrammer retry")),
      retryReactor_(std::make_unique<RetryReactor>()),
      seq_(1) {
   if (!status_ || !rules_) throw Nft::NftError("the published table and the rules are needed");
   retryReactor_->notifierIs(retry_.get());
}

NftProgrammer::~NftProgrammer() {
   closeNotifications();
}

bool NftProgrammer::start() {
   started_ = true;
   statusReactor_ = std::make_unique<StatusReactor>(*this, status_);
   rulesReactor_ = std::make_unique<RulesReactor>(*this, rules_);
   // The rebuild below writes every published pair; marking each one dirty
   // as well would only cost a set of a million keys.
   for (const auto& [key, entry] : status_->ipMacLeaseAll()) noteUnrepresentable(entry);
   for (const auto& [port, rule] : rules_->interfaceRuleAll()) handleRule(port);
   needRebuild_ = true;
   flush();
   return healthy();
}

// ---------------------------------------------------------------- inputs

void NftProgrammer::handlePair(const IpMacLeaseKey& key) {
   planner_.pairDirty(key);
   auto entry = status_->ipMacLease(key);
   if (entry) noteUnrepresentable(*entry);
}

void NftProgrammer::noteUnrepresentable(const IpMacLeaseEntry& entry) {
   if (auto why = Nft::unrepresentable(entry)) {
      ++counters_.unrepresentable;
      TAVRIN_TRACE(nftTrace(), 1,
                   "cannot allow mac " << entry.key.mac << ", ip " << entry.key.ip << " on "
                                       << entry.intfId << ": " << *why);
   }
}

void NftProgrammer::handleRule(IntfId port) {
   planner_.portDirty(port);
   auto rule = rules_->interfaceRule(port);
   if (rule && *rule == 1 && !Nft::ifnameFits(port.name())) {
      ++counters_.unrepresentable;
      TAVRIN_TRACE(nftTrace(), 1, "cannot lock port " << port << ": not a kernel interface name");
   }
}

// ---------------------------------------------------------------- notifications

void NftProgrammer::openNotifications() {
   if (notifications_) return;
   notifications_ =
       std::make_unique<Nft::NlSocket>(Nft::NlSocket::Role::notifications, options_.bufferBytes);
   loop_.fdIs(notifications_->fd(), EPOLLIN, [this](uint32_t) { handleNotifications(); });
}

void NftProgrammer::closeNotifications() {
   if (!notifications_) return;
   loop_.fdDel(notifications_->fd());
   notifications_.reset();
}

void NftProgrammer::handleNotifications() {
   if (!notifications_) return;
   rxBuf_.resize(kRecvBuffer);
   for (int i = 0; i < kNotificationReads && notifications_; ++i) {
      ssize_t n = recv(notifications_->fd(), rxBuf_.data(), rxBuf_.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (n < 0 && errno == ENOBUFS) {
         ++counters_.overruns;
         needResync_ = true;
         TAVRIN_TRACE(nftTrace(), 1, "nf_tables notifications were lost; reading the table back");
         continue;
      }
      if (n < 0) {
         needResync_ = true;
         TAVRIN_TRACE(nftTrace(), 1, "reading nf_tables notifications: " << std::strerror(errno));
         return;
      }
      for (const auto& d : Nft::digestNftBatch(std::span(rxBuf_.data(), size_t(n)))) {
         handleNotification(d);
      }
   }
}

void NftProgrammer::handleNotification(const Nft::NftDigested& d) {
   ++counters_.notifications;
   if (d.status == Nft::NftDigested::Status::malformed) {
      ++counters_.malformed;
      TAVRIN_TRACE(nftTrace(), 1, "malformed nf_tables message: " << d.reason);
      return;
   }
   if (d.status != Nft::NftDigested::Status::ok) return;
   if (std::holds_alternative<Nft::GenerationMsg>(d.msg)) return;
   if (std::holds_alternative<Nft::StructureMsg>(d.msg)) {
      // The table's shape is only ever changed by a rebuild, during which
      // this socket is closed: this is someone else's doing. Deleting a table
      // tells of each rule, set and chain; one rebuild answers them all.
      if (needRebuild_) return;
      ++counters_.drift;
      needRebuild_ = true;
      TAVRIN_TRACE(nftTrace(), 1,
                   "table bridge " << Nft::kTable << " was changed by another program ("
                                   << Nft::str(d.msg) << "); rebuilding it");
      return;
   }
   // Our own changes are in the view already when their notifications
   // arrive; only someone else's change moves it.
   size_t bad = 0;
   if (Nft::applyToView(d.msg, view_, planner_, bad)) {
      ++counters_.drift;
      TAVRIN_TRACE(nftTrace(), 1,
                   "table bridge " << Nft::kTable << " was changed by another program ("
                                   << Nft::str(d.msg) << "); putting it right");
   }
   counters_.malformed += bad;
}

void NftProgrammer::drainNotifications() {
   handleNotifications();
}

// ---------------------------------------------------------------- flush

void NftProgrammer::flush() {
   if (!started_) return;
   for (int round = 0; round < kFlushRounds; ++round) {
      // After a failure, nothing is tried before the retry timer is due.
      if (loop_.scheduler()->clock().monotonic() < retryAt_) return;
      if (needRebuild_) {
         if (!rebuild()) continue;
      }
      if (needResync_) {
         if (!resync()) continue;
      }
      if (!planner_.pending()) return;
      if (commitPlan()) return;
   }
   const bool waiting = loop_.scheduler()->clock().monotonic() < retryAt_;
   if (!waiting && (needRebuild_ || needResync_ || planner_.pending())) {
      failed("table bridge " + std::string(Nft::kTable) + " keeps changing while being written");
   }
}

bool NftProgrammer::rebuild() {
   // Closed while the table is replaced and filled: the replacement's own
   // notifications (a million elements, and the old table's deletion) are
   // no news, and with nobody listening the kernel does not even write them.
   closeNotifications();
   std::vector<IntfId> locked;
   for (const auto& [port, rule] : rules_->interfaceRuleAll()) {
      if (desired().locked(port)) locked.push_back(port);
   }
   // The first pairs ride in the replacement itself, so that they never
   // miss a packet; the rest follow in batches right after, bounded in
   // memory where text through libnftables costs about a kilobyte each.
   std::vector<Nft::AllowedElem> first;
   for (const auto& [key, entry] : status_->ipMacLeaseAll()) {
      if (first.size() >= options_.replaceItems) break;
      if (Nft::unrepresentable(entry) || !Nft::textSafe(entry.intfId.name())) continue;
      first.push_back(Nft::AllowedElem{entry.intfId, key.mac, key.ip.v4Addr()});
   }
   // A generation moved by exactly one across the replacement means no
   // transaction but ours happened in between: the kernel holds what we
   // sent, and reading it back would tell us nothing.
   const auto before = Nft::readGeneration(*commands_, seq_);
   {
      const auto replace = Nft::tableReplaceText(options_.settings, locked, first);
      std::unique_ptr<nft_ctx, NftCtxFree> ctx(nft_ctx_new(NFT_CTX_DEFAULT));
      if (!ctx) {
         ++counters_.rebuildFailures;
         failed("cannot set up libnftables");
         return false;
      }
      nft_ctx_buffer_output(ctx.get());
      nft_ctx_buffer_error(ctx.get());
      if (nft_run_cmd_from_buffer(ctx.get(), replace.text.c_str()) != 0) {
         ++counters_.rebuildFailures;
         failed("replacing table bridge " + std::string(Nft::kTable) + ": " +
                trimmed(nft_ctx_get_error_buffer(ctx.get())));
         return false;
      }
   }
   const auto after = Nft::readGeneration(*commands_, seq_);
   ++counters_.rebuilds;
   view_.clear();
   view_.allowedReserve(status_->ipMacLeaseSize());
   for (auto port : locked) {
      if (Nft::textSafe(port.name())) view_.lockedIs(port);
   }
   for (const auto& e : first) view_.allowedIs(e);
   TAVRIN_TRACE(nftTrace(), 3,
                "replaced table bridge " << Nft::kTable << ": " << view_.lockedAll().size()
                                         << " locked ports, " << view_.allowedSize()
                                         << " allowed pairs; adding the rest by netlink");
   // A read-back that was due is superseded: the table is what we just
   // wrote, and the view was built from it.
   needRebuild_ = false;
   needResync_ = false;
   structure_.clear();
   planner_.clear();
   const bool alone = before && after && *after == Nft::nextGeneration(*before);
   fillGeneration_ = alone ? *after : 0;
   const bool filled = fill();
   const uint32_t expected = fillGeneration_;
   fillGeneration_ = 0;
   if (!filled) return false;
   if (needResync_) return true;
   try {
      openNotifications();
   } catch (const Nft::NftError& e) {
      needResync_ = true;
      failed("following table bridge " + std::string(Nft::kTable) + ": " + e.what());
      return false;
   }
   // From the subscription on, notifications tell of every change; before
   // it, the generation says whether there was any.
   const auto now = Nft::readGeneration(*commands_, seq_);
   if (!alone || !now || *now != expected) {
      needResync_ = true;
      TAVRIN_TRACE(nftTrace(), 1,
                   "nf_tables changed while table bridge " << Nft::kTable
                                                           << " was built; reading it back");
      return true;
   }
   publishInstalledAll();
   succeeded();
   return true;
}

bool NftProgrammer::fill() {
   // Ports first: the ARP drop counters and map, and locks that text could
   // not spell, so that no locked port waits for a million pairs.
   Nft::Planner ports;
   for (const auto& [port, rule] : rules_->interfaceRuleAll()) ports.portDirty(port);
   Nft::Plan plan = ports.plan(desired(), view_);
   auto result = send(plan);
   Nft::Plan chunk;
   if (result.ok) {
      for (const auto& [key, entry] : status_->ipMacLeaseAll()) {
         if (Nft::unrepresentable(entry)) continue;
         const Nft::AllowedElem e{entry.intfId, key.mac, key.ip.v4Addr()};
         if (view_.allowedHas(e)) continue;
         chunk.allowedAdd.push_back(e);
         if (chunk.allowedAdd.size() < options_.maxBatchItems) continue;
         result = send(chunk);
         chunk.allowedAdd.clear();
         if (!result.ok) break;
      }
   }
   if (result.ok) result = send(chunk);
   if (result.ok) return true;
   needResync_ = true;
   if (result.refusal == ERESTART) {
      // Someone else's transaction came between two of ours: what the table
      // holds is no longer only what we sent.
      TAVRIN_TRACE(nftTrace(), 1,
                   "nf_tables changed while table bridge " << Nft::kTable
                                                           << " was filled; reading it back");
      return true;
   }
   ++counters_.batchFailures;
   failed(result.error);
   return false;
}

Nft::CommitResult NftProgrammer::send(const Nft::Plan& plan) {
   auto parts = Nft::splitPlan(plan, options_.maxBatchItems);
   std::deque<Nft::Plan> queue(parts.begin(), parts.end());
   while (!queue.empty()) {
      Nft::Plan part = std::move(queue.front());
      queue.pop_front();
      if (part.empty()) continue;
      Nft::Batch batch(seq_, fillGeneration_);
      batch.add(part);
      batch.finish();
      if (batch.bytes() > commands_->sendLimit() && part.size() > 1) {
         // Too large for one send on this system: halves, in order.
         auto halves = Nft::splitPlan(part, (part.size() + 1) / 2);
         queue.insert(queue.begin(), halves.begin(), halves.end());
         continue;
      }
      seq_ = batch.nextSeq();
      auto result = Nft::commit(*commands_, batch);
      if (!result.ok) {
         result.error = "writing " + std::to_string(part.size()) + " changes to table bridge " +
                        std::string(Nft::kTable) + ": " + result.error;
         return result;
      }
      if (fillGeneration_) fillGeneration_ = Nft::nextGeneration(fillGeneration_);
      Nft::apply(view_, part);
      ++counters_.batches;
      counters_.elementsAdded += part.counterAdd.size() + part.arpMapAdd.size() +
                                 part.allowedAdd.size() + part.lockedAdd.size();
      counters_.elementsRemoved += part.arpMapDel.size() + part.allowedDel.size() +
                                   part.lockedDel.size() + part.counterDel.size();
      TAVRIN_TRACE(nftTrace(), 4,
                   "committed " << part.allowedAdd.size() << " allowed pairs added, "
                                << part.allowedDel.size() << " removed, " << part.lockedAdd.size()
                                << " ports locked, " << part.lockedDel.size() << " unlocked");
   }
   Nft::CommitResult ok;
   ok.ok = true;
   return ok;
}

bool NftProgrammer::resync() {
   ++counters_.resyncs;
   try {
      if (notifications_) {
         // Whatever is queued is older than the read below, which supersedes it.
         closeNotifications();
      }
      openNotifications();
   } catch (const Nft::NftError& e) {
      failed("following table bridge " + std::string(Nft::kTable) + ": " + e.what());
      return false;
   }
   auto dump = Nft::dumpTable(*commands_, seq_);
   counters_.malformed += dump.malformed;
   if (dump.outcome == Nft::TableDump::Outcome::missing) {
      ++counters_.drift;
      needRebuild_ = true;
      TAVRIN_TRACE(nftTrace(), 1, dump.error << "; rebuilding the table");
      return false;
   }
   if (dump.outcome != Nft::TableDump::Outcome::ok) {
      failed(dump.error);
      return false;
   }
   const bool sameAsBuilt = structure_.empty() || dump.structure == structure_;
   if (!sameAsBuilt || !structureExpected(dump.structure)) {
      ++counters_.drift;
      needRebuild_ = true;
      TAVRIN_TRACE(nftTrace(), 1,
                   "table bridge " << Nft::kTable
                                   << " does not hold the chains, rules and sets it was built "
                                      "with; rebuilding it");
      return false;
   }
   structure_ = std::move(dump.structure);
   view_ = std::move(dump.view);
   needResync_ = false;
   planner_.allDirty();
   return true;
}

bool NftProgrammer::structureExpected(const std::vector<Nft::StructureMsg>& structure) const {
   using Object = Nft::StructureMsg::Object;
   std::map<std::string, size_t> rules;
   std::map<std::string, size_t> chains;
   std::vector<std::string> sets;
   size_t tables = 0;
   for (const auto& s : structure) {
      switch (s.object) {
         case Object::table:
            ++tables;
            break;
         case Object::chain:
            chains.emplace(s.name, 0);
            break;
         case Object::rule:
            ++rules[s.name];
            break;
         case Object::set:
            sets.push_back(s.name);
            break;
         case Object::flowtable:
            return false;
      }
   }
   for (auto& [chain, n] : chains) n = rules.count(chain) ? rules[chain] : 0;
   std::sort(sets.begin(), sets.end());
   return tables == 1 && chains == Nft::chainRuleCounts() && sets == Nft::setNames();
}

bool NftProgrammer::commitPlan() {
   // Notifications already queued tell of changes made before this batch;
   // taking them in first keeps the batch from deleting what is gone.
   drainNotifications();
   if (needRebuild_ || needResync_) return false;
   const Nft::Plan plan = planner_.plan(desired(), view_);
   auto result = send(plan);
   if (!result.ok) {
      ++counters_.batchFailures;
      // The kernel undid the whole transaction, but what it holds may also
      // have moved under it: read it back before trying again.
      needResync_ = true;
      for (const auto& key : planner_.dirtyPairs()) publishInstalled(key);
      failed(result.error);
      return false;
   }
   if (planner_.allDirtyIs()) {
      publishInstalledAll();
   } else {
      for (const auto& key : planner_.dirtyPairs()) publishInstalled(key);
   }
   planner_.clear();
   succeeded();
   return true;
}

// ---------------------------------------------------------------- installed config

void NftProgrammer::publishInstalled(const Nft::PairKey& key) {
   if (!installed_) return;
   const IpMacLeaseKey k{key.mac, IpGenAddr(key.ip)};
   auto ports = view_.allowedPorts(key);
   if (ports.empty()) {
      installed_->ipMacLeaseDel(k);
      return;
   }
   // Should someone else's element name the pair on a second port, the one
   // the agent asked for is what is installed.
   IntfId port = ports.front();
   if (auto want = desired().allowed(key)) {
      if (std::find(ports.begin(), ports.end(), want->port) != ports.end()) port = want->port;
   }
   installed_->ipMacLeaseIs(IpMacLeaseEntry{k, port, false});
}

void NftProgrammer::publishInstalledAll() {
   if (!installed_) return;
   std::vector<IpMacLeaseKey> stale;
   for (const auto& [key, entry] : installed_->ipMacLeaseAll()) {
      if (key.ip.isV6() || view_.allowedPorts(Nft::PairKey{key.mac, key.ip.v4Addr()}).empty()) {
         stale.push_back(key);
      }
   }
   for (const auto& key : stale) installed_->ipMacLeaseDel(key);
   view_.allowedForEach([this](const Nft::AllowedElem& e) {
      publishInstalled(Nft::PairKey{e.mac, e.ip});
   });
}

// ---------------------------------------------------------------- health

void NftProgrammer::failed(const std::string& what) {
   const Seconds delay = retryDelay_;
   retryAt_ = loop_.scheduler()->clock().monotonic() + delay;
   retry_->scheduleTaskDelay(delay);
   retryDelay_ = std::min(retryDelay_ * 2, kMaxRetry);
   TAVRIN_TRACE(nftTrace(), 1, what << "; trying again in " << delay << " s");
   const bool wasHealthy = lastError_.empty();
   lastError_ = what;
   if (wasHealthy && health_) health_(false, what);
}

void NftProgrammer::succeeded() {
   retryDelay_ = kFirstRetry;
   retryAt_ = 0;
   if (lastError_.empty()) return;
   lastError_.clear();
   TAVRIN_TRACE(nftTrace(), 1, "table bridge " << Nft::kTable << " is written again");
   if (health_) health_(true, "the data plane is written again");
}

}  // namespace Tavrin::Linux
