// Start-up on the in-memory framework: trace file set-up, mounts in their
// order, the namespace name limit, and when the root is kept or rebuilt.
#include <gtest/gtest.h>

#include "agent/TavrinAgent.h"
#include "platform/InMemoryPlatform.h"

using namespace Tavrin;
using Rt::Ptr;

namespace {

struct AgentFixture : ::testing::Test {
   Platform::InMemoryPlatform platform;
   AgentFixture() { registerTavrinTypes(platform.types()); }
   ~AgentFixture() override { Platform::defaultNamespaceName() = "default"; }

   Ptr<Agent> start() {
      return Rt::ptrCast<Agent>(platform.start(
          [](const std::string& n, Platform::AgentFrame& f) {
             return Ptr<Platform::AgentBase>(agentFactory(n, f));
          },
          "Tavrin"));
   }
};

}  // namespace

TEST_F(AgentFixture, traceFileNameFollowsTheEnvironment) {
   struct Case {
      std::optional<std::string> dir, disable;
      std::optional<std::string> fileName;  // nullopt: no trace file set up
   } cases[] = {
       {std::nullopt, std::nullopt, "Tavrin-%d.tr"},
       {"/var/log/agents", std::nullopt, "Tavrin.tr"},
       {std::nullopt, "1", std::nullopt},
       {"/tmp", "", std::nullopt},  // set to anything, even empty, disables
   };
   for (const auto& c : cases) {
      Platform::InMemoryPlatform fresh;
      registerTavrinTypes(fresh.types());
      fresh.envIs("TRACERINGDIR", c.dir);
      fresh.envIs("TRACERING_DISABLE", c.disable);
      auto agent = Rt::ptrCast<Agent>(fresh.start(
          [](const std::string& n, Platform::AgentFrame& f) {
             return Ptr<Platform::AgentBase>(agentFactory(n, f));
          },
          "Tavrin"));
      ASSERT_EQ(fresh.traceRing().has_value(), c.fileName.has_value());
      if (c.fileName) {
         EXPECT_EQ(fresh.traceRing()->fileName, *c.fileName);
         EXPECT_EQ(fresh.traceRing()->levelSizes,
                   (std::array<uint32_t, 10>{8, 16, 32, 168, 96, 0, 0, 0, 0, 0}));
      }
      // Start-up proceeds the same either way.
      EXPECT_TRUE(agent->tavrinRoot());
   }
}

TEST_F(AgentFixture, mountsEveryEntityInOrderWithItsDirection) {
   auto agent = start();
   std::vector<std::string> mounts;
   for (const auto& m : platform.stateMounts()) {
      mounts.push_back(m.path + " " + m.typeName + " " + m.flags);
   }
   EXPECT_EQ(mounts, (std::vector<std::string>{
                         "tavrin/hardware/config Tavrin::Hardware::Config r",
                         "tavrin/cliConfig Tavrin::CliConfig r",
                         "ip/status Ip::Status r",
                         "tavrin/interfaceStatus Tavrin::ConfiguredInterfaceStatus w",
                         "tavrin/leaseStatus Tavrin::LeaseStatus w",
                     }));
   EXPECT_EQ(platform.shmMounts(),
             (std::vector<std::string>{
                 "w tavrin/status Tavrin::Status ipMacLease=256",
                 "r3 tavrin/hardware/installedConfig Tavrin::Hardware::InstalledConfig",
                 "r1 bridging/status ShmTable::Bridging::Status",
                 "r3 kni/ns/default/status KernelNetStatus::Status",
             }));
   EXPECT_TRUE(platform.localEntitiesCreated());
   EXPECT_TRUE(platform.localEntity("interface/status/all"));
   EXPECT_TRUE(platform.localEntity("cell/1/interface/status/local"));
   const auto& in = agent->entities();
   EXPECT_TRUE(in.cliConfig && in.configuredInterfaceStatus && in.leaseStatus && in.ipStatus &&
               in.ipMacLeaseShmTable && in.bridgingStatus && in.allIntfStatusLocalDir);
   // Nobody created the ARP drop counters: fetched without a mount, absent.
   EXPECT_FALSE(in.arpDropCounterStatus);
}

TEST_F(AgentFixture, anEntityOfAnotherTypeAtAPathIsStoredEmptyAndStartUpGoesOn) {
   platform.stateEntityIs("tavrin/cliConfig", "Tavrin::LeaseStatus");
   auto agent = start();
   EXPECT_FALSE(agent->entities().cliConfig);
   EXPECT_TRUE(agent->tavrinRoot());
}

TEST_F(AgentFixture, aNamespaceNameOver150BytesStopsStartUp) {
   Platform::defaultNamespaceName() = std::string(150, 'n');
   EXPECT_NO_THROW(start());
   Platform::defaultNamespaceName() = std::string(151, 'n');
   try {
      start();
      FAIL() << "a 151-byte namespace name must be refused";
   } catch (const std::range_error& e) {
      EXPECT_STREQ(e.what(), "NamespaceName::bytes > 150 not allowed");
   }
}

TEST_F(AgentFixture, theRootIsKeptForIdenticalEntitiesAndRebuiltForAnyDifferentOne) {
   auto agent = start();
   auto root = agent->tavrinRoot();
   auto sm = root->cliConfigSm();
   EXPECT_EQ(agent->tavrinRootIs(agent->entities()), root);
   EXPECT_EQ(root->cliConfigSm(), sm);

   auto otherConfig = Rt::makePtr<CliConfig>();
   otherConfig->interfaceIs(IntfId("Ethernet7"), true);
   auto in = agent->entities();
   in.cliConfig = otherConfig;
   auto rebuilt = agent->tavrinRootIs(in);
   EXPECT_NE(rebuilt, root);
   // The new machines read the new configuration.
   auto rules = platform.state<ConfiguredInterfaceStatus>("tavrin/interfaceStatus");
   EXPECT_TRUE(rules->interfaceRule(IntfId("Ethernet7")));

   auto released = agent->tavrinRootDel();
   EXPECT_EQ(released, rebuilt);
   EXPECT_FALSE(agent->tavrinRoot());
}
