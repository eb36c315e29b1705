// The control protocol both ends share: which requests are valid, that what
// tavrinctl writes the daemon reads back unchanged, and how a byte stream is
// cut into request lines (partial reads, several lines per read, an
// overlong line).
#include <gtest/gtest.h>

#include "daemon/ControlProtocol.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

Request req(Command c) {
   Request r;
   r.command = c;
   return r;
}

}  // namespace

TEST(ControlProtocol, validRequestsParseToTheirCommandAndArguments) {
   const auto mac = *EthAddr::parse("02:00:5e:10:00:01");
   const auto server = *IpAddr::parse("192.0.2.10");
   struct Case {
      const char* line;
      Request want;
   } cases[] = {
       {R"({"command":"show-leases"})", req(Command::showLeases)},
       {R"({"command":"show-queries"})", req(Command::showQueries)},
       {R"({"command":"show-interfaces"})", req(Command::showInterfaces)},
       {R"({"command":"show-counters"})", req(Command::showCounters)},
       {R"({"command":"metrics"})", req(Command::metrics)},
       {R"({"command":"reload"})", req(Command::reload)},
       {R"({"command":"requery"})", req(Command::requery)},
       {R"({"command":"requery","server":"192.0.2.10"})",
        Request{Command::requery, std::nullopt, server, std::nullopt}},
       {R"({"command":"clear-leases","interface":"swp1"})",
        Request{Command::clearLeases, IntfId("swp1"), std::nullopt, std::nullopt}},
       {R"({"command":"clear-leases","server":"192.0.2.10"})",
        Request{Command::clearLeases, std::nullopt, server, std::nullopt}},
       {R"({"command":"clear-leases","mac":"02:00:5e:10:00:01"})",
        Request{Command::clearLeases, std::nullopt, std::nullopt, mac}},
       {R"({"mac":"02:00:5e:10:00:01","server":"192.0.2.10","command":"clear-leases"})",
        Request{Command::clearLeases, std::nullopt, server, mac}},
   };
   for (const auto& c : cases) {
      auto got = parseRequest(c.line);
      ASSERT_TRUE(std::holds_alternative<Request>(got))
          << c.line << ": " << std::get<std::string>(got);
      EXPECT_EQ(std::get<Request>(got), c.want) << c.line;
   }
}

TEST(ControlProtocol, badRequestsAreRefusedWithTheirReason) {
   struct Case {
      const char* line;
      const char* reason;  // a part of the error text
   } cases[] = {
       {"", "not JSON"},
       {"show leases", "not JSON"},
       {R"({"command":"show-leases")", "not JSON"},
       {R"(["show-leases"])", "JSON object"},
       {R"({})", "no 'command'"},
       {R"({"command":7})", "no 'command'"},
       {R"({"command":"shutdown"})", "unknown command 'shutdown'"},
       {R"({"command":"show-leases","verbose":true})", "unknown field 'verbose'"},
       {R"({"command":"show-leases","mac":"02:00:5e:10:00:01"})", "takes no arguments"},
       {R"({"command":"reload","server":"192.0.2.10"})", "takes no arguments"},
       {R"({"command":"clear-leases"})", "needs one of"},
       {R"({"command":"clear-leases","interface":"swp1","mac":"02:00:5e:10:00:01"})",
        "'interface' alone"},
       {R"({"command":"clear-leases","interface":"swp1","server":"192.0.2.10"})",
        "'interface' alone"},
       {R"({"command":"clear-leases","mac":"02:00:5e:10:00"})", "bad MAC address"},
       {R"({"command":"clear-leases","mac":17})", "must be a string"},
       {R"({"command":"clear-leases","server":"192.0.2.300"})", "bad server address"},
       {R"({"command":"clear-leases","interface":"sw p1"})", "bad interface name"},
       {R"({"command":"clear-leases","interface":""})", "bad interface name"},
       {R"({"command":"requery","interface":"swp1"})", "takes only 'server'"},
   };
   for (const auto& c : cases) {
      auto got = parseRequest(c.line);
      ASSERT_TRUE(std::holds_alternative<std::string>(got)) << c.line;
      EXPECT_NE(std::get<std::string>(got).find(c.reason), std::string::npos)
          << c.line << " -> " << std::get<std::string>(got);
   }
}

