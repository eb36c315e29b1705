// From what the NFLOG socket reads to frames filed by port, and on through
// the packet access manager to the agent's Pams: canned datagrams (the two
// packets and the end-of-batch message a real kernel sent in one read), the
// desired-interface directory the agent writes, and a virtual clock.
#include <gtest/gtest.h>

#include <map>

#include "dhcp/DhcpCodec.h"
#include "linux/NflogPamManager.h"
#include "linux/NflogReader.h"
#include "rt/Clock.h"

using namespace Tavrin;
using namespace Tavrin::Linux;

namespace {

std::vector<uint8_t> hex(std::string_view text) {
   std::vector<uint8_t> out;
   auto nibble = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
   for (size_t i = 0; i + 1 < text.size(); i += 2) {
      out.push_back(uint8_t(nibble(text[i]) << 4 | nibble(text[i + 1])));
   }
   return out;
}

// One read from a kernel 6.x NFLOG socket: 02:00:5e:10:00:01 sent from
// 10.9.0.7 untagged, then from 10.9.0.8 in VLAN 10, both on port ifindex 3
// of bridge ifindex 2; then the batch's NLMSG_DONE.
constexpr std::string_view kCapturedRead =
    "b800000000040000000000000000000007000007080001000800010005000a000000000008000600000000030800"
    "040000000002100008000006000002005e100001000006000f000001000006001100000e000012001000ffffffff"
    "ffff02005e1000010800000014000300000000006b01c10a000000000002c8d012001500ffffffffffff02005e10"
    "000108000000280009004500002400010000401166af0a0900070a0900019c4000090010000074617672696e2121"
    "dc00000000040000000000000000000007000007080001000800010005000a000000000008000600000000030800"
    "040000000002100008000006000002005e100001000006000f000001000006001100000e000012001000ffffffff"
    "ffff02005e1000010800000014000300000000006b01c10a000000000002c99a08000b000000000008000e000000"
    "00001400148006000200600a0000060001008100000012001500ffffffffffff02005e1000010800000028000900"
    "4500002400010000401166ae0a0900080a0900019c4000090010000074617672696e2121"
    "1400000003000000000000000000000000000007";
constexpr size_t kFirstLen = 184;
constexpr size_t kSecondLen = 220;

// The first packet again, as if logged on the port with ifindex `ifindex`.
std::vector<uint8_t> firstOn(uint8_t ifindex) {
   auto m = hex(kCapturedRead.substr(0, kFirstLen * 2));
   // NFULA_IFINDEX_PHYSINDEV's value: big-endian, last byte at offset 43.
   m[43] = ifindex;
   return m;
}

std::vector<uint8_t> concat(std::initializer_list<std::vector<uint8_t>> parts) {
   std::vector<uint8_t> out;
   for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
   return out;
}

IpAddr srcIpOf(const Ptr<Rt::Pkt>& frame) {
   PacketParser parser;
   EXPECT_TRUE(parser.doParseIpPkt(frame->span(), true)) << parser.error();
   return parser.srcIp();
}

IntfId intf(const char* name) {
   return IntfId(name);
}

const std::map<int, std::string> kLinks = {{2, "br0"}, {3, "p1"}, {4, "p2"}};

IfnameLookup links() {
   return [](int ifindex) -> std::optional<std::string> {
      auto it = kLinks.find(ifindex);
      if (it == kLinks.end()) return std::nullopt;
      return it->second;
   };
}

}  // namespace

// ---------------------------------------------------------------- dispatch

TEST(NflogDispatch, ACapturedReadFilesEachPacketUnderItsPortInOrder) {
   NflogDispatch dispatch(links());
   dispatch.buffer(hex(kCapturedRead));
   auto filed = dispatch.take();
   ASSERT_EQ(filed.size(), 1u);
   const auto& frames = filed[intf("p1")];
   ASSERT_EQ(frames.size(), 2u);
   EXPECT_EQ(srcIpOf(frames[0]), *IpAddr::parse("10.9.0.7"));
   EXPECT_EQ(srcIpOf(frames[1]), *IpAddr::parse("10.9.0.8"));
   EXPECT_EQ(dispatch.counters().packets, 2u);
   EXPECT_EQ(dispatch.counters().trapped, 2u);
   EXPECT_EQ(dispatch.counters().malformed, 0u);
   // Taken once: the next take starts empty.
   EXPECT_TRUE(dispatch.take().empty());
}

