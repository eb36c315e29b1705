// The control server on a real Unix socket in a temporary directory, driven
// one loop iteration at a time: replies in order, a reply larger than the
// socket buffer, overlong requests, idle clients, the socket file's mode,
// and what it does with a file already at its path. Timers run on a
// virtual clock; every wait is bounded.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "daemon/ControlServer.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;
using Linux::UniqueFd;

namespace {

// A private directory, removed with everything in it.
struct TempDir {
   TempDir() {
      char tmpl[] = "/tmp/tavrin-control-XXXXXX";
      EXPECT_NE(::mkdtemp(tmpl), nullptr);
      path = tmpl;
   }
   ~TempDir() { std::filesystem::remove_all(path); }
   std::string path;
};

UniqueFd connectTo(const std::string& path) {
   UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
   if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return UniqueFd();
   return fd;
}

struct Server : ::testing::Test {
   TempDir dir;
   Rt::VirtualClock clock{1000.0};
   Rt::Ptr<Rt::TaskScheduler> sched = Rt::makePtr<Rt::TaskScheduler>(clock);
   Linux::EventLoop loop{sched};
   std::vector<std::string> seen;
   std::string sockPath = dir.path + "/run/tavrind.sock";

   std::unique_ptr<ControlServer> serve(std::string path = {}) {
      return std::make_unique<ControlServer>(loop, path.empty() ? sockPath : path,
                                             [this](std::string_view line) {
                                                seen.emplace_back(line);
                                                if (line == "big")
                                                   return replyOk(std::string(1 << 20, 'x'));
                                                return replyOk("echo " + std::string(line));
                                             });
   }

