#include "linux/EventLoop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <system_error>

namespace Tavrin::Linux {

namespace {

[[noreturn]] void throwErrno(const char* what) {
   throw std::system_error(errno, std::system_category(), what);
}

constexpr size_t kMaxEvents = 64;

}  // namespace

void UniqueFd::reset(int fd) {
   if (fd_ >= 0) ::close(fd_);
   fd_ = fd;
}

int epollTimeoutMs(Seconds now, Seconds next, int maxWaitMs) {
   if (!std::isfinite(next)) return maxWaitMs < 0 ? -1 : maxWaitMs;
   // The nanosecond of slack absorbs the error of subtracting two large
   // doubles, which would otherwise add a millisecond to exact waits.
   double ms = std::ceil((next - now) * 1000.0 - 1e-6);
   if (ms <= 0) return 0;
   int timerMs = ms >= double(INT_MAX) ? INT_MAX : int(ms);
   return maxWaitMs < 0 ? timerMs : std::min(timerMs, maxWaitMs);
}

EventLoop::EventLoop(Ptr<Rt::TaskScheduler> scheduler)
    : scheduler_(std::move(scheduler)), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
   if (!epoll_) throwErrno("epoll_create1");
   sigemptyset(&signalMask_);
   sigemptyset(&savedMask_);
}

EventLoop::~EventLoop() {
   if (!maskSaved_) return;
   // A signal that arrived but was never read would, once unblocked, take
   // its default action (for SIGTERM: kill the process) after we are gone.
   signalfd_siginfo info;
   while (signalFd_ && ::read(signalFd_.get(), &info, sizeof info) == ssize_t(sizeof info)) {
   }
   ::pthread_sigmask(SIG_SETMASK, &savedMask_, nullptr);
}

void EventLoop::fdIs(int fd, uint32_t epollEvents, FdHandler handler) {
   epoll_event ev{};
   ev.events = epollEvents;
   auto it = fds_.find(fd);
   uint32_t generation = it == fds_.end() ? nextGeneration_++ : it->second.generation;
   ev.data.u64 = (uint64_t(generation) << 32) | uint32_t(fd);
   if (::epoll_ctl(epoll_.get(), it == fds_.end() ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &ev) != 0) {
      throwErrno("epoll_ctl");
   }
   fds_[fd] = Watch{generation, std::make_shared<FdHandler>(std::move(handler))};
}

void EventLoop::fdDel(int fd) {
   auto it = fds_.find(fd);
   if (it == fds_.end()) return;
   // The fd may already be closed (the kernel then dropped it from the set
   // itself); either way it is gone from ours.
   ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
   fds_.erase(it);
}

void EventLoop::signalIs(int signo, std::function<void()> handler) {
   sigset_t one;
   sigemptyset(&one);
   sigaddset(&one, signo);
   sigset_t previous;
   if (::pthread_sigmask(SIG_BLOCK, &one, &previous) != 0) throwErrno("pthread_sigmask");
   if (!maskSaved_) {
      savedMask_ = previous;
      maskSaved_ = true;
   }
   sigaddset(&signalMask_, signo);
   int fd = ::signalfd(signalFd_ ? signalFd_.get() : -1, &signalMask_, SFD_NONBLOCK | SFD_CLOEXEC);
   if (fd < 0) throwErrno("signalfd");
   if (!signalFd_) {
      signalFd_.reset(fd);
      fdIs(fd, EPOLLIN, [this](uint32_t) { handleSignals(); });
   }
   signalHandlers_[signo] = std::move(handler);
}

void EventLoop::handleSignals() {
   signalfd_siginfo info;
   while (::read(signalFd_.get(), &info, sizeof info) == ssize_t(sizeof info)) {
      auto it = signalHandlers_.find(int(info.ssi_signo));
      if (it == signalHandlers_.end()) continue;
      auto handler = it->second;  // the handler may replace itself
      handler();
   }
}

void EventLoop::iterationEndIs(std::function<void()> hook) {
   iterationEnd_.push_back(std::move(hook));
}

void EventLoop::run() {
   stopped_ = false;
   while (!stopped_) runOnce(-1);
}

size_t EventLoop::runOnce(int maxWaitMs) {
   int timeout =
       epollTimeoutMs(scheduler_->clock().monotonic(), scheduler_->nextRunTime(), maxWaitMs);
   std::array<epoll_event, kMaxEvents> events;
   int n = ::epoll_wait(epoll_.get(), events.data(), int(events.size()), timeout);
   if (n < 0) {
      // A signal without a handler of ours (a debugger, SIGCONT) interrupts
      // the wait; the iteration simply finds nothing ready.
      if (errno != EINTR) throwErrno("epoll_wait");
      n = 0;
   }
   size_t handled = 0;
   for (int i = 0; i < n; ++i) {
      int fd = int(uint32_t(events[size_t(i)].data.u64));
      uint32_t generation = uint32_t(events[size_t(i)].data.u64 >> 32);
      auto it = fds_.find(fd);
      // Removed by an earlier handler of this iteration, or removed and a new
      // watch made on a reused fd number: the event is not for that one.
      if (it == fds_.end() || it->second.generation != generation) continue;
      auto handler = it->second.handler;  // kept alive across its own fdDel
      (*handler)(events[size_t(i)].events);
      ++handled;
   }
   handled += scheduler_->runDue();
   ++iterations_;
   for (size_t i = 0; i < iterationEnd_.size(); ++i) iterationEnd_[i]();
   return handled;
}

}  // namespace Tavrin::Linux
