#include "linux/ConfigFile.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/parser.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace Tavrin::Linux {

namespace {

// The kernel's limits: IFNAMSIZ less the terminating NUL, and the size of
// sockaddr_un's sun_path less its NUL. A longer name fails only when the
// daemon is already running, far from the line that caused it.
constexpr size_t kMaxInterfaceName = 15;
constexpr size_t kMaxSocketPath = 107;

// A refused setting: the line (1-based) and why.
struct Refusal {
   int line;
   std::string reason;
};

int lineOf(const YAML::Node& n) {
   int line = n.Mark().line;
   return line < 0 ? 1 : line + 1;
}

[[noreturn]] void refuse(const YAML::Node& at, std::string reason) {
   throw Refusal{lineOf(at), std::move(reason)};
}

std::string inQuotes(std::string_view s) {
   return "'" + std::string(s) + "'";
}

// Reads one YAML document into a DaemonConfig, refusing the first mistake.
class ConfigReader {
 public:
   DaemonConfig read(const YAML::Node& root) {
      if (root.IsNull()) refuse(root, "the file holds no settings");
      if (!root.IsMap()) refuse(root, "expected a mapping of settings (key: value)");
      std::map<std::string, int> seen;
      for (const auto& kv : root) {
         std::string key = keyName(kv.first, seen);
         const KeyRule* rule = findRule(key);
         if (!rule) refuse(kv.first, "unknown key " + inQuotes(key));
         keyLine_ = lineOf(kv.first);
         (this->*rule->read)(kv.second);
      }
      for (const auto& rule : kRules) {
         if (rule.required && !seen.count(std::string(rule.name))) {
            refuse(root, "missing required key " + inQuotes(rule.name));
         }
      }
      checkAcrossKeys();
      return std::move(config_);
   }

 private:
   struct KeyRule {
      std::string_view name;
      bool required;
      void (ConfigReader::*read)(const YAML::Node&);
   };
   static const std::array<KeyRule, 8> kRules;

   static const KeyRule* findRule(std::string_view key) {
      for (const auto& rule : kRules) {
         if (rule.name == key) return &rule;
      }
      return nullptr;
   }

   // A mapping key as text; yaml-cpp keeps the last of two equal keys
   // without a word, so duplicates are caught here.
   static std::string keyName(const YAML::Node& key, std::map<std::string, int>& seen) {
      if (!key.IsScalar()) refuse(key, "a key must be a plain name");
      const std::string& name = key.Scalar();
      auto [it, fresh] = seen.emplace(name, lineOf(key));
      if (!fresh) {
         refuse(key, "duplicate key " + inQuotes(name) + " (first at line " +
                         std::to_string(it->second) + ")");
      }
      return name;
   }

   // A missing value has no place of its own (yaml-cpp marks where the next
   // token starts): blame the key's line.
   std::string scalar(const YAML::Node& n, std::string_view what) const {
      if (n.IsNull()) throw Refusal{keyLine_, std::string(what) + " needs a value"};
      if (!n.IsScalar()) refuse(n, std::string(what) + ": expected a single value");
      return n.Scalar();
   }

   // The rules of the kernel's dev_valid_name(), so that a name the kernel
   // could never have is refused here rather than never matched.
   std::string interfaceName(const YAML::Node& n, std::string_view what) {
      std::string name = scalar(n, what);
      if (name.size() > kMaxInterfaceName) {
         refuse(n, std::string(what) + ": interface name " + inQuotes(name) + " is longer than " +
                       std::to_string(kMaxInterfaceName) + " characters");
      }
      bool badChar = std::any_of(name.begin(), name.end(), [](unsigned char c) {
         return c <= ' ' || c == 0x7f || c == '/' || c == ':';
      });
      if (name.empty() || name == "." || name == ".." || badChar) {
         refuse(n, std::string(what) + ": " + inQuotes(name) + " is not a valid interface name");
      }
      return name;
   }

