// The Linux data plane: keeps the nftables table `bridge tavrin` (see
// NftRules.h) in line with what the agent publishes, and reports back what
// the kernel holds.
//
// Inputs: the published pairs ("tavrin/status", one `allowed` element per
// entry) and the interface rules ("tavrin/interfaceStatus", one `locked`
// element and one ARP drop counter per port with rule 1). Output: the
// installed pairs ("tavrin/hardware/installedConfig", in the shape of the
// published table), as the kernel holds them.
//
// At start the table is replaced whole, in one transaction that holds the
// rules, the locked ports and the first Options::replaceItems published
// pairs: no packet ever meets a locked port without its rules, and the
// clients of those pairs lose nothing across a restart. The other pairs
// follow at once in netlink transactions of Options::maxBatchItems, so the
// programmer's memory is bounded by one of them plus its view, not by the
// table; until its transaction is in, a client of such a pair is dropped
// (and trapped), never let through unchecked. Each of those transactions
// carries the generation the rule set must be at, so that anyone else's
// commit in between is noticed; only then is the table read back, and
// otherwise the kernel's acknowledgements are taken for what it holds. From
// then on, changes are only noted as they happen; flush(), the event loop's
// iteration-end hook, sends everything one iteration changed as one netlink
// transaction. The hook is registered after the database commit's, so a
// pair reaches the kernel only once it is on disk.
//
// Drift: the programmer follows the kernel's nf_tables notifications for its
// table, and puts right what someone else changed: an element removed
// behind its back is put back, one added is removed, a changed rule or a
// deleted table has the table rebuilt. Notifications cost nothing while
// nothing changes and repair at once, where re-reading a table of a million
// elements to compare would cost seconds each time. When notifications are
// lost (the socket overflowed) or a transaction fails, the table is read
// back whole and compared instead (the kernel's set dump restarts its walk
// at each continuation, so that costs seconds at a million elements). Kernel errors are traced, counted and
// retried with a growing delay, never asserted on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "linux/EventLoop.h"
#include "linux/NftProgrammerNetlink.h"
#include "linux/NftProgrammerPlan.h"
#include "linux/NftRules.h"
#include "model/TavrinTypes.h"

namespace Tavrin::Linux {

class NftProgrammer {
 public:
   struct Options {
      Nft::DataPlaneSettings settings;
      // Receive buffer of the notification socket and the batch socket.
      int bufferBytes = 8 << 20;
      // Items per transaction; more are sent as several, in order.
      size_t maxBatchItems = 50000;
      // Allowed pairs written within the table's replacement itself (as
      // nftables text, about a kilobyte of memory each while it is parsed);
      // the rest follow in transactions of maxBatchItems.
      size_t replaceItems = 10000;
   };
   struct Counters {
      uint64_t rebuilds = 0;         // whole-table replacements
      uint64_t rebuildFailures = 0;  // replacements the kernel refused
      uint64_t batches = 0;          // element transactions committed
      uint64_t batchFailures = 0;    // element transactions refused or unconfirmed
      uint64_t elementsAdded = 0;    // set and map elements and counters written
      uint64_t elementsRemoved = 0;  // ... and removed
      uint64_t notifications = 0;    // nf_tables messages read
      uint64_t drift = 0;            // changes to the table made by someone else
      uint64_t resyncs = 0;          // times the table was read back whole
      uint64_t overruns = 0;         // notification socket overflows
      uint64_t malformed = 0;        // kernel messages or keys that broke their shape
      uint64_t unrepresentable = 0;  // published pairs or rules the table cannot hold
   };
   // Told when writing to the kernel starts failing (with why) and when it
   // works again, once per episode, for the operator's log.
   using HealthHandler = std::function<void(bool healthy, const std::string& message)>;

   static constexpr Seconds kFirstRetry = 0.1;
   static constexpr Seconds kMaxRetry = 10;

   // Opens the batch socket; throws Nft::NftError when the kernel refuses.
   // Nothing is written before start().
   NftProgrammer(EventLoop& loop, Ptr<const Status> status,
                 Ptr<const ConfiguredInterfaceStatus> rules,
                 Ptr<Hardware::InstalledConfig> installed, Options options);
   // Leaves the table in the kernel: the lock holds while tavrind restarts.
   ~NftProgrammer();
   NftProgrammer(const NftProgrammer&) = delete;
   NftProgrammer& operator=(const NftProgrammer&) = delete;

   // Replaces the table with one holding everything published now, and
   // follows the entities and the kernel from then on. False when the
   // kernel refused; the programmer keeps trying (lastError() says why).
   bool start();
   // The iteration-end hook.
   void flush();

   // True while the table is in place and the last transaction succeeded.
   bool healthy() const { return started_ && lastError_.empty(); }
   const std::string& lastError() const { return lastError_; }
   const Counters& counters() const { return counters_; }
   void healthHandlerIs(HealthHandler h) { health_ = std::move(h); }
   const Nft::KernelView& kernelView() const { return view_; }

 private:
   class StatusReactor;
   class RulesReactor;
   class RetryReactor;

   Nft::Desired desired() const { return {*status_, *rules_}; }
   void handlePair(const IpMacLeaseKey& key);
   void handleRule(IntfId port);
   void handleNotifications();
   void handleNotification(const Nft::NftDigested& d);
   void drainNotifications();
   void openNotifications();
   void closeNotifications();
   bool rebuild();
   bool fill();
   bool resync();
   bool commitPlan();
   Nft::CommitResult send(const Nft::Plan& plan);
   void noteUnrepresentable(const IpMacLeaseEntry& entry);
   bool structureExpected(const std::vector<Nft::StructureMsg>& structure) const;
   void publishInstalled(const Nft::PairKey& key);
   void publishInstalledAll();
   void failed(const std::string& what);
   void succeeded();

   EventLoop& loop_;
   Ptr<const Status> status_;
   Ptr<const ConfiguredInterfaceStatus> rules_;
   Ptr<Hardware::InstalledConfig> installed_;
   Options options_;
   std::unique_ptr<Nft::NlSocket> commands_;
   std::unique_ptr<Nft::NlSocket> notifications_;
   std::unique_ptr<StatusReactor> statusReactor_;
   std::unique_ptr<RulesReactor> rulesReactor_;
   std::unique_ptr<Rt::TimerTask> retry_;
   std::unique_ptr<RetryReactor> retryReactor_;
   Nft::KernelView view_;
   Nft::Planner planner_;
   // The table's shape as read after it was last built; empty until then.
   std::vector<Nft::StructureMsg> structure_;
   std::vector<uint8_t> rxBuf_;
   uint32_t seq_;
   // While the table is filled after its replacement: the generation the
   // rule set is at if nobody but us committed since; 0 otherwise.
   uint32_t fillGeneration_ = 0;
   bool started_ = false;
   bool needRebuild_ = true;
   bool needResync_ = false;
   Seconds retryAt_ = 0;
   Seconds retryDelay_ = kFirstRetry;
   std::string lastError_;
   HealthHandler health_;
   Counters counters_;
};

}  // namespace Tavrin::Linux
