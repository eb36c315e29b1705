// The nftables programmer's netlink side: the kernel's nf_tables messages
// (notifications and dump replies) digested into plain structs through
// declared attribute policies, transactions built with libnftnl and their
// verdicts read back, and the table read back whole.
//
// Kernel messages are outside input: one that breaks its policy is reported
// as malformed with a reason, never asserted on. Messages about other
// tables or families are reported as ignored.
#pragma once

#include <linux/netlink.h>
#include <sys/uio.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "linux/NftProgrammerPlan.h"

struct mnl_socket;
struct nftnl_batch;

namespace Tavrin::Linux::Nft {

// ---------------------------------------------------------------- digestion

// A table, chain, rule, set or flowtable of our table appeared or went.
struct StructureMsg {
   enum class Object : uint8_t { table, chain, rule, set, flowtable };
   Object object = Object::table;
   bool removed = false;
   std::string name;  // chain, set or flowtable name; a rule's chain; the table's own name
   uint64_t handle = 0;
   auto operator<=>(const StructureMsg&) const = default;
   bool operator==(const StructureMsg&) const = default;
};

// Elements added to or removed from a set of our table.
struct ElementsMsg {
   struct Elem {
      std::vector<uint8_t> key;
      std::string objref;  // the counter a map element names; empty in plain sets
      bool operator==(const Elem&) const = default;
   };
   bool removed = false;
   std::string set;
   std::vector<Elem> elems;
   bool operator==(const ElementsMsg&) const = default;
};

// A counter of our table appeared or went.
struct CounterMsg {
   bool removed = false;
   std::string name;
   bool operator==(const CounterMsg&) const = default;
};

// A transaction was committed; the notifications of its changes came first.
struct GenerationMsg {
   uint32_t id = 0;
   uint32_t pid = 0;
   bool operator==(const GenerationMsg&) const = default;
};

using NftMsg = std::variant<StructureMsg, ElementsMsg, CounterMsg, GenerationMsg>;

struct NftDigested {
   enum class Status : uint8_t { ok, ignored, malformed };
   Status status = Status::ignored;
   NftMsg msg;
   std::string reason;  // why ignored or malformed
};

// One message; the header's length must fit in the bytes given.
NftDigested digestNft(const nlmsghdr* nlh, size_t available);
// Every message of a buffer as read from a socket; bytes left over that do
// not form a message give one malformed result.
std::vector<NftDigested> digestNftBatch(std::span<const uint8_t> bytes);
std::string str(const NftMsg& msg);

// What the kernel's view becomes with one digested message; true when it
// changed. Keys of the wrong shape are counted in `malformed`. Ports and
// pairs whose view changed are marked in the planner.
bool applyToView(const NftMsg& msg, KernelView& view, Planner& planner, size_t& malformed);

// ---------------------------------------------------------------- sockets

class NftError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// A NETLINK_NETFILTER socket, non-blocking, optionally subscribed to the
// nf_tables notification group.
class NlSocket {
 public:
   enum class Role : uint8_t { commands, notifications };
   // Throws NftError when the kernel refuses.
   NlSocket(Role role, int rcvBufBytes);
   ~NlSocket();
   NlSocket(const NlSocket&) = delete;
   NlSocket& operator=(const NlSocket&) = delete;

   int fd() const;
   mnl_socket* get() const { return sock_.get(); }
   // How large one send may be.
   size_t sendLimit() const { return sendLimit_; }

 private:
   struct Closer {
      void operator()(mnl_socket* s) const;
   };
   std::unique_ptr<mnl_socket, Closer> sock_;
   size_t sendLimit_ = 0;
};

// ---------------------------------------------------------------- transactions

// One transaction under construction. Every message asks for an
// acknowledgement, so the kernel's verdict on each is known; element lists
// are cut into messages of a bounded size.
class Batch {
 public:
   static constexpr size_t kElemsPerMessage = 256;

   // With a generation, the kernel refuses the whole transaction (ERESTART)
   // unless its rule set is still at that generation: nobody else committed
   // anything since. 0 takes whatever is there.
   explicit Batch(uint32_t firstSeq, uint32_t generation = 0);
   ~Batch();
   Batch(const Batch&) = delete;
   Batch& operator=(const Batch&) = delete;

   void add(const Plan& plan);
   // Closes the transaction; nothing is added after.
   void finish();

   size_t bytes() const;
   std::vector<iovec> iov() const;
   uint32_t beginSeq() const { return first_; }
   uint32_t nextSeq() const { return seq_; }
   // The sequence numbers that must each be acknowledged.
   const std::map<uint32_t, std::string>& acked() const { return what_; }

 private:
   struct Freer {
      void operator()(nftnl_batch* b) const;
   };
   nlmsghdr* header(uint16_t type, uint16_t flags, std::string what);
   void setElems(uint16_t type, std::string_view set, const std::vector<std::vector<uint8_t>>& keys,
                 const std::vector<std::string>& objrefs, const char* verb);
   void counters(uint16_t type, const std::vector<IntfId>& ports, const char* verb);

   std::unique_ptr<nftnl_batch, Freer> batch_;
   uint32_t first_;
   uint32_t seq_;
   bool finished_ = false;
   std::map<uint32_t, std::string> what_;
};

struct CommitResult {
   bool ok = false;
   std::string error;  // the first refusal, with what it refused
   int refusal = 0;    // the kernel's errno for it; 0 when it did not answer
};

// Sends the transaction and reads the kernel's verdict. The kernel handles a
// batch inside the send, so every answer is waiting when it returns.
CommitResult commit(NlSocket& sock, const Batch& batch);

// ---------------------------------------------------------------- reading back

struct TableDump {
   enum class Outcome : uint8_t { ok, missing, failed };
   Outcome outcome = Outcome::failed;
   KernelView view;
   // The table, chains, rules, sets and flowtables with their handles: the
   // kernel gives every new object a new handle, so any change to the
   // table's shape changes this list.
   std::vector<StructureMsg> structure;
   size_t malformed = 0;
   std::string error;
};

// Reads the table back whole. seq advances by the requests made.
TableDump dumpTable(NlSocket& sock, uint32_t& seq);

// The rule set's generation: every committed transaction, anyone's, moves it
// on by one. nullopt when the kernel did not say.
std::optional<uint32_t> readGeneration(NlSocket& sock, uint32_t& seq);
// The generation a commit at `generation` leaves behind (0 is never used).
uint32_t nextGeneration(uint32_t generation);

}  // namespace Tavrin::Linux::Nft