TEST(ControlProtocol, whatTheClientWritesTheDaemonReadsBack) {
   const auto mac = *EthAddr::parse("02:00:5e:10:00:01");
   const auto server = *IpAddr::parse("192.0.2.10");
   std::vector<Request> requests = {
       req(Command::showLeases),
       req(Command::showQueries),
       req(Command::showInterfaces),
       req(Command::showCounters),
       req(Command::reload),
       req(Command::metrics),
       req(Command::requery),
       Request{Command::requery, std::nullopt, server, std::nullopt},
       Request{Command::clearLeases, IntfId("swp1"), std::nullopt, std::nullopt},
       Request{Command::clearLeases, std::nullopt, server, mac},
   };
   for (const auto& r : requests) {
      std::string line = requestLine(r);
      ASSERT_EQ(line.back(), '\n');
      ASSERT_EQ(line.find('\n'), line.size() - 1) << "one request, one line";
      auto back = parseRequest(std::string_view(line).substr(0, line.size() - 1));
      ASSERT_TRUE(std::holds_alternative<Request>(back)) << line;
      EXPECT_EQ(std::get<Request>(back), r) << line;
   }
}

TEST(ControlProtocol, repliesAreOneLineAndReadBack) {
   auto ok = replyOk({{"removed", 2}, {"note", "two\nlines"}});
   EXPECT_EQ(ok.find('\n'), ok.size() - 1);
   auto r = parseReply(std::string_view(ok).substr(0, ok.size() - 1));
   EXPECT_TRUE(r.ok);
   EXPECT_EQ(r.result["removed"], 2);

   // A name that is not UTF-8 (an interface name is free bytes) must not
   // turn into an exception on the daemon's thread.
   auto odd = replyOk({{"interface", std::string("p\xff")}});
   EXPECT_TRUE(parseReply(std::string_view(odd).substr(0, odd.size() - 1)).ok);

   auto err = replyError("server 192.0.2.99 is not configured");
   auto e = parseReply(std::string_view(err).substr(0, err.size() - 1));
   EXPECT_FALSE(e.ok);
   EXPECT_EQ(e.error, "server 192.0.2.99 is not configured");

   for (const char* garbage : {"", "{}", "[1]", R"({"ok":"yes"})", "HTTP/1.1 400"}) {
      auto g = parseReply(garbage);
      EXPECT_FALSE(g.ok) << garbage;
      EXPECT_FALSE(g.error.empty()) << garbage;
   }
}

TEST(LineBuffer, cutsAStreamIntoLinesWhateverTheReads) {
   struct Case {
      const char* what;
      std::vector<std::string> chunks;
      std::vector<std::string> lines;
      std::string rest;  // an unfinished line stays buffered
   } cases[] = {
       {"one line", {"abc\n"}, {"abc"}, ""},
       {"a line in pieces", {"a", "b", "c\n"}, {"abc"}, ""},
       {"two lines in one read", {"a\nb\n"}, {"a", "b"}, ""},
       {"a line and a half", {"a\nb"}, {"a"}, "b"},
       {"CRLF from a terminal", {"a\r\n"}, {"a"}, ""},
       {"empty lines are lines", {"\n\n"}, {"", ""}, ""},
   };
   for (const auto& c : cases) {
      LineBuffer b(16);
      std::vector<std::string> got;
      for (const auto& chunk : c.chunks) {
         EXPECT_TRUE(b.append(chunk)) << c.what;
         while (auto l = b.nextLine()) got.push_back(*l);
      }
      EXPECT_EQ(got, c.lines) << c.what;
      EXPECT_EQ(b.buffered(), c.rest.size()) << c.what;
      EXPECT_FALSE(b.overflowed()) << c.what;
   }
}

TEST(LineBuffer, anOverlongLineEndsTheStreamButNotTheLinesBeforeIt) {
   {
      // The long line is still unfinished when it passes the limit.
      LineBuffer b(8);
      EXPECT_FALSE(b.append("ok\n0123456789abc"));
      EXPECT_TRUE(b.overflowed());
      EXPECT_EQ(b.nextLine(), "ok");
      EXPECT_EQ(b.nextLine(), std::nullopt);
      EXPECT_FALSE(b.append("\nmore\n")) << "nothing after it is read";
      EXPECT_EQ(b.nextLine(), std::nullopt);
   }
   {
      // The long line arrives whole, with a good line after it.
      LineBuffer b(8);
      b.append("0123456789\nok\n");
      EXPECT_EQ(b.nextLine(), std::nullopt);
      EXPECT_TRUE(b.overflowed());
      EXPECT_EQ(b.nextLine(), std::nullopt);
   }
   {
      // Exactly the limit is fine, CRLF included.
      LineBuffer b(8);
      EXPECT_TRUE(b.append("01234567\r"));
      EXPECT_TRUE(b.append("\n"));
      EXPECT_EQ(b.nextLine(), "01234567");
      EXPECT_FALSE(b.overflowed());
   }
}
