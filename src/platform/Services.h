// Platform services the agent's machines create objects through (sockets,
// packet access). On a switch these are the platform library's factories;
// a host installs its implementation once, before any agent starts.
#pragma once

#include <string>

#include "platform/UdpPam.h"

namespace Tavrin::Platform {

class Services {
 public:
   virtual ~Services() = default;
   virtual Ptr<UdpPam> udpPamIs(const std::string& name) = 0;
};

void servicesIs(Services* s);
// The installed services; asserts that a host installed them.
Services& services();

}  // namespace Tavrin::Platform
