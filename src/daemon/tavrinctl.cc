// tavrinctl: a client of tavrind's control socket. One request, one reply;
// the exit status says whether the daemon did what was asked (CtlExit).
#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "daemon/CtlCommand.h"
#include "rt/Clock.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

// Closes the socket on every way out.
class Fd {
 public:
   explicit Fd(int fd) : fd_(fd) {}
   ~Fd() {
      if (fd_ >= 0) ::close(fd_);
   }
   Fd(const Fd&) = delete;
   Fd& operator=(const Fd&) = delete;
   int get() const { return fd_; }

 private:
   int fd_;
};

struct Failure {
   int status;
   std::string message;
};

// Sends one request line and reads one reply line; throws Failure.
std::string roundTrip(const CtlInvocation& inv, const std::string& line) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (inv.socket.empty() || inv.socket.size() >= sizeof addr.sun_path) {
      throw Failure{kCtlUsage, "socket path '" + inv.socket + "' is empty or too long"};
   }
   std::memcpy(addr.sun_path, inv.socket.c_str(), inv.socket.size() + 1);
   Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (fd.get() < 0) throw Failure{kCtlUnreachable, std::string("socket: ") + strerror(errno)};
   timeval tv{};
   tv.tv_sec = time_t(inv.timeoutSeconds);
   tv.tv_usec = suseconds_t((inv.timeoutSeconds - double(tv.tv_sec)) * 1e6);
   ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
   ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
   if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
      throw Failure{kCtlUnreachable, "cannot reach tavrind at " + inv.socket + ": " +
                                         strerror(errno) + " (is it running?)"};
   }
   for (size_t off = 0; off < line.size();) {
      ssize_t n = ::send(fd.get(), line.data() + off, line.size() - off, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0)
         throw Failure{kCtlUnreachable, std::string("sending to tavrind: ") + strerror(errno)};
      off += size_t(n);
   }
   ::shutdown(fd.get(), SHUT_WR);
   std::string reply;
   char buf[65536];
   while (reply.find('\n') == std::string::npos) {
      ssize_t n = ::recv(fd.get(), buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
         throw Failure{kCtlUnreachable, "tavrind did not answer within " +
                                            std::to_string(inv.timeoutSeconds) + " seconds"};
      }
      if (n < 0)
         throw Failure{kCtlUnreachable, std::string("reading from tavrind: ") + strerror(errno)};
      if (n == 0) throw Failure{kCtlUnreachable, "tavrind closed the connection without a reply"};
      reply.append(buf, size_t(n));
   }
   reply.resize(reply.find('\n'));
   return reply;
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{"tavrinctl"};
   CtlInvocation inv;
   ctlAppIs(app, inv);
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      int status = app.exit(e);
      return status == 0 ? kCtlOk : kCtlUsage;
   }
   try {
      Reply reply = parseReply(roundTrip(inv, requestLine(inv.request)));
      if (!reply.ok) {
         std::cerr << "tavrinctl: " << reply.error << '\n';
         return kCtlDaemonError;
      }
      if (inv.json) {
         std::cout << reply.result.dump(2) << '\n';
      } else {
         std::cout << ctlText(inv.request.command, reply.result, Rt::SystemClock().now());
      }
      return kCtlOk;
   } catch (const Failure& f) {
      std::cerr << "tavrinctl: " << f.message << '\n';
      return f.status;
   }
}
