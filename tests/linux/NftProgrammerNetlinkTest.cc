#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cstring>

#include "linux/NftProgrammerNetlink.h"

using namespace Tavrin;
using namespace Tavrin::Linux::Nft;

namespace {

// Notifications as a 6.x kernel sent them to a socket subscribed to
// NFNLGRP_NFTABLES, while `nft` changed a table built like ours.
using Bytes = std::vector<uint8_t>;

// add element bridge tavrin allowed { "swp1" . 02:00:00:00:00:01 . 10.0.0.1 }
const Bytes kNewAllowed = {
    0x58, 0x00, 0x00, 0x00, 0x0c, 0x0a, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x1f, 0x3e, 0x00,
    0x00, 0x07, 0x00, 0x00, 0x03, 0x0b, 0x00, 0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e,
    0x00, 0x00, 0x0c, 0x00, 0x02, 0x00, 0x61, 0x6c, 0x6c, 0x6f, 0x77, 0x65, 0x64, 0x00, 0x2c,
    0x00, 0x03, 0x00, 0x28, 0x00, 0x01, 0x00, 0x24, 0x00, 0x01, 0x00, 0x20, 0x00, 0x01, 0x00,
    0x73, 0x77, 0x70, 0x31, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x01};
// delete element bridge tavrin allowed { ... the same ... }
const Bytes kDelAllowed = {
    0x58, 0x00, 0x00, 0x00, 0x0e, 0x0a, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x21, 0x3e, 0x00,
    0x00, 0x07, 0x00, 0x00, 0x04, 0x0b, 0x00, 0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e,
    0x00, 0x00, 0x0c, 0x00, 0x02, 0x00, 0x61, 0x6c, 0x6c, 0x6f, 0x77, 0x65, 0x64, 0x00, 0x2c,
    0x00, 0x03, 0x00, 0x28, 0x00, 0x01, 0x00, 0x24, 0x00, 0x01, 0x00, 0x20, 0x00, 0x01, 0x00,
    0x73, 0x77, 0x70, 0x31, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x01};
// add counter bridge tavrin arp_drop_swp1
const Bytes kNewCounter = {
    0x6c, 0x00, 0x00, 0x00, 0x12, 0x0a, 0x00, 0x04, 0x01, 0x00, 0x00, 0x00, 0x22, 0x3e, 0x00, 0x00,
    0x07, 0x00, 0x00, 0x05, 0x0b, 0x00, 0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e, 0x00, 0x00,
    0x12, 0x00, 0x02, 0x00, 0x61, 0x72, 0x70, 0x5f, 0x64, 0x72, 0x6f, 0x70, 0x5f, 0x73, 0x77, 0x70,
    0x31, 0x00, 0x00, 0x00, 0x08, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01, 0x0c, 0x00, 0x06, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06, 0x08, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x1c, 0x00, 0x04, 0x00, 0x0c, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x0c, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
// add element bridge tavrin arp_drop { "swp1" : "arp_drop_swp1" }
const Bytes kNewArpMap = {
    0x64, 0x00, 0x00, 0x00, 0x0c, 0x0a, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x23, 0x3e, 0x00,
    0x00, 0x07, 0x00, 0x00, 0x06, 0x0b, 0x00, 0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e,
    0x00, 0x00, 0x0d, 0x00, 0x02, 0x00, 0x61, 0x72, 0x70, 0x5f, 0x64, 0x72, 0x6f, 0x70, 0x00,
    0x00, 0x00, 0x00, 0x34, 0x00, 0x03, 0x00, 0x30, 0x00, 0x01, 0x00, 0x18, 0x00, 0x01, 0x00,
    0x14, 0x00, 0x01, 0x00, 0x73, 0x77, 0x70, 0x31, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x00, 0x09, 0x00, 0x61, 0x72, 0x70, 0x5f, 0x64, 0x72,
    0x6f, 0x70, 0x5f, 0x73, 0x77, 0x70, 0x31, 0x00, 0x00, 0x00};
// add element bridge tavrin locked { "swp1" }
const Bytes kNewLocked = {
    0x4c, 0x00, 0x00, 0x00, 0x0c, 0x0a, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x24, 0x3e, 0x00, 0x00,
    0x07, 0x00, 0x00, 0x07, 0x0b, 0x00, 0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e, 0x00, 0x00,
    0x0b, 0x00, 0x02, 0x00, 0x6c, 0x6f, 0x63, 0x6b, 0x65, 0x64, 0x00, 0x00, 0x20, 0x00, 0x03, 0x00,
    0x1c, 0x00, 0x01, 0x00, 0x18, 0x00, 0x01, 0x00, 0x14, 0x00, 0x01, 0x00, 0x73, 0x77, 0x70, 0x31,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
// add rule bridge tavrin lock accept  (handle 7)
const Bytes kNewRule = {
    0x6c, 0x00, 0x00, 0x00, 0x06, 0x0a, 0x00, 0x0c, 0x01, 0x00, 0x00, 0x00, 0x25, 0x3e, 0x00, 0x00,
    0x07, 0x00, 0x00, 0x08, 0x0b, 0x00, 0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e, 0x00, 0x00,
    0x09, 0x00, 0x02, 0x00, 0x6c, 0x6f, 0x63, 0x6b, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x03, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x07, 0x34, 0x00, 0x04, 0x00, 0x30, 0x00, 0x01, 0x00,
    0x0e, 0x00, 0x01, 0x00, 0x69, 0x6d, 0x6d, 0x65, 0x64, 0x69, 0x61, 0x74, 0x65, 0x00, 0x00, 0x00,
    0x1c, 0x00, 0x02, 0x00, 0x08, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x02, 0x00,
    0x0c, 0x00, 0x02, 0x00, 0x08, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01};
// add table inet other
const Bytes kNewOtherTable = {
    0x3c, 0x00, 0x00, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x26, 0x3e, 0x00,
    0x00, 0x01, 0x00, 0x00, 0x09, 0x0a, 0x00, 0x01, 0x00, 0x6f, 0x74, 0x68, 0x65, 0x72, 0x00,
    0x00, 0x00, 0x08, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x04, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x08, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00};
// Of `delete table bridge tavrin`: the counter, the chain, the table.
const Bytes kDelCounter = {0x48, 0x00, 0x00, 0x00, 0x14, 0x0a, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
                           0x27, 0x3e, 0x00, 0x00, 0x07, 0x00, 0x00, 0x0a, 0x0b, 0x00, 0x01, 0x00,
                           0x74, 0x61, 0x76, 0x72, 0x69, 0x6e, 0x00, 0x00, 0x12, 0x00, 0x02, 0x00,
                           0x61, 0x72, 0x70, 0x5f, 0x64, 0x72, 0x6f, 0x70, 0x5f, 0x73, 0x77, 0x70,
                           0x31, 0x00, 0x00, 0x00, 0x08, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01,
                           0x0c, 0x00, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x06};
const Bytes kDelChain = {0x38, 0x00, 0x00, 0x00, 0x05, 0x0a, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
                         0x27, 0x3e, 0x00, 0x00, 0x07, 0x00, 0x00, 0x0a, 0x0b, 0x00, 0x01, 0x00,
                         0x74, 0x61, 0x76, 0x72, 0x69, 0x6e, 0x00, 0x00, 0x09, 0x00, 0x03, 0x00,
                         0x6c, 0x6f, 0x63, 0x6b, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x02, 0x00,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
const Bytes kDelTable = {0x34, 0x00, 0x00, 0x00, 0x02, 0x0a, 0x00, 0x00, 0x01, 0x00, 0x00,
                         0x00, 0x27, 0x3e, 0x00, 0x00, 0x07, 0x00, 0x00, 0x0a, 0x0b, 0x00,
                         0x01, 0x00, 0x74, 0x61, 0x76, 0x72, 0x69, 0x6e, 0x00, 0x00, 0x08,
                         0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x04, 0x00,
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
// The generation that ends every transaction (here the table's deletion).
const Bytes kNewGen = {0x2c, 0x00, 0x00, 0x00, 0x0f, 0x0a, 0x00, 0x00, 0x01, 0x00, 0x00,
                       0x00, 0x27, 0x3e, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0a, 0x08, 0x00,
                       0x01, 0x00, 0x00, 0x00, 0x00, 0x0a, 0x08, 0x00, 0x02, 0x00, 0x00,
                       0x00, 0x3e, 0x27, 0x08, 0x00, 0x03, 0x00, 0x6e, 0x66, 0x74, 0x00};

NftDigested digest(const Bytes& b) {
   // Copied to aligned memory, as a socket read would give it.
   std::vector<uint32_t> aligned((b.size() + 3) / 4);
   std::memcpy(aligned.data(), b.data(), b.size());
   return digestNft(reinterpret_cast<const nlmsghdr*>(aligned.data()), b.size());
}

template <class T>
T okAs(const Bytes& b) {
   auto d = digest(b);
   EXPECT_EQ(d.status, NftDigested::Status::ok) << d.reason;
   const T* m = std::get_if<T>(&d.msg);
   if (!m) {
      ADD_FAILURE() << "digested as " << str(d.msg);
      return T{};
   }
   return *m;
}

Bytes keyOf(const char* port) {
   auto k = ifnameKey(port);
   return Bytes(k->begin(), k->end());
}

const AllowedElem kElem{IntfId("swp1"), *EthAddr::parse("02:00:00:00:00:01"),
                        *IpAddr::parse("10.0.0.1")};

}  // namespace

TEST(NftDigest, kernelNotificationsOfOurTable) {
   auto added = okAs<ElementsMsg>(kNewAllowed);
   EXPECT_FALSE(added.removed);
   EXPECT_EQ(added.set, "allowed");
   ASSERT_EQ(added.elems.size(), 1u);
   EXPECT_EQ(allowedFromKey(added.elems[0].key), kElem);

   auto removed = okAs<ElementsMsg>(kDelAllowed);
   EXPECT_TRUE(removed.removed);
   EXPECT_EQ(removed.elems, added.elems);

   auto map = okAs<ElementsMsg>(kNewArpMap);
   EXPECT_EQ(map.set, "arp_drop");
   ASSERT_EQ(map.elems.size(), 1u);
   EXPECT_EQ(map.elems[0].key, keyOf("swp1"));
   EXPECT_EQ(map.elems[0].objref, "arp_drop_swp1");

   EXPECT_EQ(okAs<ElementsMsg>(kNewLocked).elems[0].key, keyOf("swp1"));
   EXPECT_EQ(okAs<CounterMsg>(kNewCounter), (CounterMsg{false, "arp_drop_swp1"}));
   EXPECT_EQ(okAs<CounterMsg>(kDelCounter), (CounterMsg{true, "arp_drop_swp1"}));

   using Object = StructureMsg::Object;
   EXPECT_EQ(okAs<StructureMsg>(kNewRule), (StructureMsg{Object::rule, false, "lock", 7}));
   EXPECT_EQ(okAs<StructureMsg>(kDelChain), (StructureMsg{Object::chain, true, "lock", 1}));
   EXPECT_EQ(okAs<StructureMsg>(kDelTable), (StructureMsg{Object::table, true, "tavrin", 1}));
   EXPECT_EQ(okAs<GenerationMsg>(kNewGen), (GenerationMsg{10, 0x3e27}));
}

TEST(NftDigest, otherTablesAreIgnored) {
   auto d = digest(kNewOtherTable);
   EXPECT_EQ(d.status, NftDigested::Status::ignored);
   EXPECT_EQ(d.reason, "table 1 other");

   // Our table's name in another family is not our table.
   Bytes inet = kNewAllowed;
   inet[16] = 1;  // nfgen_family: NFPROTO_INET
   EXPECT_EQ(digest(inet).status, NftDigested::Status::ignored);
}

TEST(NftDigest, brokenMessagesAreMalformedNotTrusted) {
   struct Case {
      const char* what;
      Bytes bytes;
   };
   auto edited = [](Bytes b, size_t at, uint8_t v) {
      b[at] = v;
      return b;
   };
   Bytes cut(kNewAllowed.begin(), kNewAllowed.end() - 8);
   Bytes headerOnly(kNewAllowed.begin(), kNewAllowed.begin() + 16);
   headerOnly[0] = 16;
   const std::vector<Case> cases = {
       {"length beyond the bytes", cut},
       {"no nfgenmsg", headerOnly},
       // The elements nest claims more bytes than the message has.
       {"nest past the end", edited(kNewAllowed, 44, 0x40)},
       // The table name loses its NUL.
       {"unterminated table name", edited(kNewAllowed, 30, 'x')},
       // The element's key nest becomes a flags attribute of the wrong size.
       {"element without a key", edited(kNewAllowed, 54, 0x03)},
       // The counter's type attribute shrinks to two bytes.
       {"object type of the wrong size", edited(kNewCounter, 52, 0x06)},
   };
   for (const auto& c : cases) {
      auto d = digest(c.bytes);
      EXPECT_EQ(d.status, NftDigested::Status::malformed) << c.what << ": " << str(d.msg);
      EXPECT_FALSE(d.reason.empty()) << c.what;
   }
}

TEST(NftDigest, aReadHoldsSeveralMessages) {
   Bytes all = kNewAllowed;
   all.insert(all.end(), kNewGen.begin(), kNewGen.end());
   all.insert(all.end(), {1, 2, 3});
   std::vector<uint32_t> aligned((all.size() + 3) / 4);
   std::memcpy(aligned.data(), all.data(), all.size());
   auto d = digestNftBatch(std::span(reinterpret_cast<const uint8_t*>(aligned.data()), all.size()));
   ASSERT_EQ(d.size(), 3u);
   EXPECT_TRUE(std::holds_alternative<ElementsMsg>(d[0].msg));
   EXPECT_TRUE(std::holds_alternative<GenerationMsg>(d[1].msg));
   EXPECT_EQ(d[2].status, NftDigested::Status::malformed);
}

// The view follows someone else's changes, and each change marks what the
// next batch must look at; hearing of a change already known marks nothing.
TEST(NftDigest, notificationsMoveTheKernelView) {
   KernelView view;
   Planner planner;
   size_t bad = 0;
   EXPECT_TRUE(applyToView(okAs<ElementsMsg>(kNewAllowed), view, planner, bad));
   EXPECT_TRUE(view.allowedHas(kElem));
   EXPECT_EQ(planner.dirtyPairs().count(PairKey{kElem.mac, kElem.ip}), 1u);
   planner.clear();
   EXPECT_FALSE(applyToView(okAs<ElementsMsg>(kNewAllowed), view, planner, bad));
   EXPECT_FALSE(planner.pending());

   EXPECT_TRUE(applyToView(okAs<CounterMsg>(kNewCounter), view, planner, bad));
   EXPECT_TRUE(applyToView(okAs<ElementsMsg>(kNewArpMap), view, planner, bad));
   EXPECT_TRUE(applyToView(okAs<ElementsMsg>(kNewLocked), view, planner, bad));
   EXPECT_TRUE(view.counterHas(IntfId("swp1")));
   EXPECT_EQ(view.arpMap(IntfId("swp1")), "arp_drop_swp1");
   EXPECT_TRUE(view.lockedHas(IntfId("swp1")));

   EXPECT_TRUE(applyToView(okAs<ElementsMsg>(kDelAllowed), view, planner, bad));
   EXPECT_FALSE(view.allowedHas(kElem));
   EXPECT_EQ(bad, 0u);

   // A counter that is not a port's is none of the view's business.
   EXPECT_FALSE(applyToView(CounterMsg{false, "packets_in"}, view, planner, bad));
   // An element whose key has the wrong shape is counted, not believed.
   ElementsMsg odd{false, "allowed", {{Bytes(5, 0), ""}}};
   EXPECT_FALSE(applyToView(odd, view, planner, bad));
   EXPECT_EQ(bad, 1u);
}

// The batch our builder makes is, message for message, what the kernel
// would tell a listener: the same digestion reads it back.
TEST(NftBatch, messagesCarryThePlanInOrder) {
   Plan plan;
   plan.counterAdd = {IntfId("swp1")};
   plan.arpMapAdd = {IntfId("swp1")};
   plan.allowedDel = {AllowedElem{IntfId("swp2"), kElem.mac, kElem.ip}};
   for (uint32_t i = 0; i < Batch::kElemsPerMessage + 1; ++i) {
      plan.allowedAdd.push_back(AllowedElem{IntfId("swp1"), kElem.mac, IpAddr(0x0a000000 + i)});
   }
   plan.lockedAdd = {IntfId("swp1")};

   Batch batch(100);
   batch.add(plan);
   batch.finish();
   Bytes bytes;
   for (const auto& v : batch.iov()) {
      const auto* p = static_cast<const uint8_t*>(v.iov_base);
      bytes.insert(bytes.end(), p, p + v.iov_len);
   }
   EXPECT_EQ(bytes.size(), batch.bytes());

   std::vector<uint32_t> aligned((bytes.size() + 3) / 4);
   std::memcpy(aligned.data(), bytes.data(), bytes.size());
   const auto* nlh = reinterpret_cast<const nlmsghdr*>(aligned.data());
   int len = int(bytes.size());
   std::vector<std::string> seen;
   std::vector<uint32_t> seqs;
   std::vector<AllowedElem> added;
   std::vector<AllowedElem> deleted;
   while (len >= int(sizeof(nlmsghdr)) && nlh->nlmsg_len <= uint32_t(len)) {
      seqs.push_back(nlh->nlmsg_seq);
      if (nlh->nlmsg_type == NFNL_MSG_BATCH_BEGIN) {
         seen.push_back("begin");
      } else if (nlh->nlmsg_type == NFNL_MSG_BATCH_END) {
         seen.push_back("end");
      } else {
         EXPECT_TRUE(nlh->nlmsg_flags & NLM_F_ACK);
         auto d = digestNft(nlh, size_t(len));
         ASSERT_EQ(d.status, NftDigested::Status::ok) << d.reason;
         std::string s = str(d.msg);
         if (const auto* e = std::get_if<ElementsMsg>(&d.msg); e && e->set == "allowed") {
            for (const auto& elem : e->elems) {
               auto decoded = allowedFromKey(elem.key);
               ASSERT_TRUE(decoded);
               (e->removed ? deleted : added).push_back(*decoded);
            }
         }
         if (const auto* e = std::get_if<ElementsMsg>(&d.msg); e && e->set == "arp_drop") {
            EXPECT_EQ(e->elems.front().objref, "arp_drop_swp1");
         }
         seen.push_back(s);
      }
      len -= int(NLMSG_ALIGN(nlh->nlmsg_len));
      nlh = reinterpret_cast<const nlmsghdr*>(reinterpret_cast<const uint8_t*>(nlh) +
                                              NLMSG_ALIGN(nlh->nlmsg_len));
   }
   EXPECT_EQ(len, 0);
   const std::vector<std::string> expected = {
       "begin",
       "added counter arp_drop_swp1",
       "added 1 elements of set arp_drop",
       "deleted 1 elements of set allowed",
       "added 256 elements of set allowed",
       "added 1 elements of set allowed",
       "added 1 elements of set locked",
       "end",
   };
   EXPECT_EQ(seen, expected);
   std::sort(added.begin(), added.end());
   EXPECT_EQ(added, plan.allowedAdd);
   EXPECT_EQ(deleted, plan.allowedDel);
   // One sequence number each, and every message between the two ends is
   // one whose answer the commit waits for.
   for (size_t i = 0; i < seqs.size(); ++i) EXPECT_EQ(seqs[i], 100 + i);
   EXPECT_EQ(batch.acked().size(), seqs.size() - 2);
   EXPECT_EQ(batch.acked().count(seqs.front()), 0u);
   EXPECT_EQ(batch.nextSeq(), 100 + seqs.size());
}

// A batch made while the table is filled names the generation it expects,
// so that the kernel refuses it if anyone else committed in between; other
// batches name none and go through whatever else happens.
TEST(NftBatch, theBeginMessageNamesTheExpectedGeneration) {
   auto generationOf = [](const Batch& batch) -> std::optional<uint32_t> {
      Bytes bytes;
      for (const auto& v : batch.iov()) {
         const auto* p = static_cast<const uint8_t*>(v.iov_base);
         bytes.insert(bytes.end(), p, p + v.iov_len);
      }
      std::vector<uint32_t> aligned((bytes.size() + 3) / 4);
      std::memcpy(aligned.data(), bytes.data(), bytes.size());
      const auto* nlh = reinterpret_cast<const nlmsghdr*>(aligned.data());
      EXPECT_EQ(nlh->nlmsg_type, NFNL_MSG_BATCH_BEGIN);
      std::optional<uint32_t> out;
      const auto* a = reinterpret_cast<const nlattr*>(reinterpret_cast<const uint8_t*>(nlh) +
                                                      NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(nfgenmsg)));
      const auto* end = reinterpret_cast<const uint8_t*>(nlh) + nlh->nlmsg_len;
      while (reinterpret_cast<const uint8_t*>(a) + sizeof(nlattr) <= end) {
         if (a->nla_type == NFNL_BATCH_GENID && a->nla_len == sizeof(nlattr) + 4) {
            uint32_t be;
            std::memcpy(&be, reinterpret_cast<const uint8_t*>(a) + sizeof(nlattr), 4);
            out = ntohl(be);
         }
         a = reinterpret_cast<const nlattr*>(reinterpret_cast<const uint8_t*>(a) +
                                             NLA_ALIGN(a->nla_len));
      }
      return out;
   };
   Plan plan;
   plan.allowedAdd = {kElem};
   Batch checked(7, 0x80000001u);
   checked.add(plan);
   checked.finish();
   EXPECT_EQ(generationOf(checked), 0x80000001u);
   Batch unchecked(7);
   unchecked.add(plan);
   unchecked.finish();
   EXPECT_EQ(generationOf(unchecked), std::nullopt);
   // The counter wraps past 0, which means "no check" to the kernel.
   EXPECT_EQ(nextGeneration(41), 42u);
   EXPECT_EQ(nextGeneration(0xffffffffu), 1u);
}
