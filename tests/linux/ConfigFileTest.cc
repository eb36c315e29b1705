#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "linux/ConfigFile.h"

using namespace Tavrin;
using namespace Tavrin::Linux;
using Rt::Ptr;

namespace {

// The three keys every file needs, on lines 1 to 3.
const std::string kRequired =
    "local-interface: vlan10\n"
    "bridge: br0\n"
    "dhcp-servers: [10.0.0.1]\n";

DaemonConfig parsed(const std::string& text) {
   auto result = parseConfig(text, "t.yaml");
   if (auto* e = std::get_if<ConfigError>(&result)) {
      ADD_FAILURE() << e->str();
      return {};
   }
   return std::get<DaemonConfig>(result);
}

std::string refusal(const std::string& text) {
   auto result = parseConfig(text, "t.yaml");
   if (auto* e = std::get_if<ConfigError>(&result)) return e->str();
   return "accepted";
}

}  // namespace

// Each mistake an operator can make, and the exact line the daemon prints
// for it: the file, the line to look at, and what is wrong there.
TEST(ConfigFile, badFilesAreRefusedWithTheirLineAndReason) {
   struct Case {
      std::string text;
      std::string expected;
   };
   const std::vector<Case> cases = {
       {"", "t.yaml:1: the file holds no settings"},
       {"# only a comment\n", "t.yaml:1: the file holds no settings"},
       {"- br0\n- swp1\n", "t.yaml:1: expected a mapping of settings (key: value)"},
       {kRequired + "brigde: br1\n", "t.yaml:4: unknown key 'brigde'"},
       {"bridge: br0\ndhcp-servers: [10.0.0.1]\n",
        "t.yaml:1: missing required key "
        "'local-interface'"},
       {"local-interface: vlan10\ndhcp-servers: [10.0.0.1]\n",
        "t.yaml:1: missing required key 'bridge'"},
       {"local-interface: vlan10\nbridge: br0\n", "t.yaml:1: missing required key 'dhcp-servers'"},
       {kRequired + "bridge: br1\n", "t.yaml:4: duplicate key 'bridge' (first at line 2)"},
       {"local-interface: vlan10\nbridge: br0\ndhcp-servers:\n  - 10.0.0.1\n  - 10.0.0.300\n",
        "t.yaml:5: dhcp-servers: '10.0.0.300' is not an IPv4 address"},
       {"local-interface: vlan10\nbridge: br0\ndhcp-servers: [2001:db8::1]\n",
        "t.yaml:3: dhcp-servers: '2001:db8::1' is not an IPv4 address"},
       {"local-interface: vlan10\nbridge: br0\ndhcp-servers: [224.0.0.1]\n",
        "t.yaml:3: dhcp-servers: 224.0.0.1 is not a unicast address"},
       {"local-interface: vlan10\nbridge: br0\ndhcp-servers: [10.0.0.1, 10.0.0.1]\n",
        "t.yaml:3: dhcp-servers: duplicate server 10.0.0.1 (first at line 3)"},
       {"local-interface: vlan10\nbridge: br0\ndhcp-servers: []\n",
        "t.yaml:3: dhcp-servers: expected a list of at least one IPv4 address"},
       {"local-interface: vlan10\nbridge: br0\ndhcp-servers: 10.0.0.1\n",
        "t.yaml:3: dhcp-servers: expected a list of at least one IPv4 address"},
       {kRequired + "interfaces:\n  - swp1\n  - name: swp2\n  - name: swp1\n    ipv4: false\n",
        "t.yaml:7: interfaces: duplicate interface 'swp1' (first at line 5)"},
       {kRequired + "interfaces:\n  - name: swp1\n    ipv4: maybe\n",
        "t.yaml:6: interfaces: ipv4 must be true or false"},
       {kRequired + "interfaces:\n  - name: swp1\n    ipv6: true\n",
        "t.yaml:6: interfaces: unknown key 'ipv6' (expected name, ipv4)"},
       {kRequired + "interfaces:\n  - ipv4: true\n",
        "t.yaml:5: interfaces: missing required key 'name'"},
       {kRequired + "interfaces:\n  - swp1\n  - br0\n",
        "t.yaml:6: interfaces: 'br0' is the bridge itself; list the bridge's ports"},
       {kRequired + "interfaces: swp1\n", "t.yaml:4: interfaces: expected a list of interfaces"},
       {"local-interface: a-very-long-name0\nbridge: br0\ndhcp-servers: [10.0.0.1]\n",
        "t.yaml:1: local-interface: interface name 'a-very-long-name0' is longer than 15 "
        "characters"},
       {"local-interface: vlan10\nbridge: br/0\ndhcp-servers: [10.0.0.1]\n",
        "t.yaml:2: bridge: 'br/0' is not a valid interface name"},
       {"local-interface:\nbridge: br0\ndhcp-servers: [10.0.0.1]\n",
        "t.yaml:1: local-interface needs a value"},
       {"local-interface: [vlan10]\nbridge: br0\ndhcp-servers: [10.0.0.1]\n",
        "t.yaml:1: local-interface: expected a single value"},
       {kRequired + "database: var/lib/tavrin.db\n",
        "t.yaml:4: database: 'var/lib/tavrin.db' is not an absolute path"},
       {kRequired + "control-socket: /" + std::string(107, 's') + "\n",
        "t.yaml:4: control-socket: the path is longer than the 107 bytes a unix socket address "
        "holds"},
       {kRequired + "trace-dir: \"/tmp/a\\0b\"\n",
        "t.yaml:4: trace-dir: the path contains a NUL "
        "byte"},
       {kRequired + "data-plane:\n  nflog-group: [1, 2]\n",
        "t.yaml:5: data-plane: nflog-group: expected a single value"},
       {kRequired + "data-plane: 5\n", "t.yaml:4: data-plane: expected a mapping of settings"},
       {kRequired + "---\nbridge: br1\n", "t.yaml:5: only one YAML document is allowed"},
       {kRequired + "interfaces: [swp1\n", "t.yaml:5: end of sequence flow not found"},
       // Found by fuzzing: yaml-cpp's LoadAll never returned on these.
       {",", "t.yaml:1: not valid YAML"},
       {"\n\n,,,``", "t.yaml:3: not valid YAML"},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(refusal(c.text), c.expected) << "file:\n" << c.text;
   }
}

