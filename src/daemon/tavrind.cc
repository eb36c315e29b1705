// tavrind: the agent hosted on Linux. See Daemon.h for what it assembles.
//
//   tavrind [--config FILE] [--foreground] [--trace LEVELS]
//                                            run (detached unless --foreground)
//   tavrind --check-config FILE              check a file and exit
//
// Detaching keeps start-up errors visible: the parent waits until the child
// serves (or fails) and exits with the child's verdict, so an init script
// or a shell sees the same status and message as a foreground run.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <sstream>

#include "daemon/Daemon.h"
#include "daemon/Log.h"
#include "rt/Trace.h"

using namespace Tavrin;
using namespace Tavrin::Daemon;

namespace {

constexpr const char* kDefaultConfig = "/etc/tavrin/tavrin.yaml";

int checkConfig(const std::string& path) {
   auto loaded = Linux::loadConfig(path);
   if (auto* err = std::get_if<Linux::ConfigError>(&loaded)) {
      std::cerr << "tavrind: " << err->str() << '\n';
      return kExitConfig;
   }
   auto dataPlane =
       Linux::Nft::dataPlaneSettings(std::get<Linux::DaemonConfig>(loaded).dataPlane, path);
   if (auto* err = std::get_if<Linux::ConfigError>(&dataPlane)) {
      std::cerr << "tavrind: " << err->str() << '\n';
      return kExitConfig;
   }
   std::cout << path << ": configuration is valid\n";
   return kExitOk;
}

// "all", or levels and ranges of levels: "0-4", "0,1,5". Levels 0 and 1
// (errors, dropped input) are on without it.
std::optional<uint16_t> parseTraceLevels(const std::string& text) {
   if (text == "all") return Rt::kAllTraceLevels;
   uint16_t mask = 0;
   std::stringstream in(text);
   std::string item;
   while (std::getline(in, item, ',')) {
      int lo = -1, hi = -1;
      char dash = 0, extra = 0;
      int n = std::sscanf(item.c_str(), "%d%c%d%c", &lo, &dash, &hi, &extra);
      if (n == 1) hi = lo;
      else if (n != 3 || dash != '-') return std::nullopt;
      if (lo < 0 || hi > 9 || lo > hi) return std::nullopt;
      for (int l = lo; l <= hi; ++l) mask = uint16_t(mask | (1u << l));
   }
   if (mask == 0) return std::nullopt;
   return mask;
}

int serve(const std::string& configPath, bool traceToStderr,
          const std::function<void()>& ready) {
   try {
      Tavrin::Daemon::Daemon daemon(configPath, traceToStderr);
      ready();
      return daemon.run();
   } catch (const StartError& e) {
      logError(e.what());
      return e.exitStatus();
   } catch (const std::exception& e) {
      // Anything else is a fault of ours; still a message, never a core.
      logError(std::string("stopped by an unexpected error: ") + e.what());
      return kExitFailure;
   }
}

// Forks; the parent returns the child's start-up verdict. The child detaches
// and reports through the pipe once it serves.
int detachAndServe(const std::string& configPath) {
   int pipeFds[2];
   if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
      logError(std::string("pipe: ") + std::strerror(errno));
      return kExitFailure;
   }
   pid_t child = ::fork();
   if (child < 0) {
      logError(std::string("fork: ") + std::strerror(errno));
      return kExitFailure;
   }
   if (child > 0) {
      ::close(pipeFds[1]);
      char byte = 0;
      ssize_t n;
      do {
         n = ::read(pipeFds[0], &byte, 1);
      } while (n < 0 && errno == EINTR);
      ::close(pipeFds[0]);
      if (n == 1) return kExitOk;
      // The child ended before serving; its message is already out.
      int status = 0;
      while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
      }
      return WIFEXITED(status) ? WEXITSTATUS(status) : kExitFailure;
   }
   ::close(pipeFds[0]);
   ::setsid();
   if (::chdir("/") != 0) {
      // Nothing depends on the working directory; it only must not pin a mount.
   }
   ::umask(027);
   const int readyFd = pipeFds[1];
   return serve(configPath, false, [readyFd] {
      // Standard streams stay until here, so start-up errors reach the caller.
      logToSyslogIs(true);
      int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
      if (null >= 0) {
         ::dup2(null, STDIN_FILENO);
         ::dup2(null, STDOUT_FILENO);
         ::dup2(null, STDERR_FILENO);
         ::close(null);
      }
      char ok = 1;
      (void)!::write(readyFd, &ok, 1);
      ::close(readyFd);
   });
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{"tavrind: locks switch ports to the DHCP leases of their clients"};
   std::string config = kDefaultConfig;
   std::string check;
   bool foreground = false;
   std::string trace;
   app.add_option("--config", config, "Configuration file")->capture_default_str();
   app.add_flag("--foreground", foreground,
                "Stay in the foreground; log and trace to standard error");
   app.add_option("--trace", trace,
                  "Trace levels to record: \"all\", or levels and ranges such as 0-4 or 0,1,5 "
                  "(default 0,1: errors and dropped input)");
   auto* checkOpt =
       app.add_option("--check-config", check, "Check FILE and exit (0: valid, 2: not)");
   checkOpt->excludes("--foreground");
   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError& e) {
      int status = app.exit(e);
      return status == 0 ? kExitOk : kExitConfig;
   }
   if (*checkOpt) return checkConfig(check);
   if (!trace.empty()) {
      auto mask = parseTraceLevels(trace);
      if (!mask) {
         std::cerr << "tavrind: --trace " << trace
                   << ": expected \"all\" or levels 0-9 such as 0-4 or 0,1,5\n";
         return kExitConfig;
      }
      Rt::traceMaskAllIs(*mask);
   }
   if (foreground) return serve(config, true, [] {});
   return detachAndServe(config);
}
