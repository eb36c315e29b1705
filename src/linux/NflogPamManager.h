// Packet access on Linux: the agent's per-interface Pams, fed with the frames
// the data plane traps to an NFLOG group (NflogReader).
//
// The manager keeps one LinuxPam in the agent's collection for every
// interface the agent desires, and hands each trapped frame to the Pam of
// the port it came in on. A Pam behaves like a level-triggered socket: the
// agent reads it in bounded slices, and a Pam that still holds frames after
// a slice is signalled again on the next loop iteration, so that no frame
// waits for the next trap to be read.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "platform/PacketAccess.h"
#include "rt/Pkt.h"
#include "rt/TaskScheduler.h"

namespace Tavrin::Linux {

using Rt::Ptr;

// Packet access on one interface: a bounded queue of trapped frames.
class LinuxPam final : public Platform::Pam {
 public:
   // A flood beyond this is dropped here rather than grow without bound
   // while the agent reads in slices; the data plane rate-limits traps, so
   // only a stalled agent reaches it.
   static constexpr size_t kQueueMax = 4096;

   // The reader bounds its slices to this; a slice that runs longer is
   // counted, so that how often it happens is known without a profiler.
   static constexpr Seconds kSliceBound = 0.005;

   // The reader's slices, as timed around each notification on the
   // monotonic clock (a wall-clock step must not make or hide an overrun).
   struct Slices {
      uint64_t count = 0;
      uint64_t over = 0;        // slices longer than kSliceBound
      Seconds overSeconds = 0;  // their time past the bound, summed
      Seconds seconds = 0;      // all slices' time, summed
   };

   using Platform::Pam::Pam;
   Ptr<Rt::Pkt> rxPkt() override;
   // Queues frames (dropping beyond kQueueMax) and tells the reader once.
   // Returns how many were queued.
   size_t deliver(std::vector<Ptr<Rt::Pkt>>&& frames);
   // Tells the reader again when frames are still queued.
   void remind();
   size_t queued() const { return rx_.size(); }
   uint64_t drops() const { return drops_; }
   const Slices& slices() const { return slices_; }

 private:
   void tellReader();

   std::deque<Ptr<Rt::Pkt>> rx_;
   uint64_t drops_ = 0;
   Slices slices_;
};

class NflogPamManager final : public Platform::EthDevPamManager {
 public:
   struct Counters {
      uint64_t delivered = 0;  // frames queued to a Pam
      uint64_t noPam = 0;      // frames of a port the agent has no Pam for
      uint64_t queueFull = 0;  // frames dropped at a full Pam
      // The readers' slices on every Pam, closed ones included.
      LinuxPam::Slices slices;
   };

   NflogPamManager(Ptr<const Platform::PamDesiredIntfDir> desired,
                   Ptr<Platform::EthDevPamCollection> collection, Ptr<Rt::TaskScheduler> scheduler);
   ~NflogPamManager() override;

   // The EtherType the agent's Pams are opened for. Trapped frames keep
   // their own: NFLOG delivers only what the data plane chose to trap.
   void ethProtocolIs(uint16_t protocol) override { protocol_ = protocol; }
   uint16_t ethProtocol() const { return protocol_; }
   // Opens a Pam for each desired interface and follows the desired set;
   // disabling closes them all.
   void enabledIs(bool enabled) override;
   bool enabled() const { return enabled_; }

   // Frames trapped on port, in arrival order, for its Pam.
   void deliver(IntfId port, std::vector<Ptr<Rt::Pkt>> frames);
   Counters counters() const;
   const Ptr<Platform::EthDevPamCollection>& collection() const { return collection_; }

 private:
   class DesiredReactor : public Platform::PamDesiredIntfDir::Notifiee {
    public:
      DesiredReactor(NflogPamManager& m, const Ptr<const Platform::PamDesiredIntfDir>& d)
          : Platform::PamDesiredIntfDir::Notifiee(d), m_(m) {}
      void onIntfDesired(IntfId i) override { m_.sync(i); }

    private:
      NflogPamManager& m_;
   };
   class RemindReactor : public Rt::TimerTask::Notifiee {
    public:
      explicit RemindReactor(NflogPamManager& m) : m_(m) {}
      void onTaskRun() override { m_.handleRemind(); }

    private:
      NflogPamManager& m_;
   };
   void sync(IntfId i);
   void handleRemind();
   void keepSlices(const LinuxPam& pam);

   Ptr<const Platform::PamDesiredIntfDir> desired_;
   Ptr<Platform::EthDevPamCollection> collection_;
   std::map<IntfId, Ptr<LinuxPam>> pams_;
   std::unique_ptr<DesiredReactor> reactor_;
   Rt::TimerTask remind_;
   RemindReactor remindReactor_;
   uint16_t protocol_ = 0;
   bool enabled_ = false;
   Counters counters_;  // slices: of the Pams closed so far
};

}  // namespace Tavrin::Linux
