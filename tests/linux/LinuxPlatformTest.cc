// The Linux host's own behaviour: where the agent's trace file goes and what
// lands in it, the packet access it hands the agent, and the services and
// clock it installs. Sockets are the lab's (lab/udp-pam.test.sh): nothing
// here opens one.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "linux/LinuxPlatform.h"

using namespace Tavrin;
using Linux::LinuxPlatform;
using Rt::Ptr;
namespace fs = std::filesystem;

namespace {

struct TempDir {
   TempDir() {
      std::string pattern = (fs::temp_directory_path() / "tavrin-platform-XXXXXX").string();
      path = ::mkdtemp(pattern.data());
   }
   ~TempDir() { fs::remove_all(path); }
   fs::path path;
};

std::string slurp(const fs::path& p) {
   std::ifstream in(p);
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

Platform::TraceRingParams agentParams(std::string fileName) {
   Platform::TraceRingParams p;
   p.fileName = std::move(fileName);
   p.levelSizes = {8, 16, 32, 168, 96, 0, 0, 0, 0, 0};
   return p;
}

}  // namespace

TEST(TraceFile, pathFromDirectoryAndTheAgentsFileName) {
   struct Case {
      std::string dir, fileName, expected;
   } cases[] = {
       {"/var/log/tavrin", "Tavrin-%d.tr", "/var/log/tavrin/Tavrin-4242.tr"},
       {"/var/log/tavrin/", "Tavrin-%d.tr", "/var/log/tavrin/Tavrin-4242.tr"},
       {"/tmp/t", "Tavrin.tr", "/tmp/t/Tavrin.tr"},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(Linux::traceFileFor(c.dir, c.fileName, 4242), c.expected) << c.dir << " " << c.fileName;
   }
}

TEST(LinuxPlatformTrace, theAgentsTraceGoesToItsFileInTheTraceDirectory) {
   TempDir dir;
   LinuxPlatform p;
   p.envIs("TRACERINGDIR", dir.path.string());
   p.traceRingIs(agentParams("Tavrin.tr"));
   EXPECT_EQ(p.traceFilePath(), (dir.path / "Tavrin.tr").string());

   auto& f = Rt::traceFacility("TavrinPlatformTest");
   f.levelIs(4, true);
   TAVRIN_TRACE(f, 4, "hello " << 42);
   TAVRIN_TRACE(f, 5, "not enabled");
   std::string text = slurp(dir.path / "Tavrin.tr");
   EXPECT_NE(text.find("TavrinPlatformTest 4 "), std::string::npos) << text;
   EXPECT_NE(text.find(": hello 42\n"), std::string::npos) << text;
   EXPECT_EQ(text.find("not enabled"), std::string::npos) << text;
   // The ring keeps the message too, for a dump without the file.
   EXPECT_EQ(p.trace().ring().level(4).size(), 1u);
}

TEST(LinuxPlatformTrace, withoutTraceringdirTheFileIsPerProcessInTheDefaultDirectory) {
   TempDir dir;
   LinuxPlatform p;
   p.envIs("TRACERINGDIR", std::nullopt);
   p.traceDirDefaultIs(dir.path.string());
   p.traceRingIs(agentParams("Tavrin-%d.tr"));
   EXPECT_EQ(p.traceFilePath(), (dir.path / ("Tavrin-" + std::to_string(::getpid()) + ".tr")).string());
   EXPECT_TRUE(fs::exists(p.traceFilePath()));
}

TEST(LinuxPlatformTrace, aTraceFileThatCannotBeOpenedLeavesTheAgentRunning) {
   TempDir dir;
   LinuxPlatform p;
   p.envIs("TRACERINGDIR", (dir.path / "missing" / "deeper").string());
   p.traceRingIs(agentParams("Tavrin.tr"));
   EXPECT_EQ(p.traceFilePath(), "");
   auto& f = Rt::traceFacility("TavrinPlatformTest");
   f.levelIs(1, true);
   TAVRIN_TRACE(f, 1, "still traced to the ring");
   EXPECT_FALSE(p.trace().ring().level(1).empty());
}

TEST(LinuxPlatform, installsTheSystemClockAndItsServices) {
   LinuxPlatform p;
   EXPECT_EQ(&Platform::services(), static_cast<Platform::Services*>(&p));
   EXPECT_EQ(&Rt::clock(), &p.systemClock());
   EXPECT_NEAR(Rt::now(), double(::time(nullptr)), 2.0);  // wall clock, not monotonic
   EXPECT_EQ(p.taskScheduler(), p.scheduler());
   EXPECT_EQ(p.loop().scheduler(), p.scheduler());
}

TEST(LinuxPlatform, aTimerOnTheAgentsSchedulerRunsFromTheLoop) {
   LinuxPlatform p;
   struct Probe : Rt::TimerTask::Notifiee {
      void onTaskRun() override { ++runs; }
      int runs = 0;
   } probe;
   Rt::TimerTask t(p.taskScheduler(), 2, "probe");
   probe.notifierIs(&t);
   t.scheduleTaskDelay(0);
   p.loop().runOnce(0);
   EXPECT_EQ(probe.runs, 1);
}

TEST(LinuxPlatform, packetAccessFollowsTheDesiredInterfacesWhileEnabled) {
   LinuxPlatform p;
   auto desired = p.pamDesiredIntfDirIs("desired");
   auto collection = p.ethDevPamCollectionIs("pams");
   auto devices = p.deviceIntfStatusDirIs("devices");
   desired->intfDesiredIs(IntfId("p1"), true);
   auto manager = p.ethDevPamManagerIs(desired, collection, devices);
   EXPECT_TRUE(collection->intfPamAll().empty());  // nothing before enabled

   manager->enabledIs(true);
   ASSERT_TRUE(collection->intfPam(IntfId("p1")));
   desired->intfDesiredIs(IntfId("p2"), true);
   desired->intfDesiredDel(IntfId("p1"));
   EXPECT_FALSE(collection->intfPam(IntfId("p1")));
   ASSERT_TRUE(collection->intfPam(IntfId("p2")));

   manager->enabledIs(false);
   desired->intfDesiredIs(IntfId("p3"), true);
   EXPECT_FALSE(collection->intfPam(IntfId("p3")));
}

TEST(LinuxPam, deliversABatchWithOneNotificationAndBoundsItsQueue) {
   auto pam = Rt::makePtr<Linux::LinuxPam>(IntfId("p1"));
   struct Reader : Platform::Pam::Notifiee {
      using Notifiee::Notifiee;
      void onReadableCount() override { ++told; }
      int told = 0;
   } reader(pam);
   std::vector<Ptr<Rt::Pkt>> frames;
   for (size_t i = 0; i < Linux::LinuxPam::kQueueMax + 5; ++i) {
      frames.push_back(Rt::makePtr<Rt::Pkt>(std::vector<uint8_t>{uint8_t(i)}));
   }
   pam->deliver(std::move(frames));
   EXPECT_EQ(reader.told, 1);
   EXPECT_EQ(pam->queued(), Linux::LinuxPam::kQueueMax);
   EXPECT_EQ(pam->drops(), 5u);
   pam->deliver({Rt::makePtr<Rt::Pkt>()});  // the queue is still full
   EXPECT_EQ(reader.told, 1);               // nothing queued, nobody woken
   EXPECT_EQ(pam->rxPkt()->bytes()[0], 0);  // oldest first; the newest were dropped
}

TEST(LinuxPlatform, stoppingTheAgentDropsWhatItOpened) {
   LinuxPlatform p;
   auto pam = p.udpPamIs("Tavrin");
   EXPECT_EQ(p.udpPam("Tavrin"), pam);
   p.stop();
   EXPECT_EQ(p.udpPam("Tavrin"), nullptr);
}