   void send(const UniqueFd& fd, std::string_view bytes) {
      ASSERT_EQ(::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
   }

   // Runs the loop until `lines` reply lines arrived or the peer closed;
   // bounded in iterations, each waiting at most 20 ms.
   std::string collect(const UniqueFd& fd, size_t lines, bool* closed = nullptr) {
      std::string got;
      if (closed) *closed = false;
      for (int i = 0; i < 2000; ++i) {
         loop.runOnce(20);
         char buf[65536];
         ssize_t n;
         while ((n = ::recv(fd.get(), buf, sizeof buf, MSG_DONTWAIT)) > 0)
            got.append(buf, size_t(n));
         if (n == 0) {
            if (closed) *closed = true;
            return got;
         }
         if (size_t(std::count(got.begin(), got.end(), '\n')) >= lines && !closed) return got;
      }
      return got;
   }
};

}  // namespace

TEST_F(Server, answersEachRequestLineInOrderOnOneConnection) {
   auto server = serve();
   auto c = connectTo(sockPath);
   ASSERT_TRUE(c);
   send(c, "one\ntwo\nthr");
   send(c, "ee\n");
   auto got = collect(c, 3);
   EXPECT_EQ(got, replyOk("echo one") + replyOk("echo two") + replyOk("echo three"));
   EXPECT_EQ(seen, (std::vector<std::string>{"one", "two", "three"}));
   EXPECT_EQ(server->requests(), 3u);
}

TEST_F(Server, theSocketIsForOwnerAndGroupAndGoesWithTheServer) {
   auto server = serve();
   struct stat st {};
   ASSERT_EQ(::stat(sockPath.c_str(), &st), 0);
   EXPECT_TRUE(S_ISSOCK(st.st_mode));
   EXPECT_EQ(st.st_mode & 0777, 0660u);
   server.reset();
   EXPECT_FALSE(std::filesystem::exists(sockPath));
}

TEST_F(Server, aReplyLargerThanTheSocketBufferArrivesWhole) {
   auto server = serve();
   auto c = connectTo(sockPath);
   ASSERT_TRUE(c);
   send(c, "big\nafter\n");
   auto got = collect(c, 2);
   EXPECT_EQ(got, replyOk(std::string(1 << 20, 'x')) + replyOk("echo after"));
}

TEST_F(Server, anOverlongRequestIsRefusedAndItsConnectionClosed) {
   auto server = serve();
   auto c = connectTo(sockPath);
   ASSERT_TRUE(c);
   send(c, "fine\n" + std::string(kMaxRequestBytes + 10, 'a'));
   bool closed = false;
   auto got = collect(c, 99, &closed);
   EXPECT_TRUE(closed);
   EXPECT_EQ(got.substr(0, replyOk("echo fine").size()), replyOk("echo fine"));
   EXPECT_NE(got.find("request longer than"), std::string::npos) << got;
   EXPECT_EQ(seen, (std::vector<std::string>{"fine"})) << "the long line is never handled";
   EXPECT_EQ(server->sessions(), 0u);
}

TEST_F(Server, aClientThatSaysNothingIsClosedWhenIdle) {
   auto server = serve();
   auto quiet = connectTo(sockPath);
   auto busy = connectTo(sockPath);
   ASSERT_TRUE(quiet && busy);
   loop.runOnce(20);
   loop.runOnce(20);
   ASSERT_EQ(server->sessions(), 2u);
   clock.advance(ControlServer::kIdleTimeout - 1);
   send(busy, "ping\n");
   collect(busy, 1);
   clock.advance(2);
   loop.runOnce(0);
   EXPECT_EQ(server->sessions(), 1u) << "the quiet one went, the busy one stays";
   char b;
   EXPECT_EQ(::recv(quiet.get(), &b, 1, MSG_DONTWAIT), 0) << "closed by the server";
}

TEST_F(Server, aClientThatLeavesIsForgottenAfterItsAnswer) {
   auto server = serve();
   auto c = connectTo(sockPath);
   ASSERT_TRUE(c);
   send(c, "last\n");
   ::shutdown(c.get(), SHUT_WR);
   bool closed = false;
   auto got = collect(c, 99, &closed);
   EXPECT_EQ(got, replyOk("echo last"));
   EXPECT_TRUE(closed);
   EXPECT_EQ(server->sessions(), 0u);
}

TEST_F(Server, tooManyConnectionsAreToldSo) {
   auto server = serve();
   std::vector<UniqueFd> clients;
   for (size_t i = 0; i < ControlServer::kMaxSessions; ++i) {
      clients.push_back(connectTo(sockPath));
      ASSERT_TRUE(clients.back());
   }
   for (int i = 0; i < 5 && server->sessions() < ControlServer::kMaxSessions; ++i) loop.runOnce(20);
   ASSERT_EQ(server->sessions(), ControlServer::kMaxSessions);
   auto extra = connectTo(sockPath);
   ASSERT_TRUE(extra);
   bool closed = false;
   auto got = collect(extra, 99, &closed);
   EXPECT_TRUE(closed);
   EXPECT_NE(got.find("too many control connections"), std::string::npos) << got;
   EXPECT_EQ(server->refusedConnections(), 1u);
}

TEST_F(Server, whatIsAlreadyAtThePathDecides) {
   // A socket file left by a crash: nobody answers, so it is replaced.
   {
      auto first = serve();
      struct stat st {};
      ASSERT_EQ(::stat(sockPath.c_str(), &st), 0);
      // Leave the file behind as a killed daemon would.
      ::link(sockPath.c_str(), (sockPath + ".kept").c_str());
   }
   std::filesystem::rename(sockPath + ".kept", sockPath);
   ASSERT_TRUE(std::filesystem::exists(sockPath));
   auto server = serve();
   auto c = connectTo(sockPath);
   ASSERT_TRUE(c);
   send(c, "hello\n");
   EXPECT_EQ(collect(c, 1), replyOk("echo hello"));

   // A live one is never taken over.
   try {
      auto second = serve();
      FAIL() << "a second server took over a live socket";
   } catch (const ControlError& e) {
      EXPECT_NE(std::string(e.what()).find("already running"), std::string::npos) << e.what();
   }
   // The failed attempt left the live socket alone.
   auto again = connectTo(sockPath);
   ASSERT_TRUE(again);

   // Not a socket: somebody's file, kept.
   std::string plain = dir.path + "/plain";
   std::ofstream(plain) << "keep me";
   EXPECT_THROW(serve(plain), ControlError);
   EXPECT_TRUE(std::filesystem::is_regular_file(plain));

   EXPECT_THROW(serve(dir.path + "/" + std::string(120, 'n')), ControlError);
}