   // The daemon runs with / as its working directory, so a relative path
   // would not mean what its writer expected.
   std::string absolutePath(const YAML::Node& n, std::string_view what) {
      std::string path = scalar(n, what);
      if (path.find('\0') != std::string::npos) {
         refuse(n, std::string(what) + ": the path contains a NUL byte");
      }
      if (path.empty() || path.front() != '/') {
         refuse(n, std::string(what) + ": " + inQuotes(path) + " is not an absolute path");
      }
      return path;
   }

   void readLocalInterface(const YAML::Node& n) {
      config_.localInterface = IntfId(interfaceName(n, "local-interface"));
   }

   void readBridge(const YAML::Node& n) { config_.bridge = interfaceName(n, "bridge"); }

   void readDhcpServers(const YAML::Node& n) {
      if (!n.IsSequence() || n.size() == 0) {
         refuse(n, "dhcp-servers: expected a list of at least one IPv4 address");
      }
      std::map<IpAddr, int> seen;
      for (const auto& item : n) {
         std::string text = scalar(item, "dhcp-servers");
         auto addr = IpAddr::parse(text);
         if (!addr) refuse(item, "dhcp-servers: " + inQuotes(text) + " is not an IPv4 address");
         bool multicast = (addr->value() >> 28) == 0xe;
         if (addr->isAny() || addr->value() == 0xffffffff || multicast) {
            refuse(item, "dhcp-servers: " + text + " is not a unicast address");
         }
         auto [it, fresh] = seen.emplace(*addr, lineOf(item));
         if (!fresh) {
            refuse(item, "dhcp-servers: duplicate server " + text + " (first at line " +
                             std::to_string(it->second) + ")");
         }
         config_.dhcpServers.push_back(*addr);
      }
   }

   // Each item is a name, or a mapping with the name and its settings.
   void readInterfaces(const YAML::Node& n) {
      if (n.IsNull()) return;  // "interfaces:" with nothing under it locks nothing
      if (!n.IsSequence()) refuse(n, "interfaces: expected a list of interfaces");
      for (const auto& item : n) {
         InterfaceSetting setting;
         if (item.IsMap()) {
            setting = interfaceItem(item);
         } else {
            setting.name = IntfId(interfaceName(item, "interfaces"));
         }
         auto [it, fresh] = interfaceLine_.emplace(setting.name, lineOf(item));
         if (!fresh) {
            refuse(item, "interfaces: duplicate interface " + inQuotes(setting.name.name()) +
                             " (first at line " + std::to_string(it->second) + ")");
         }
         config_.interfaces.push_back(setting);
      }
   }

   InterfaceSetting interfaceItem(const YAML::Node& item) {
      InterfaceSetting setting;
      std::map<std::string, int> seen;
      for (const auto& kv : item) {
         std::string key = keyName(kv.first, seen);
         keyLine_ = lineOf(kv.first);
         if (key == "name") {
            setting.name = IntfId(interfaceName(kv.second, "interfaces"));
         } else if (key == "ipv4") {
            bool on = false;
            if (!kv.second.IsScalar() || !YAML::convert<bool>::decode(kv.second, on)) {
               refuse(kv.second, "interfaces: ipv4 must be true or false");
            }
            setting.ipv4 = on;
         } else {
            refuse(kv.first, "interfaces: unknown key " + inQuotes(key) + " (expected name, ipv4)");
         }
      }
      if (!seen.count("name")) refuse(item, "interfaces: missing required key 'name'");
      return setting;
   }

   void readDatabase(const YAML::Node& n) { config_.database = absolutePath(n, "database"); }

   void readControlSocket(const YAML::Node& n) {
      std::string path = absolutePath(n, "control-socket");
      if (path.size() > kMaxSocketPath) {
         refuse(n, "control-socket: the path is longer than the " + std::to_string(kMaxSocketPath) +
                       " bytes a unix socket address holds");
      }
      config_.controlSocket = path;
   }

