// The control socket's commands: each request read from the running
// agent's entities and machines, or passed to the lease table machine, and
// answered with one reply. Runs on the agent's thread, between events, so
// what it reads is consistent and what it changes is committed with the
// same loop iteration.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "daemon/ControlProtocol.h"
#include "daemon/Counters.h"
#include "daemon/LeaseOps.h"
#include "platform/Framework.h"

namespace Tavrin::Daemon {

class ControlHandlers {
 public:
   // Re-reads the configuration file: what it changed, or why the running
   // configuration was kept.
   using ReloadFn = std::function<std::variant<Json, std::string>()>;

   ControlHandlers(const Platform::Framework& framework, LeaseOps& ops,
                   const CounterRegistry& counters, ReloadFn reload);

   // One request line in, one reply line out (newline included).
   std::string handleLine(std::string_view line);
   // The result of a valid request, or the error text for the client.
   std::variant<Json, std::string> handle(const Request& r);

 private:
   Json showLeases() const;
   Json showQueries() const;
   Json showInterfaces() const;
   std::variant<Json, std::string> clearLeases(const Request& r);
   std::variant<Json, std::string> requery(const Request& r);
   std::variant<Json, std::string> reload();
   size_t leaseCount() const;
   Ptr<TavrinRoot> root() const;

   const Platform::Framework& framework_;
   LeaseOps& ops_;
   const CounterRegistry& counters_;
   ReloadFn reload_;
};

}  // namespace Tavrin::Daemon
