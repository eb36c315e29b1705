#include "lease/LeaseTableCheck.h"

#include <sstream>

namespace Tavrin {

namespace {

// The member under key as a plain pointer: the check runs after every step of
// long randomised runs, and copying Ptrs on each lookup would dominate it.
template <class M, class K>
const typename M::mapped_type::element_type* in(const M& map, const K& key) {
   if constexpr (requires { map.get(key); }) {
      return map.get(key);
   } else {
      auto it = map.find(key);
      return it == map.end() ? nullptr : it->second.get();
   }
}

class Checker {
 public:
   Checker(const LeaseTable& t, const LeaseStatus& s, const Status* p)
       : table_(t), status_(s), published_(p) {}

   std::vector<std::string> run() {
      checkClients();
      checkIpToLease();
      checkServerSets();
      checkInterfaceSets();
      checkPersisted();
      if (published_) checkPublished();
      return std::move(violations_);
   }

 private:
   template <class... A>
   void fail(const A&... parts) {
      std::ostringstream os;
      (os << ... << parts);
      violations_.push_back(os.str());
   }

   void checkClients() {
      for (const auto& [mac, client] : table_.macToLeaseAll()) {
         if (client->mac() != mac) fail("macToLease ", mac, " holds the client of ", client->mac());
         if (client->ipMacLeaseByIpSize() == 0) fail("client ", mac, " holds no lease");
         auto intfSet = in(table_.interfaceClientLeaseSetAll(), client->intfId());
         if (!intfSet || !intfSet->clientLeaseHas(client)) {
            fail("client ", mac, " missing from the set of its interface ", client->intfId());
         }
         checkClientLeases(*client);
         checkClientServers(client);
      }
   }

   void checkClientLeases(const ClientLease& client) {
      for (const auto& [ip, lease] : client.ipMacLeaseByIpAll()) {
         if (lease->ip() != ip || lease->mac() != client.mac()) {
            fail("client ", client.mac(), " files lease ", lease->key(), " under ip ", ip);
         }
         if (in(table_.ipToLeaseAll(), ip) != &client) {
            fail("ipToLease ", ip, " does not name client ", client.mac());
         }
         if (!client.dhcpLeaseSet(lease->dhcpAddr())) {
            fail("lease ", lease->key(), " missing from its server set in client ", client.mac());
         }
         auto persisted = in(status_.interfaceLeaseSetAll(), client.intfId());
         if (!persisted || in(persisted->ipMacLeaseAll(), lease->key()) != lease.get()) {
            fail("lease ", lease->key(), " of client on ", client.intfId(),
                 " is not persisted there");
         }
      }
   }

   // A server set is a view of the client's leases, so it cannot hold a
   // lease the client does not; what can go wrong is the client's list of
   // servers and the newest time it keeps for each.
   void checkClientServers(const Ptr<ClientLease>& client) {
      for (const auto& [server, storedNewest] : client->dhcpLeaseSetAll()) {
         auto set = client->dhcpLeaseSet(server);
         if (set.ipMacLeaseSize() == 0)
            fail("client ", client->mac(), " keeps an empty set of ", server);
         bool any = false;
         Seconds newest = 0;
         for (const auto& lease : set.ipMacLeaseAll()) {
            if (!any || lease->lastTransactionTime() > newest)
               newest = lease->lastTransactionTime();
            any = true;
         }
         if (any && set.newestLastTransactionTime() != newest) {
            fail("client ", client->mac(), " server ", server, " newest time ",
                 set.newestLastTransactionTime(), " but its newest lease has ", newest);
         }
         auto serverSet = in(table_.dhcpServerLeaseSetAll(), server);
         if (!serverSet || !serverSet->clientLeaseHas(client)) {
            fail("client ", client->mac(), " missing from the client set of server ", server);
         }
      }
   }

   void checkIpToLease() {
      for (const auto& [ip, client] : table_.ipToLeaseAll()) {
         if (in(table_.macToLeaseAll(), client->mac()) != client.get()) {
            fail("ipToLease ", ip,
                 " names a client that macToLease does not hold: ", client->mac());
         }
         if (!in(client->ipMacLeaseByIpAll(), ip)) {
            fail("ipToLease ", ip, " names a client without it");
         }
      }
   }

   void checkServerSets() {
      for (const auto& [server, set] : table_.dhcpServerLeaseSetAll()) {
         if (set->dhcpAddr() != server) fail("server set of ", set->dhcpAddr(), " under ", server);
         for (const auto& client : set->clientLeaseAll()) {
            if (in(table_.macToLeaseAll(), client->mac()) != client.get()) {
               fail("server ", server, " lists a dead client ", client->mac());
            }
            if (!client->dhcpLeaseSet(server)) {
               fail("server ", server, " lists client ", client->mac(), " without its leases");
            }
         }
      }
   }

   void checkInterfaceSets() {
      for (const auto& [intf, set] : table_.interfaceClientLeaseSetAll()) {
         if (set->intfId() != intf) fail("interface set of ", set->intfId(), " under ", intf);
         for (const auto& client : set->clientLeaseAll()) {
            if (in(table_.macToLeaseAll(), client->mac()) != client.get()) {
               fail("interface ", intf, " lists a dead client ", client->mac());
            }
            if (client->intfId() != intf) {
               fail("interface ", intf, " lists client ", client->mac(), " of ", client->intfId());
            }
         }
      }
   }

   void checkPersisted() {
      size_t persisted = 0;
      for (const auto& [intf, set] : status_.interfaceLeaseSetAll()) {
         for (const auto& [key, lease] : set->ipMacLeaseAll()) {
            ++persisted;
            if (!(lease->key() == key)) fail("persisted lease ", lease->key(), " under key ", key);
            auto client = in(table_.macToLeaseAll(), key.mac);
            if (!client || client->intfId() != intf ||
                in(client->ipMacLeaseByIpAll(), key.ip) != lease.get()) {
               fail("persisted lease ", key, " on ", intf, " is not indexed");
            }
         }
      }
      if (persisted != table_.ipToLeaseAll().size()) {
         fail(persisted, " persisted leases but ", table_.ipToLeaseAll().size(), " leased IPs");
      }
   }

   void checkPublished() {
      for (const auto& [ip, client] : table_.ipToLeaseAll()) {
         auto entry = published_->ipMacLease({client->mac(), ip});
         if (!entry) {
            fail("lease of ", client->mac(), " ip ", ip, " is not published");
         } else if (entry->intfId != client->intfId()) {
            fail("lease of ", client->mac(), " ip ", ip, " is published on ", entry->intfId,
                 " but held on ", client->intfId());
         }
      }
      if (published_->ipMacLeaseSize() != table_.ipToLeaseAll().size()) {
         fail(published_->ipMacLeaseSize(), " published entries but ", table_.ipToLeaseAll().size(),
              " leased IPs");
      }
   }

   const LeaseTable& table_;
   const LeaseStatus& status_;
   const Status* published_;
   std::vector<std::string> violations_;
};

}  // namespace

std::vector<std::string> checkLeaseTableConsistency(const LeaseTable& leaseTable,
                                                    const LeaseStatus& leaseStatus,
                                                    const Status* published) {
   return Checker(leaseTable, leaseStatus, published).run();
}

}  // namespace Tavrin