   void readTraceDir(const YAML::Node& n) { config_.traceDir = absolutePath(n, "trace-dir"); }

   // Reserved for the data plane: any names, plain values, kept with their
   // lines so that the data plane can point at a bad one later.
   void readDataPlane(const YAML::Node& n) {
      if (n.IsNull()) return;
      if (!n.IsMap()) refuse(n, "data-plane: expected a mapping of settings");
      std::map<std::string, int> seen;
      for (const auto& kv : n) {
         std::string key = keyName(kv.first, seen);
         keyLine_ = lineOf(kv.first);
         config_.dataPlane[key] = {scalar(kv.second, "data-plane: " + key), lineOf(kv.second)};
      }
   }

   void checkAcrossKeys() {
      if (auto it = interfaceLine_.find(IntfId(config_.bridge)); it != interfaceLine_.end()) {
         throw Refusal{it->second, "interfaces: " + inQuotes(config_.bridge) +
                                       " is the bridge itself; list the bridge's ports"};
      }
   }

   DaemonConfig config_;
   int keyLine_ = 1;
   std::map<IntfId, int> interfaceLine_;
};

const std::array<ConfigReader::KeyRule, 8> ConfigReader::kRules = {{
    {"local-interface", true, &ConfigReader::readLocalInterface},
    {"bridge", true, &ConfigReader::readBridge},
    {"dhcp-servers", true, &ConfigReader::readDhcpServers},
    {"interfaces", false, &ConfigReader::readInterfaces},
    {"database", false, &ConfigReader::readDatabase},
    {"control-socket", false, &ConfigReader::readControlSocket},
    {"trace-dir", false, &ConfigReader::readTraceDir},
    {"data-plane", false, &ConfigReader::readDataPlane},
}};

// Counts documents, and finds the line where the second one's content starts.
struct DocumentCounter : YAML::EventHandler {
   int documents = 0;
   int secondLine = 0;
   // The second document starts where the first did: the parser is stuck
   // on a token it cannot place.
   bool stuck = false;

   void OnDocumentStart(const YAML::Mark& m) override {
      if (++documents == 1) first_ = m.pos;
      if (documents == 2) stuck = m.pos == first_;
   }
   void OnDocumentEnd() override {}
   void OnNull(const YAML::Mark& m, YAML::anchor_t) override { node(m); }
   void OnAlias(const YAML::Mark& m, YAML::anchor_t) override { node(m); }
   void OnScalar(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                 const std::string&) override {
      node(m);
   }
   void OnSequenceStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                        YAML::EmitterStyle::value) override {
      node(m);
   }
   void OnSequenceEnd() override {}
   void OnMapStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                   YAML::EmitterStyle::value) override {
      node(m);
   }
   void OnMapEnd() override {}

 private:
   int first_ = 0;
   void node(const YAML::Mark& m) {
      if (documents == 2 && secondLine == 0) secondLine = m.line < 0 ? 1 : m.line + 1;
   }
};

std::string onOff(bool v) {
   return v ? "on" : "off";
}

}  // namespace

std::string ConfigError::str() const {
   if (line <= 0) return file + ": " + reason;
   return file + ":" + std::to_string(line) + ": " + reason;
}

ConfigResult parseConfig(std::string_view text, const std::string& fileName) {
   try {
      const std::string whole(text);
      // Never YAML::LoadAll: on a file that starts with a flow separator
      // (",") each document it reads consumes nothing, and it never returns.
      // Two documents are all it takes to refuse the file.
      std::istringstream in(whole);
      YAML::Parser parser(in);
      DocumentCounter counter;
      while (counter.documents < 2 && parser.HandleNextDocument(counter)) {
      }
      if (counter.stuck) {
         return ConfigError{fileName, counter.secondLine, "not valid YAML"};
      }
      if (counter.documents > 1) {
         return ConfigError{fileName, counter.secondLine, "only one YAML document is allowed"};
      }
      return ConfigReader().read(YAML::Load(whole));
   } catch (const Refusal& r) {
      return ConfigError{fileName, r.line, r.reason};
   } catch (const YAML::Exception& e) {
      return ConfigError{fileName, e.mark.line < 0 ? 0 : e.mark.line + 1, e.msg};
   }
}

