// tavrind's control socket: a Unix stream socket served on the agent's
// event loop. Each connection sends request lines and gets one reply line
// per request, in order; docs/control.md describes the protocol.
//
// The server never blocks the loop: sockets are non-blocking, a reply that
// does not fit the socket buffer waits for EPOLLOUT (and no further request
// of that connection is read meanwhile), connections are few and are closed
// when idle, and an overlong request closes its connection.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "daemon/ControlProtocol.h"
#include "linux/EventLoop.h"

namespace Tavrin::Daemon {

// The socket could not be set up; the message names the path and the reason.
class ControlError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class ControlServer {
 public:
   // One request line in, one reply line out.
   using Handler = std::function<std::string(std::string_view line)>;
   static constexpr size_t kMaxSessions = 16;
   static constexpr Seconds kIdleTimeout = 10.0;
   // Owner and group may connect; the directory decides who can reach it.
   static constexpr mode_t kSocketMode = 0660;

   // Binds and listens at path, replacing a socket file that nobody serves
   // (left by a crash) but never one that answers, nor a file of another
   // kind. Creates the socket's directory when it is missing. Throws
   // ControlError.
   ControlServer(Linux::EventLoop& loop, std::string path, Handler handler);
   // Stops serving and removes the socket file if it is still ours.
   ~ControlServer();
   ControlServer(const ControlServer&) = delete;
   ControlServer& operator=(const ControlServer&) = delete;

   const std::string& path() const { return path_; }
   size_t sessions() const { return sessions_.size(); }
   uint64_t requests() const { return requests_; }
   uint64_t refusedConnections() const { return refused_; }

 private:
   class Session;
   void handleAccept();
   void handleSession(int fd, uint32_t events);
   void sessionDel(int fd);

   Linux::EventLoop& loop_;
   std::string path_;
   Handler handler_;
   Linux::UniqueFd listen_;
   dev_t dev_ = 0;
   ino_t ino_ = 0;
   std::map<int, std::unique_ptr<Session>> sessions_;
   uint64_t requests_ = 0;
   uint64_t refused_ = 0;
};

}  // namespace Tavrin::Daemon
