// The agent thread's event loop: file descriptors (epoll), signals
// (signalfd) and the scheduler's timers, all handled on the one thread that
// runs the agent. An iteration waits until a descriptor is ready or the
// next timer is due, handles every ready descriptor, runs the due timers,
// and then calls the iteration-end hooks, so that everything one event
// changed is committed and published together.
#pragma once

#include <signal.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "rt/TaskScheduler.h"

namespace Tavrin::Linux {

using Rt::Ptr;

// Owns one file descriptor and closes it once.
class UniqueFd {
 public:
   UniqueFd() = default;
   explicit UniqueFd(int fd) : fd_(fd) {}
   UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
   UniqueFd& operator=(UniqueFd&& o) noexcept {
      if (this != &o) reset(o.release());
      return *this;
   }
   UniqueFd(const UniqueFd&) = delete;
   UniqueFd& operator=(const UniqueFd&) = delete;
   ~UniqueFd() { reset(); }

   int get() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }
   int release() {
      int fd = fd_;
      fd_ = -1;
      return fd;
   }
   void reset(int fd = -1);

 private:
   int fd_ = -1;
};

// The epoll wait, in milliseconds, for a timer due at monotonic time `next`
// when it is `now`, capped by `maxWaitMs` (negative: no cap). Rounds up, so
// that the loop never wakes just before a timer and spins until it is due;
// -1 (wait for ever) when neither a timer nor a cap bounds the wait.
int epollTimeoutMs(Seconds now, Seconds next, int maxWaitMs);

class EventLoop {
 public:
   using FdHandler = std::function<void(uint32_t epollEvents)>;

   explicit EventLoop(Ptr<Rt::TaskScheduler> scheduler);
   // Restores the signal mask that was in force before signalIs.
   ~EventLoop();
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;

   const Ptr<Rt::TaskScheduler>& scheduler() const { return scheduler_; }

   // Watches fd for epollEvents (EPOLLIN, EPOLLOUT; level-triggered) and
   // calls the handler with what is ready. A second call for the same fd
   // replaces its events and handler. The fd stays the caller's to close,
   // after fdDel. Throws std::system_error when the kernel refuses the fd.
   void fdIs(int fd, uint32_t epollEvents, FdHandler handler);
   // Stops watching fd. Safe from inside any handler, its own included: an
   // event already collected for that fd is then not delivered.
   void fdDel(int fd);
   size_t fds() const { return fds_.size(); }

   // Delivers signo through the loop instead of asynchronously: blocks it
   // and reads it from a signalfd. A second call replaces the handler.
   void signalIs(int signo, std::function<void()> handler);

   // Appends a hook run at the end of every iteration, in registration order.
   void iterationEndIs(std::function<void()> hook);

   // Runs iterations until stop().
   void run();
   // Ends run() after the current iteration. Called from a handler.
   void stop() { stopped_ = true; }
   bool stopped() const { return stopped_; }
   // One iteration, waiting at most maxWaitMs (0: poll, negative: until an
   // fd is ready or a timer is due). Returns the number of fd events handled
   // plus the number of timer runs.
   size_t runOnce(int maxWaitMs);

   uint64_t iterations() const { return iterations_; }

 private:
   struct Watch {
      uint32_t generation;
      std::shared_ptr<FdHandler> handler;
   };
   void handleSignals();

   Ptr<Rt::TaskScheduler> scheduler_;
   UniqueFd epoll_;
   std::map<int, Watch> fds_;
   uint32_t nextGeneration_ = 1;
   UniqueFd signalFd_;
   sigset_t signalMask_;
   sigset_t savedMask_;
   bool maskSaved_ = false;
   std::map<int, std::function<void()>> signalHandlers_;
   std::vector<std::function<void()>> iterationEnd_;
   bool stopped_ = false;
   uint64_t iterations_ = 0;
};

}  // namespace Tavrin::Linux