ConfigResult loadConfig(const std::string& path) {
   std::error_code ec;
   if (std::filesystem::is_directory(path, ec)) return ConfigError{path, 0, "is a directory"};
   std::ifstream in(path, std::ios::binary);
   if (!in) return ConfigError{path, 0, std::string("cannot open: ") + std::strerror(errno)};
   std::ostringstream text;
   text << in.rdbuf();
   if (in.bad()) return ConfigError{path, 0, std::string("cannot read: ") + std::strerror(errno)};
   return parseConfig(text.str(), path);
}

std::vector<std::string> applyConfig(const DaemonConfig& config, CliConfig& cliConfig) {
   std::vector<std::string> changes;
   cliConfig.configuredIs(true);
   if (cliConfig.localInterface() != config.localInterface) {
      cliConfig.localInterfaceIs(config.localInterface);
      changes.push_back("local-interface " + config.localInterface.name());
   }
   // New servers go in before old ones leave, so that a swap never leaves
   // the agent without a server to ask.
   for (auto server : config.dhcpServers) {
      if (cliConfig.dhcpV4ServerHas(server)) continue;
      cliConfig.dhcpV4ServerIs(server);
      changes.push_back("dhcp server " + server.str() + " added");
   }
   std::vector<IpAddr> oldServers;
   for (auto server : cliConfig.dhcpV4ServerAll()) {
      auto& wanted = config.dhcpServers;
      if (std::find(wanted.begin(), wanted.end(), server) == wanted.end()) {
         oldServers.push_back(server);
      }
   }
   for (auto server : oldServers) {
      cliConfig.dhcpV4ServerDel(server);
      changes.push_back("dhcp server " + server.str() + " removed");
   }

   std::vector<IntfId> oldInterfaces;
   for (const auto& entry : cliConfig.interfaceAll()) {
      IntfId name = entry.first;
      auto& wanted = config.interfaces;
      bool kept = std::any_of(wanted.begin(), wanted.end(),
                              [name](const InterfaceSetting& s) { return s.name == name; });
      if (!kept) oldInterfaces.push_back(name);
   }
   for (auto name : oldInterfaces) {
      cliConfig.interfaceDel(name);
      changes.push_back("interface " + name.name() + " removed");
   }
   for (const auto& setting : config.interfaces) {
      auto existing = cliConfig.interface(setting.name);
      if (!existing) {
         cliConfig.interfaceIs(setting.name, setting.ipv4);
         changes.push_back("interface " + setting.name.name() + " added, ipv4 " +
                           onOff(setting.ipv4));
      } else if (existing->ipv4() != setting.ipv4) {
         existing->ipv4Is(setting.ipv4);
         changes.push_back("interface " + setting.name.name() + " ipv4 " + onOff(setting.ipv4));
      }
   }
   return changes;
}

std::vector<std::string> settingsNeedingRestart(const DaemonConfig& running,
                                                const DaemonConfig& next) {
   std::vector<std::string> keys;
   auto differs = [&keys](std::string_view key, const auto& a, const auto& b) {
      if (a != b) keys.emplace_back(key);
   };
   differs("bridge", running.bridge, next.bridge);
   differs("database", running.database, next.database);
   differs("control-socket", running.controlSocket, next.controlSocket);
   differs("trace-dir", running.traceDir, next.traceDir);
   // A comment added above a setting moves its line, not its value.
   auto values = [](const DaemonConfig& c) {
      std::map<std::string, std::string> v;
      for (const auto& [key, setting] : c.dataPlane) v.emplace(key, setting.text);
      return v;
   };
   differs("data-plane", values(running), values(next));
   return keys;
}

}  // namespace Tavrin::Linux
