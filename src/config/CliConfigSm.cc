#include "config/CliConfigSm.h"

#include "model/TavrinCommon.h"

namespace Tavrin {

CliConfigSm::CliConfigSm(Ptr<const CliConfig> cliConfig,
                         Ptr<ConfiguredInterfaceStatus> configuredInterfaceStatus)
    : cliConfig_(std::move(cliConfig)),
      configuredInterfaceStatus_(std::move(configuredInterfaceStatus)) {
   if (!cliConfig_ || !configuredInterfaceStatus_) return;
   reactor_ = std::make_unique<CliConfigReactor>(*this, cliConfig_);
   for (const auto& [intfId, intfConfig] : cliConfig_->interfaceAll()) intfConfigSmIs(intfConfig);
   handleAllInterfaces();
}

CliConfigSm::~CliConfigSm() {
   reactor_.reset();
   intfConfigSmDelAll();
}

void CliConfigSm::CliConfigReactor::onInterface(IntfId i) { sm_.handleInterface(i); }

void CliConfigSm::handleInterface(IntfId intfId) {
   auto intfConfig = cliConfig_->interface(intfId);
   if (!intfConfig || !intfConfig->ipv4()) {
      TAVRIN_TRACE(tavrinTrace(), 4, " Unconfigure " << intfId);
      configuredInterfaceStatus_->interfaceRuleDel(intfId);
   } else {
      TAVRIN_TRACE(tavrinTrace(), 4, " Configure " << intfId);
      configuredInterfaceStatus_->interfaceRuleIs(intfId, 1);
   }
   if (intfConfig) {
      intfConfigSmIs(intfConfig);
   } else {
      intfConfigSmDel(intfId);
   }
}

void CliConfigSm::handleAllInterfaces() {
   // Rules outlive the agent in the state store; drop those the
   // configuration no longer backs before writing the current ones.
   std::vector<IntfId> stale;
   for (const auto& [intfId, rule] : configuredInterfaceStatus_->interfaceRuleAll()) {
      auto intfConfig = cliConfig_->interface(intfId);
      if (!intfConfig || !intfConfig->ipv4()) stale.push_back(intfId);
   }
   for (auto intfId : stale) {
      TAVRIN_TRACE(tavrinTrace(), 4, " Unconfigure " << intfId);
      configuredInterfaceStatus_->interfaceRuleDel(intfId);
   }
   for (const auto& [intfId, intfConfig] : cliConfig_->interfaceAll()) {
      if (!intfConfig->ipv4()) continue;
      TAVRIN_TRACE(tavrinTrace(), 4, " Configure " << intfId);
      configuredInterfaceStatus_->interfaceRuleIs(intfId, 1);
   }
}

void CliConfigSm::intfConfigSmIs(const Ptr<const IntfConfig>& intfConfig) {
   auto& slot = intfConfigSm_[intfConfig->intfId()];
   if (slot && slot->notifier() == intfConfig) return;
   slot = std::make_unique<IntfConfigSm>(*this, intfConfig);
}

void CliConfigSm::intfConfigSmDel(IntfId intfId) { intfConfigSm_.erase(intfId); }

void CliConfigSm::intfConfigSmDelAll() { intfConfigSm_.clear(); }

Ptr<CliConfigSm> cliConfigSmFactory(Ptr<const CliConfig> cliConfig,
                                    Ptr<ConfiguredInterfaceStatus> configuredInterfaceStatus) {
   return Rt::makePtr<CliConfigSm>(std::move(cliConfig), std::move(configuredInterfaceStatus));
}

}  // namespace Tavrin
