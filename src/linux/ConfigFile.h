// tavrind's configuration file: a YAML mapping read into a DaemonConfig, and
// the part of it the agent sees applied to its CliConfig entity.
//
// Every mistake in the file is reported with the file name and the line of
// the offending key or value, so that an operator who runs
// `tavrind --check-config` or sends SIGHUP learns exactly what to fix.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "model/TavrinTypes.h"

namespace Tavrin::Linux {

// One interface whose ports the agent locks.
struct InterfaceSetting {
   IntfId name;
   bool ipv4 = true;
   bool operator==(const InterfaceSetting&) const = default;
};

// A setting of the reserved `data-plane` map, kept as written (with its line)
// until the data plane that owns these settings interprets them.
struct ReservedSetting {
   std::string text;
   int line = 0;
   bool operator==(const ReservedSetting&) const = default;
};

struct DaemonConfig {
   static constexpr std::string_view kDefaultDatabase = "/var/lib/tavrin/tavrin.db";
   static constexpr std::string_view kDefaultControlSocket = "/run/tavrin/tavrind.sock";

   IntfId localInterface;
   std::string bridge;
   std::vector<IpAddr> dhcpServers;           // in file order, no duplicates
   std::vector<InterfaceSetting> interfaces;  // in file order, no duplicates
   std::string database = std::string(kDefaultDatabase);
   std::string controlSocket = std::string(kDefaultControlSocket);
   std::optional<std::string> traceDir;
   std::map<std::string, ReservedSetting> dataPlane;

   bool operator==(const DaemonConfig&) const = default;
};

// Why a file was refused. line is 1-based; 0 when the problem is the whole
// file (it cannot be read).
struct ConfigError {
   std::string file;
   int line = 0;
   std::string reason;
   // "file:line: reason", the form editors and compilers use.
   std::string str() const;
};

using ConfigResult = std::variant<DaemonConfig, ConfigError>;

// Reads and checks the file at path.
ConfigResult loadConfig(const std::string& path);
// Checks YAML text; fileName only labels the errors.
ConfigResult parseConfig(std::string_view text, const std::string& fileName);

// Brings cliConfig in line with config by changing only what differs, so that
// the agent's machines see a reload as the ordinary adds, removes and changes
// they already handle, and a re-read of an unchanged file as nothing at all.
// Returns one line per change, for the log.
std::vector<std::string> applyConfig(const DaemonConfig& config, CliConfig& cliConfig);

// The settings that differ between the running and the new configuration
// but take effect only at the next start (they shape sockets, files and the
// followed bridge, which are set up once).
std::vector<std::string> settingsNeedingRestart(const DaemonConfig& running,
                                                const DaemonConfig& next);

}  // namespace Tavrin::Linux
