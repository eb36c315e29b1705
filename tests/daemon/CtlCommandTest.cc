// tavrinctl's command lines: each maps to exactly one request, and a typing
// error is refused before anything reaches the daemon.
#include <gtest/gtest.h>

#include "daemon/CtlCommand.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

struct Parsed {
   bool ok = false;
   CtlInvocation inv;
   std::string error;
};

// argv without the program name.
Parsed parse(std::vector<std::string> args) {
   Parsed p;
   CLI::App app{"tavrinctl"};
   ctlAppIs(app, p.inv);
   std::vector<std::string> reversed(args.rbegin(), args.rend());
   try {
      app.parse(reversed);
      p.ok = true;
   } catch (const CLI::ParseError& e) {
      p.error = e.what();
   }
   return p;
}

Request req(Command c, std::optional<IntfId> intf = {}, std::optional<IpAddr> server = {},
            std::optional<EthAddr> mac = {}) {
   return Request{c, intf, server, mac};
}

std::string join(const std::vector<std::string>& w) {
   std::string s;
   for (const auto& x : w) s += (s.empty() ? "" : " ") + x;
   return s;
}

}  // namespace

TEST(CtlCommand, eachCommandLineMakesItsRequest) {
   const auto mac = *EthAddr::parse("02:00:5e:10:00:01");
   const auto server = *IpAddr::parse("192.0.2.10");
   struct Case {
      std::vector<std::string> args;
      Request want;
      bool json;
   } cases[] = {
       {{"show", "leases"}, req(Command::showLeases), false},
       {{"show", "leases", "--json"}, req(Command::showLeases), true},
       {{"show", "queries", "--json"}, req(Command::showQueries), true},
       {{"show", "interfaces"}, req(Command::showInterfaces), false},
       {{"show", "counters"}, req(Command::showCounters), false},
       {{"metrics"}, req(Command::metrics), false},
       {{"reload"}, req(Command::reload), false},
       {{"requery"}, req(Command::requery), false},
       {{"requery", "--server", "192.0.2.10"}, {Command::requery, {}, server, {}}, false},
       {{"clear", "leases", "--interface", "swp1"},
        {Command::clearLeases, IntfId("swp1"), {}, {}},
        false},
       {{"clear", "leases", "--server", "192.0.2.10"},
        {Command::clearLeases, {}, server, {}},
        false},
       {{"clear", "leases", "--mac", "02:00:5e:10:00:01"},
        {Command::clearLeases, {}, {}, mac},
        false},
       {{"clear", "leases", "--mac", "02:00:5e:10:00:01", "--server", "192.0.2.10"},
        {Command::clearLeases, {}, server, mac},
        false},
       {{"--socket", "/tmp/x.sock", "show", "leases"}, req(Command::showLeases), false},
   };
   for (const auto& c : cases) {
      auto p = parse(c.args);
      ASSERT_TRUE(p.ok) << join(c.args) << ": " << p.error;
      EXPECT_EQ(p.inv.request, c.want) << join(c.args);
      EXPECT_EQ(p.inv.json, c.json) << join(c.args);
   }
   EXPECT_EQ(parse({"--socket", "/tmp/x.sock", "show", "leases"}).inv.socket, "/tmp/x.sock");
   EXPECT_EQ(parse({"show", "leases"}).inv.socket, "/run/tavrin/tavrind.sock");
}

TEST(CtlCommand, typingErrorsAreRefused) {
   std::vector<std::vector<std::string>> cases = {
       {},
       {"show"},
       {"show", "lease"},
       {"show", "leases", "extra"},
       {"clear"},
       {"clear", "leases"},
       {"clear", "leases", "--mac", "02:00:5e:10:00"},
       {"clear", "leases", "--mac", "zz:00:5e:10:00:01"},
       {"clear", "leases", "--server", "192.0.2"},
       {"clear", "leases", "--interface", "swp1", "--mac", "02:00:5e:10:00:01"},
       {"clear", "leases", "--interface", "swp1", "--server", "192.0.2.10"},
       {"requery", "--server", "example.org"},
       {"reload", "--json"},
       {"metrics", "now"},
       {"--timeout", "0", "show", "leases"},
       {"shutdown"},
   };
   for (const auto& args : cases) {
      EXPECT_FALSE(parse(args).ok) << "'" << join(args) << "' was accepted";
   }
}

TEST(CtlCommand, textOutputShowsWhatMattersToAPerson) {
   const double now = 1'700'000'000;
   Json leases = Json::array({{{"interface", "swp1"},
                               {"mac", "02:00:5e:10:00:01"},
                               {"ip", "10.0.0.5"},
                               {"server", "192.0.2.10"},
                               {"last_transaction", now - 30},
                               {"expiration", now + 3723}},
                              {{"interface", "swp2"},
                               {"mac", "02:00:5e:10:00:02"},
                               {"ip", "10.0.0.6"},
                               {"server", "192.0.2.10"},
                               {"last_transaction", now - 900},
                               {"expiration", now - 5}}});
   auto text = ctlText(Command::showLeases, leases, now);
   EXPECT_NE(text.find("1h02m03s"), std::string::npos) << text;
   EXPECT_NE(text.find("expired 5s"), std::string::npos) << text;
   EXPECT_EQ(ctlText(Command::showLeases, Json::array(), now), "no leases\n");
   EXPECT_EQ(ctlText(Command::clearLeases, {{"removed", 1}}, now), "removed 1 lease\n");
   EXPECT_EQ(ctlText(Command::metrics, Json("a 1\n"), now), "a 1\n");
   auto reload =
       ctlText(Command::reload,
               {{"changes", Json::array()}, {"restart_needed", Json::array({"bridge"})}}, now);
   EXPECT_NE(reload.find("no change"), std::string::npos) << reload;
   EXPECT_NE(reload.find("restart"), std::string::npos) << reload;
}