TEST(NflogDispatch, WhatCannotBeUsedIsCountedAndTheRestOfTheReadStillServed) {
   const auto good = firstOn(3);
   auto unnamed = firstOn(9);  // an ifindex with no known link
   auto noPort = firstOn(0);   // no PHYSINDEV value, and INDEV zeroed too
   noPort[51] = 0;
   auto broken = firstOn(3);  // the PHYSINDEV attribute claims 6 bytes
   broken[36] = 6;
   auto noPayload = firstOn(3);  // NFULA_PAYLOAD's type byte turned into an unknown one
   noPayload[kFirstLen - 40 + 2] = 0x7f;
   struct Case {
      const char* name;
      std::vector<uint8_t> read;
      NflogDispatch::Counters want;
   };
   const Case cases[] = {
       {"unknown ifindex", concat({unnamed, good}), {2, 1, 0, 0, 1, 0}},
       {"no input port", concat({noPort, good}), {2, 1, 0, 0, 1, 0}},
       {"broken attribute", concat({broken, good}), {1, 1, 1, 0, 0, 0}},
       {"no packet bytes", concat({noPayload, good}), {2, 1, 0, 1, 0, 0}},
       {"bytes after the last message", concat({good, hex("0800000000")}), {1, 1, 1, 0, 0, 0}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      NflogDispatch dispatch(links());
      dispatch.buffer(c.read);
      const auto& got = dispatch.counters();
      EXPECT_EQ(got.packets, c.want.packets);
      EXPECT_EQ(got.trapped, c.want.trapped);
      EXPECT_EQ(got.malformed, c.want.malformed);
      EXPECT_EQ(got.unframed, c.want.unframed);
      EXPECT_EQ(got.unknownPort, c.want.unknownPort);
      auto filed = dispatch.take();
      ASSERT_EQ(filed.size(), 1u);
      EXPECT_EQ(filed[intf("p1")].size(), 1u);
   }
}

TEST(NflogDispatch, FramesOfSeveralPortsAreKeptApart) {
   NflogDispatch dispatch(links());
   dispatch.buffer(concat({firstOn(3), firstOn(4), firstOn(3), firstOn(2)}));
   auto filed = dispatch.take();
   EXPECT_EQ(filed[intf("p1")].size(), 2u);
   EXPECT_EQ(filed[intf("p2")].size(), 1u);
   // The bridge's own name is filed like any port; nobody serves it.
   EXPECT_EQ(filed[intf("br0")].size(), 1u);
}

// A flood comes from few ports: each name is looked up once per take, and
// looked up again after it, so that a renamed link is filed by its new name.
TEST(NflogDispatch, PortNamesAreLookedUpOncePerTakeAndAfreshAfterIt) {
   std::map<int, std::string> names = kLinks;
   std::map<int, int> lookups;
   NflogDispatch dispatch([&](int ifindex) -> std::optional<std::string> {
      ++lookups[ifindex];
      auto it = names.find(ifindex);
      if (it == names.end()) return std::nullopt;
      return it->second;
   });
   dispatch.buffer(
       concat({firstOn(3), firstOn(4), firstOn(3), firstOn(9), firstOn(3), firstOn(9)}));
   EXPECT_EQ(lookups, (std::map<int, int>{{3, 1}, {4, 1}, {9, 1}}));
   auto filed = dispatch.take();
   EXPECT_EQ(filed[intf("p1")].size(), 3u);
   EXPECT_EQ(filed[intf("p2")].size(), 1u);
   EXPECT_EQ(dispatch.counters().unknownPort, 2u);

   names[3] = "p1-renamed";
   names[9] = "p9";
   dispatch.buffer(concat({firstOn(3), firstOn(9)}));
   filed = dispatch.take();
   EXPECT_EQ(filed[intf("p1-renamed")].size(), 1u);
   EXPECT_EQ(filed[intf("p9")].size(), 1u);
   EXPECT_FALSE(filed.count(intf("p1")));
   EXPECT_EQ(lookups[3], 2);
}

// ---------------------------------------------------------------- manager

namespace {

// The agent's side of packet access: the directory it writes, and a reader
// per Pam that takes at most `perWake` frames each time it is told.
class NflogPamManagerTest : public ::testing::Test {
 protected:
   struct Reader : Platform::Pam::Notifiee {
      Reader(const Ptr<Platform::Pam>& pam, size_t perWake)
          : Platform::Pam::Notifiee(pam), pam_(pam), perWake_(perWake) {}
      void onReadableCount() override {
         ++wakes;
         for (size_t i = 0; i < perWake_; ++i) {
            auto pkt = pam_->rxPkt();
            if (!pkt) break;
            got.push_back(srcIpOf(pkt));
            if (clock) clock->advance(perFrame);
         }
      }
      Ptr<Platform::Pam> pam_;
      size_t perWake_;
      size_t wakes = 0;
      std::vector<IpAddr> got;
      // Time each frame takes to handle, on this clock when set.
      Rt::VirtualClock* clock = nullptr;
      Seconds perFrame = 0;
   };

   NflogPamManagerTest() {
      Rt::clockIs(&clock_);
      manager_ = Rt::makePtr<NflogPamManager>(desired_, collection_, scheduler_);
   }
   ~NflogPamManagerTest() override { Rt::clockIs(nullptr); }

   std::unique_ptr<Reader> readerOf(const char* name, size_t perWake = SIZE_MAX) {
      auto pam = collection_->intfPam(intf(name));
      if (!pam) return nullptr;
      return std::make_unique<Reader>(pam, perWake);
   }
   // The frames of the captured read, as the dispatch files them for p1.
   std::vector<Ptr<Rt::Pkt>> capturedFrames() {
      NflogDispatch dispatch(links());
      dispatch.buffer(hex(kCapturedRead));
      return dispatch.take()[intf("p1")];
   }
   // Runs due timers until none is left or `limit` seconds passed.
   void runFor(Seconds limit) {
      const Seconds end = clock_.monotonic() + limit;
      while (scheduler_->nextRunTime() <= end) {
         clock_.timeIs(scheduler_->nextRunTime());
         scheduler_->runDue();
      }
   }

   Rt::VirtualClock clock_;
   Ptr<Rt::TaskScheduler> scheduler_ = Rt::makePtr<Rt::TaskScheduler>(clock_);
   Ptr<Platform::PamDesiredIntfDir> desired_ = Rt::makePtr<Platform::PamDesiredIntfDir>();
   Ptr<Platform::EthDevPamCollection> collection_ = Rt::makePtr<Platform::EthDevPamCollection>();
   Ptr<NflogPamManager> manager_;
};

}  // namespace

TEST_F(NflogPamManagerTest, PamsFollowTheDesiredInterfacesWhileEnabled) {
   desired_->intfDesiredIs(intf("p1"), true);
   EXPECT_TRUE(collection_->intfPamAll().empty()) << "opened before it was enabled";
   manager_->enabledIs(true);
   EXPECT_TRUE(collection_->intfPam(intf("p1")));
   desired_->intfDesiredIs(intf("p2"), true);
   EXPECT_TRUE(collection_->intfPam(intf("p2")));
   const auto p1 = collection_->intfPam(intf("p1"));
   desired_->intfDesiredIs(intf("p1"), true);
   EXPECT_EQ(collection_->intfPam(intf("p1")), p1) << "a desired Pam was reopened";
   desired_->intfDesiredDel(intf("p1"));
   EXPECT_FALSE(collection_->intfPam(intf("p1")));
   manager_->enabledIs(false);
   EXPECT_TRUE(collection_->intfPamAll().empty());
   desired_->intfDesiredIs(intf("p3"), true);
   EXPECT_TRUE(collection_->intfPamAll().empty()) << "followed while disabled";
}

TEST_F(NflogPamManagerTest, TrappedFramesReachThePamOfTheirPortInOrder) {
   desired_->intfDesiredIs(intf("p1"), true);
   manager_->enabledIs(true);
   auto reader = readerOf("p1");
   manager_->deliver(intf("p1"), capturedFrames());
   EXPECT_EQ(reader->wakes, 1u) << "one notification per delivery";
   EXPECT_EQ(reader->got,
             (std::vector<IpAddr>{*IpAddr::parse("10.9.0.7"), *IpAddr::parse("10.9.0.8")}));
   EXPECT_EQ(manager_->counters().delivered, 2u);
   EXPECT_EQ(manager_->counters().noPam, 0u);
}

TEST_F(NflogPamManagerTest, FramesOfAPortWithoutPamAreDroppedAndCounted) {
   desired_->intfDesiredIs(intf("p1"), true);
   manager_->enabledIs(true);
   auto reader = readerOf("p1");
   manager_->deliver(intf("p2"), capturedFrames());
   desired_->intfDesiredDel(intf("p1"));
   manager_->deliver(intf("p1"), capturedFrames());
   EXPECT_EQ(manager_->counters().noPam, 4u);
   EXPECT_EQ(manager_->counters().delivered, 0u);
   EXPECT_TRUE(reader->got.empty());
}

TEST_F(NflogPamManagerTest, AFullPamDropsTheExcessAndCountsIt) {
   desired_->intfDesiredIs(intf("p1"), true);
   manager_->enabledIs(true);
   auto reader = readerOf("p1", 0);  // an agent that reads nothing
   std::vector<Ptr<Rt::Pkt>> flood;
   const auto one = capturedFrames()[0];
   for (size_t i = 0; i < LinuxPam::kQueueMax + 10; ++i) flood.push_back(one);
   manager_->deliver(intf("p1"), flood);
   EXPECT_EQ(manager_->counters().delivered, LinuxPam::kQueueMax);
   EXPECT_EQ(manager_->counters().queueFull, 10u);
}

// An agent reads in bounded slices; what a slice leaves is offered again on
// the next iteration, without waiting for another trap.
TEST_F(NflogPamManagerTest, FramesLeftAfterASliceAreOfferedAgainUntilRead) {
   desired_->intfDesiredIs(intf("p1"), true);
   manager_->enabledIs(true);
   auto reader = readerOf("p1", 1);
   manager_->deliver(intf("p1"), capturedFrames());
   EXPECT_EQ(reader->got.size(), 1u);
   runFor(1.0);
   EXPECT_EQ(reader->got.size(), 2u);
   EXPECT_EQ(reader->wakes, 2u) << "told again after everything was read";
   EXPECT_EQ(scheduler_->armed(), 0u);
}

TEST_F(NflogPamManagerTest, ClosingAPamWithFramesLeftStopsTheReminders) {
   desired_->intfDesiredIs(intf("p1"), true);
   manager_->enabledIs(true);
   auto reader = readerOf("p1", 0);
   manager_->deliver(intf("p1"), capturedFrames());
   desired_->intfDesiredDel(intf("p1"));
   runFor(1.0);
   EXPECT_EQ(reader->wakes, 1u);
   EXPECT_EQ(scheduler_->armed(), 0u);
}

// The readers' slices are timed around each notification, so an overrun of
// the bound shows in the counters; a closed Pam's slices stay counted.
TEST_F(NflogPamManagerTest, SlicesPastTheirBoundAreCountedWithTheirExcess) {
   desired_->intfDesiredIs(intf("p1"), true);
   desired_->intfDesiredIs(intf("p2"), true);
   manager_->enabledIs(true);
   struct Case {
      const char* port;
      Seconds perFrame;
      uint64_t over;
      Seconds excess;
   };
   // Two frames per delivery: 2 x 1 ms and 2 x 2 ms are within the bound,
   // 2 x 4 ms is 3 ms past it.
   const Case cases[] = {
       {"p1", 0.001, 0, 0},
       {"p2", 0.004, 1, 0.003},
       {"p1", 0.002, 0, 0},
   };
   uint64_t over = 0;
   Seconds excess = 0, total = 0;
   for (const auto& c : cases) {
      SCOPED_TRACE(c.port);
      auto reader = readerOf(c.port);
      reader->clock = &clock_;
      reader->perFrame = c.perFrame;
      manager_->deliver(intf(c.port), capturedFrames());
      over += c.over;
      excess += c.excess;
      total += 2 * c.perFrame;
      const auto s = manager_->counters().slices;
      EXPECT_EQ(s.over, over);
      EXPECT_NEAR(s.overSeconds, excess, 1e-9);
      EXPECT_NEAR(s.seconds, total, 1e-9);
   }
   EXPECT_EQ(manager_->counters().slices.count, 3u);
   desired_->intfDesiredDel(intf("p2"));
   EXPECT_EQ(manager_->counters().slices.count, 3u);
   EXPECT_EQ(manager_->counters().slices.over, 1u);
   manager_->enabledIs(false);
   EXPECT_EQ(manager_->counters().slices.count, 3u);
}
