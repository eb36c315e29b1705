// Turns the per-interface configuration into the configured interface
// status: an interface carries rule 1 while it is configured with ipv4 on,
// and no rule otherwise. The only writer of that status.
#pragma once

#include <map>
#include <memory>

#include "model/TavrinTypes.h"

namespace Tavrin {

class CliConfigSm : public Rt::RefCounted {
 public:
   CliConfigSm(Ptr<const CliConfig> cliConfig,
               Ptr<ConfiguredInterfaceStatus> configuredInterfaceStatus);
   ~CliConfigSm() override;

   void handleInterface(IntfId intfId);
   void handleAllInterfaces();

   void intfConfigSmIs(const Ptr<const IntfConfig>& intfConfig);
   void intfConfigSmDel(IntfId intfId);
   void intfConfigSmDelAll();
   size_t intfConfigSmSize() const { return intfConfigSm_.size(); }

 private:
   // Follows the interface collection with immediate delivery.
   class CliConfigReactor : public CliConfig::Notifiee {
    public:
      CliConfigReactor(CliConfigSm& sm, const Ptr<const CliConfig>& c)
          : CliConfig::Notifiee(c), sm_(sm) {}
      void onInterface(IntfId i) override;

    private:
      CliConfigSm& sm_;
   };
   // One per configured interface; reports ipv4 changes to the parent.
   class IntfConfigSm : public IntfConfig::Notifiee {
    public:
      IntfConfigSm(CliConfigSm& sm, const Ptr<const IntfConfig>& c)
          : IntfConfig::Notifiee(c), sm_(sm) {}
      void onIpv4() override { sm_.handleInterface(notifier()->intfId()); }

    private:
      CliConfigSm& sm_;
   };

   Ptr<const CliConfig> cliConfig_;
   Ptr<ConfiguredInterfaceStatus> configuredInterfaceStatus_;
   std::map<IntfId, std::unique_ptr<IntfConfigSm>> intfConfigSm_;
   std::unique_ptr<CliConfigReactor> reactor_;
};

Ptr<CliConfigSm> cliConfigSmFactory(Ptr<const CliConfig> cliConfig,
                                    Ptr<ConfiguredInterfaceStatus> configuredInterfaceStatus);

}  // namespace Tavrin
