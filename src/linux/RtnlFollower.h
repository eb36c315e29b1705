// Follows the kernel's links, IPv4 addresses and the configured bridge's
// forwarding database over rtnetlink, and keeps two platform entities
// current from them:
//  - "bridging/status" (BridgingStatus): every entry the bridge learned on
//    one of its ports, keyed by (VLAN id or 0, MAC), valued by the port's
//    name. The bridge's own addresses and static or permanent entries are
//    left out: they are configuration, not clients;
//  - "ip/status" (IpStatus): per interface, its primary IPv4 address (the
//    first address without IFA_F_SECONDARY); an interface without IPv4
//    addresses has no entry.
//
// It dumps the three tables at start and then applies notifications. A
// notification socket that overflowed (ENOBUFS) has lost an unknown set of
// changes, so the tables are dumped again and the entities reconciled with
// the fresh view: entries absent from it are deleted, new ones added,
// changed ones updated, unchanged ones left alone (no notification).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "linux/EventLoop.h"
#include "linux/NetlinkDigest.h"
#include "platform/Platform.h"

struct mnl_socket;

namespace Tavrin::Linux {

// The kernel tables as far as the entities need them, kept from digested
// messages. Knows nothing of sockets, so a test feeds it directly.
class RtnlMirror {
 public:
   // What one message changed, so that only that is published.
   struct Change {
      std::vector<Platform::HostKey> fdb;
      std::vector<int> addrIfindex;
      bool all = false;  // names or bridge membership moved: publish everything
      bool empty() const { return fdb.empty() && addrIfindex.empty() && !all; }
   };

   explicit RtnlMirror(std::string bridgeName);

   Change apply(const RtnlMsg& msg);

   const std::string& bridgeName() const { return bridgeName_; }
   // The bridge's ifindex; 0 while no link has its name.
   int bridgeIfindex() const;
   std::optional<std::string> ifname(int ifindex) const;
   std::optional<int> ifindex(std::string_view name) const;
   // The link's kind ("bridge", "veth", empty for a physical device).
   std::optional<std::string> linkKind(int ifindex) const;
   size_t links() const { return links_.size(); }

   // The entity contents this view calls for.
   std::optional<Platform::FdbStatusEntry> fdbEntry(const Platform::HostKey& key) const;
   std::map<Platform::HostKey, Platform::FdbStatusEntry> fdbAll() const;
   // 0.0.0.0 when the interface has no primary IPv4 address.
   IpAddr primaryAddr(int ifindex) const;
   std::map<IntfId, IpAddr> primaryAddrAll() const;

 private:
   struct Link {
      std::string name;
      int master = 0;
      std::string kind;
   };
   struct Addr {
      IpAddr local;
      uint8_t prefixLen = 0;
      bool secondary = false;
      uint8_t scope = 0;
   };
   static void addrPlace(std::vector<Addr>& list, const Addr& a);
   Change applyLink(const LinkMsg& m);
   Change applyAddr(const AddrMsg& m);
   Change applyFdb(const FdbMsg& m);
   bool fromBridge(const FdbMsg& m) const;
   void fdbDelPort(int ifindex);
   void nameDel(const std::string& name, int ifindex);

   std::string bridgeName_;
   std::map<int, Link> links_;
   std::map<std::string, int, std::less<>> byName_;
   // In the kernel's order (see addrPlace), which decides the primary when
   // several subnets each have one.
   std::map<int, std::vector<Addr>> addrs_;
   // Learned entries of the bridge: key -> port ifindex.
   std::map<Platform::HostKey, int> fdb_;
};

// One re-dump in progress: the tables the dump fills, and the notifications
// that arrived meanwhile. Each notification carries the whole state of its
// key, so replaying them in order over the dump leaves every key as the
// last word on it says, whether that word came before or after the dump
// read the key.
class RtnlResync {
 public:
   explicit RtnlResync(std::string bridgeName) : fresh_(std::move(bridgeName)) {}
   void dumped(const RtnlMsg& msg) { fresh_.apply(msg); }
   void notified(const RtnlMsg& msg) { replay_.push_back(msg); }
   size_t notifiedCount() const { return replay_.size(); }
   RtnlMirror finish() &&;