TEST(ConfigFile, whatIsLeftOutTakesItsDefault) {
   auto config = parsed(kRequired + "interfaces:\n  - swp1\n  - name: swp2\n");
   EXPECT_EQ(config.database, "/var/lib/tavrin/tavrin.db");
   EXPECT_EQ(config.controlSocket, "/run/tavrin/tavrind.sock");
   EXPECT_FALSE(config.traceDir);
   EXPECT_TRUE(config.dataPlane.empty());
   ASSERT_EQ(config.interfaces.size(), 2u);
   EXPECT_TRUE(config.interfaces[0].ipv4);
   EXPECT_TRUE(config.interfaces[1].ipv4);
   EXPECT_TRUE(parsed(kRequired).interfaces.empty());
   EXPECT_TRUE(parsed(kRequired + "interfaces:\n").interfaces.empty());
}

TEST(ConfigFile, everySettingIsRead) {
   auto config = parsed(
       "local-interface: vlan10\n"
       "bridge: br0\n"
       "dhcp-servers:\n"
       "  - 10.0.0.2\n"
       "  - 10.0.0.1\n"
       "interfaces:\n"
       "  - swp1\n"
       "  - {name: swp2, ipv4: off}\n"
       "database: /srv/tavrin/state.db\n"
       "control-socket: /run/t.sock\n"
       "trace-dir: /var/log/tavrin\n"
       "data-plane:\n"
       "  nflog-group: 7\n"
       "  rate: 10/second\n");
   EXPECT_EQ(config.localInterface, IntfId("vlan10"));
   EXPECT_EQ(config.bridge, "br0");
   EXPECT_EQ(config.dhcpServers,
             (std::vector<IpAddr>{*IpAddr::parse("10.0.0.2"), *IpAddr::parse("10.0.0.1")}));
   EXPECT_EQ(config.interfaces,
             (std::vector<InterfaceSetting>{{IntfId("swp1"), true}, {IntfId("swp2"), false}}));
   EXPECT_EQ(config.database, "/srv/tavrin/state.db");
   EXPECT_EQ(config.controlSocket, "/run/t.sock");
   EXPECT_EQ(config.traceDir, "/var/log/tavrin");
   EXPECT_EQ(config.dataPlane, (std::map<std::string, ReservedSetting>{
                                   {"nflog-group", {"7", 13}}, {"rate", {"10/second", 14}}}));
}

TEST(ConfigFile, filesThatCannotBeReadSaySo) {
   auto dir = std::filesystem::temp_directory_path() / "tavrin-config-XXXXXX";
   std::string d = dir.string();
   ASSERT_TRUE(mkdtemp(d.data()));
   std::string missing = d + "/missing.yaml";
   auto result = loadConfig(missing);
   ASSERT_TRUE(std::holds_alternative<ConfigError>(result));
   EXPECT_EQ(std::get<ConfigError>(result).str(),
             missing + ": cannot open: No such file or directory");
   result = loadConfig(d);
   ASSERT_TRUE(std::holds_alternative<ConfigError>(result));
   EXPECT_EQ(std::get<ConfigError>(result).str(), d + ": is a directory");

   std::string good = d + "/tavrin.yaml";
   std::ofstream(good) << kRequired << "bridge: br1\n";
   result = loadConfig(good);
   ASSERT_TRUE(std::holds_alternative<ConfigError>(result));
   EXPECT_EQ(std::get<ConfigError>(result).str(),
             good + ":4: duplicate key 'bridge' (first at line 2)");
   std::filesystem::remove_all(d);
}

