#include "daemon/ControlServer.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace Tavrin::Daemon {

namespace {

std::string errnoText(int err) {
   return std::strerror(err);
}

sockaddr_un unixAddress(const std::string& path) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof addr.sun_path) {
      throw ControlError("control socket path '" + path + "' is empty or longer than " +
                         std::to_string(sizeof addr.sun_path - 1) + " bytes");
   }
   std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   return addr;
}

// True when something accepts connections at path.
bool answers(const sockaddr_un& addr) {
   Linux::UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (!probe) return false;
   return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

// Makes room for the socket at path: a socket file nobody serves is removed;
// anything else stays and is an error.
void clearStaleSocket(const std::string& path, const sockaddr_un& addr) {
   struct stat st {};
   if (::lstat(path.c_str(), &st) != 0) {
      if (errno == ENOENT) return;
      throw ControlError("control socket " + path + ": " + errnoText(errno));
   }
   if (!S_ISSOCK(st.st_mode)) {
      throw ControlError("control socket " + path +
                         " exists and is not a socket; not replacing it");
   }
   if (answers(addr)) {
      throw ControlError("control socket " + path +
                         " is served by another process (is tavrind "
                         "already running?)");
   }
   if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      throw ControlError("cannot remove stale control socket " + path + ": " + errnoText(errno));
   }
}

void makeParentDir(const std::string& path) {
   auto dir = std::filesystem::path(path).parent_path();
   if (dir.empty()) return;
   std::error_code ec;
   if (std::filesystem::is_directory(dir, ec)) return;
   if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
      throw ControlError("cannot create the control socket's directory " + dir.string() + ": " +
                         errnoText(errno));
   }
}

}  // namespace

// ---------------------------------------------------------------- session

class ControlServer::Session : public Rt::TimerTask::Notifiee {
 public:
   Session(ControlServer& server, Linux::UniqueFd fd)
       : server_(server), fd_(std::move(fd)), idle_(server.loop_.scheduler(), 0, "controlIdle") {
      notifierIs(&idle_);
   }
   ~Session() override { notifierIs(nullptr); }

   int fd() const { return fd_.get(); }

   // Sets what the loop watches for and restarts the idle timer.
   void watch() {
      const int fd = fd_.get();
      ControlServer& server = server_;
      server_.loop_.fdIs(fd, outputPending() ? EPOLLOUT : EPOLLIN,
                         [&server, fd](uint32_t events) { server.handleSession(fd, events); });
      idle_.scheduleTaskDelay(kIdleTimeout);
   }

   // False when the session is over and may be deleted.
   bool handle(uint32_t events) {
      if (events & EPOLLERR) return false;
      if (!flush()) return false;
      if ((events & (EPOLLIN | EPOLLHUP)) && !closing_ && !outputPending()) readRequests();
      if (!flush()) return false;
      if (closing_ && !outputPending()) return false;
      watch();
      return true;
   }

   void onTaskRun() override { server_.sessionDel(fd_.get()); }

 private:
   // Reads what is there, a bounded amount, and answers every complete line.
   void readRequests() {
      char buf[4096];
      for (int round = 0; round < 16 && !closing_ && !outputPending(); ++round) {
         ssize_t n = ::read(fd_.get(), buf, sizeof buf);
         if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
               closing_ = true;
               out_.clear();
               outOff_ = 0;
            }
            return;
         }
         if (n == 0) {
            // The client is done sending; what it asked is still answered.
            closing_ = true;
            return;
         }
         in_.append(std::string_view(buf, size_t(n)));
         while (auto line = in_.nextLine()) {
            ++server_.requests_;
            out_ += server_.handler_(*line);
         }
         if (in_.overflowed()) {
            out_ += replyError("request longer than " + std::to_string(kMaxRequestBytes) +
                               " bytes; closing the connection");
            closing_ = true;
         }
      }
   }

   // Writes what it can; false on a broken connection.
   bool flush() {
      while (outputPending()) {
         ssize_t n = ::send(fd_.get(), out_.data() + outOff_, out_.size() - outOff_,
                            MSG_NOSIGNAL | MSG_DONTWAIT);
         if (n < 0) {
            if (errno == EINTR) continue;
            return errno == EAGAIN || errno == EWOULDBLOCK;
         }
         outOff_ += size_t(n);
      }
      out_.clear();
      outOff_ = 0;
      return true;
   }

   bool outputPending() const { return outOff_ < out_.size(); }

   ControlServer& server_;
   Linux::UniqueFd fd_;
   LineBuffer in_{kMaxRequestBytes};
   std::string out_;
   size_t outOff_ = 0;
   bool closing_ = false;
   Rt::TimerTask idle_;
};

// ---------------------------------------------------------------- server

ControlServer::ControlServer(Linux::EventLoop& loop, std::string path, Handler handler)
    : loop_(loop), path_(std::move(path)), handler_(std::move(handler)) {
   const sockaddr_un addr = unixAddress(path_);
   makeParentDir(path_);
   clearStaleSocket(path_, addr);
   listen_ = Linux::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (!listen_) throw ControlError("cannot create the control socket: " + errnoText(errno));
   if (::bind(listen_.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
      throw ControlError("cannot bind the control socket " + path_ + ": " + errnoText(errno));
   }
   // Set before listen, so that no connection is ever accepted under the
   // mode the umask happened to leave.
   struct stat st {};
   if (::chmod(path_.c_str(), kSocketMode) != 0 || ::stat(path_.c_str(), &st) != 0) {
      int err = errno;
      ::unlink(path_.c_str());
      throw ControlError("cannot set the mode of the control socket " + path_ + ": " +
                         errnoText(err));
   }
   dev_ = st.st_dev;
   ino_ = st.st_ino;
   if (::listen(listen_.get(), int(kMaxSessions)) != 0) {
      int err = errno;
      ::unlink(path_.c_str());
      throw ControlError("cannot listen on the control socket " + path_ + ": " + errnoText(err));
   }
   loop_.fdIs(listen_.get(), EPOLLIN, [this](uint32_t) { handleAccept(); });
}

ControlServer::~ControlServer() {
   for (const auto& [fd, session] : sessions_) loop_.fdDel(fd);
   sessions_.clear();
   loop_.fdDel(listen_.get());
   // A newer tavrind may have replaced the file already; leave its socket be.
   struct stat st {};
   if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) {
      ::unlink(path_.c_str());
   }
}

void ControlServer::handleAccept() {
   // A bounded batch; the level-triggered loop brings the rest next time.
   for (int i = 0; i < int(kMaxSessions); ++i) {
      Linux::UniqueFd fd(::accept4(listen_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!fd) return;  // EAGAIN, or a connection that died before we took it
      if (sessions_.size() >= kMaxSessions) {
         ++refused_;
         auto reply = replyError("too many control connections; try again");
         (void)!::send(fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
         continue;
      }
      const int n = fd.get();
      auto session = std::make_unique<Session>(*this, std::move(fd));
      session->watch();
      sessions_[n] = std::move(session);
   }
}

void ControlServer::handleSession(int fd, uint32_t events) {
   auto it = sessions_.find(fd);
   if (it == sessions_.end()) return;
   if (!it->second->handle(events)) sessionDel(fd);
}

void ControlServer::sessionDel(int fd) {
   auto it = sessions_.find(fd);
   if (it == sessions_.end()) return;
   loop_.fdDel(fd);
   sessions_.erase(it);
}

}  // namespace Tavrin::Daemon