 private:
   RtnlMirror fresh_;
   std::vector<RtnlMsg> replay_;
};

// Brings the entities to what the mirror calls for: all of it, or only what
// one change touched. Writes only differences, so subscribers hear only of
// real changes.
void publishAll(const RtnlMirror& mirror, Platform::BridgingStatus& fdb, Platform::IpStatus& ip);
void publish(const RtnlMirror& mirror, const RtnlMirror::Change& change,
             Platform::BridgingStatus& fdb, Platform::IpStatus& ip);

class RtnlError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class RtnlFollower {
 public:
   struct Options {
      std::string bridge;
      // Receive buffer of the notification socket. Bursts beyond it cost a
      // re-dump, not a lost change; the lab shrinks it to force that.
      int rcvBufBytes = 8 << 20;
   };
   struct Counters {
      uint64_t notifications = 0;  // messages read from the notification socket
      uint64_t resyncs = 0;        // re-dumps after the first dump
      uint64_t overruns = 0;       // ENOBUFS and truncated reads
      uint64_t malformed = 0;      // messages that broke their policy
      uint64_t dumpRestarts = 0;   // dumps redone because the table moved under them
      uint64_t dumpErrors = 0;     // dumps the kernel refused or failed
   };
   // Redone at most this often in a row when the table moves under a dump;
   // after that the dump is taken as it is and the next notification corrects it.
   static constexpr int kMaxDumpAttempts = 3;

   // Opens and subscribes the sockets; throws RtnlError when the kernel
   // refuses. Nothing is read before start().
   RtnlFollower(EventLoop& loop, Ptr<Platform::BridgingStatus> fdb, Ptr<Platform::IpStatus> ip,
                Options options);
   ~RtnlFollower();
   RtnlFollower(const RtnlFollower&) = delete;
   RtnlFollower& operator=(const RtnlFollower&) = delete;

   // Starts the first dump; the entities fill when it ends.
   void start();
   // True once a dump has completed and been published.
   bool synced() const { return synced_; }
   // Called after every completed dump (the first and each resync).
   void syncHandlerIs(std::function<void()> handler) { syncHandler_ = std::move(handler); }
   // Dumps again and reconciles, as after an overrun.
   void resyncIs();

   const RtnlMirror& mirror() const { return mirror_; }
   const Counters& counters() const { return counters_; }

 private:
   struct SocketCloser {
      void operator()(mnl_socket* s) const;
   };
   using Socket = std::unique_ptr<mnl_socket, SocketCloser>;
   class RetryReactor;
   enum class Step : uint8_t { links, addrs, fdb, done };

   Socket openSocket(const char* what);
   void openDumpSocket();
   void handleNotifications();
   void handleNotification(const nlmsghdr* nlh);
   void handleDumpReadable();
   void handleDumpMessage(const nlmsghdr* nlh);
   void retryDump();
   void beginDump();
   void sendDumpRequest();
   void dumpStepDone();
   void finishDump();
   void dumpFailed(const std::string& why);
   void checkBridge() const;
   static int notificationCb(const nlmsghdr* nlh, void* self);
   static int dumpCb(const nlmsghdr* nlh, void* self);

   EventLoop& loop_;
   Ptr<Platform::BridgingStatus> fdb_;
   Ptr<Platform::IpStatus> ip_;
   Options options_;
   Socket events_;
   Socket dump_;
   RtnlMirror mirror_;
   std::unique_ptr<RtnlResync> resync_;
   Step step_ = Step::done;
   uint32_t seq_ = 0;
   int attempts_ = 0;
   bool disturbed_ = false;
   bool again_ = false;
   bool synced_ = false;
   std::unique_ptr<Rt::TimerTask> retry_;
   std::unique_ptr<RetryReactor> retryReactor_;
   std::function<void()> syncHandler_;
   std::vector<uint8_t> buf_;
   Counters counters_;
};

}  // namespace Tavrin::Linux