TEST(ConfigFile, theShippedExampleIsValid) {
   auto result = loadConfig(std::string(TAVRIN_SOURCE_DIR) + "/examples/tavrin.yaml");
   if (auto* e = std::get_if<ConfigError>(&result)) FAIL() << e->str();
}

namespace {

// Counts every notification the agent's configuration machines could see.
struct CliConfigCounter : CliConfig::Notifiee {
   using CliConfig::Notifiee::Notifiee;
   void onConfigured() override { ++calls; }
   void onLocalInterface() override { ++calls; }
   void onDhcpV4Server(IpAddr) override { ++calls; }
   void onInterface(IntfId) override { ++calls; }
   int calls = 0;
};

struct IntfConfigCounter : IntfConfig::Notifiee {
   using IntfConfig::Notifiee::Notifiee;
   void onIpv4() override { ++calls; }
   int calls = 0;
};

}  // namespace

// A reload must look to the agent like the few changes the operator made:
// an unchanged file changes nothing, and a kept interface keeps its entity
// (its machines and their state).
TEST(ApplyConfig, appliesOnlyWhatDiffers) {
   auto cli = Rt::makePtr<CliConfig>();
   auto first = parsed(
       "local-interface: vlan10\nbridge: br0\ndhcp-servers: [10.0.0.1, 10.0.0.2]\n"
       "interfaces: [swp1, swp2, swp3]\n");
   applyConfig(first, *cli);
   auto swp1 = cli->interface(IntfId("swp1"));
   auto swp2 = cli->interface(IntfId("swp2"));
   ASSERT_TRUE(swp1 && swp2);

   CliConfigCounter cliCounter(cli);
   IntfConfigCounter swp1Counter(swp1), swp2Counter(swp2);
   EXPECT_TRUE(applyConfig(first, *cli).empty());
   EXPECT_EQ(cliCounter.calls, 0);
   EXPECT_EQ(swp1Counter.calls + swp2Counter.calls, 0);

   auto second = parsed(
       "local-interface: vlan10\nbridge: br0\ndhcp-servers: [10.0.0.3, 10.0.0.1]\n"
       "interfaces:\n  - swp1\n  - {name: swp2, ipv4: false}\n  - swp4\n");
   auto changes = applyConfig(second, *cli);
   EXPECT_EQ(changes,
             (std::vector<std::string>{"dhcp server 10.0.0.3 added", "dhcp server 10.0.0.2 removed",
                                       "interface swp3 removed", "interface swp2 ipv4 off",
                                       "interface swp4 added, ipv4 on"}));
   EXPECT_EQ(cliCounter.calls, 4);  // two servers, two interfaces
   EXPECT_EQ(swp1Counter.calls, 0);
   EXPECT_EQ(swp2Counter.calls, 1);
   EXPECT_EQ(cli->interface(IntfId("swp2")), swp2);
   EXPECT_EQ(cli->dhcpV4ServerAll(),
             (std::set<IpAddr>{*IpAddr::parse("10.0.0.1"), *IpAddr::parse("10.0.0.3")}));
   EXPECT_FALSE(cli->interface(IntfId("swp3")));
   ASSERT_TRUE(cli->interface(IntfId("swp4")));
   EXPECT_TRUE(cli->interface(IntfId("swp4"))->ipv4());

   cliCounter.calls = 0;
   EXPECT_EQ(applyConfig(parsed("local-interface: vlan20\nbridge: br0\n"
                                "dhcp-servers: [10.0.0.3, 10.0.0.1]\n"
                                "interfaces:\n  - swp1\n  - {name: swp2, ipv4: false}\n"
                                "  - swp4\n"),
                         *cli),
             std::vector<std::string>{"local-interface vlan20"});
   EXPECT_EQ(cliCounter.calls, 1);
}

TEST(ApplyConfig, settingsFixedAtStartAreNamedForARestart) {
   auto running = parsed(kRequired + "data-plane:\n  nflog-group: 7\n");
   struct Case {
      std::string next;
      std::vector<std::string> restart;
   };
   const std::vector<Case> cases = {
       {kRequired + "data-plane:\n  nflog-group: 7\n", {}},
       {"# a comment moves every line\n" + kRequired + "data-plane:\n  nflog-group: 7\n", {}},
       {kRequired + "interfaces: [swp9]\ndata-plane:\n  nflog-group: 7\n", {}},
       {kRequired + "data-plane:\n  nflog-group: 8\n", {"data-plane"}},
       {"local-interface: vlan10\nbridge: br1\ndhcp-servers: [10.0.0.1]\n"
        "database: /tmp/x.db\ncontrol-socket: /tmp/x.sock\ntrace-dir: /tmp\n"
        "data-plane:\n  nflog-group: 7\n",
        {"bridge", "database", "control-socket", "trace-dir"}},
   };
   for (const auto& c : cases) {
      EXPECT_EQ(settingsNeedingRestart(running, parsed(c.next)), c.restart) << c.next;
   }
}
