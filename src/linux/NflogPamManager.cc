#include "linux/NflogPamManager.h"

#include "rt/Clock.h"
#include "rt/Trace.h"

namespace Tavrin::Linux {

namespace {

Rt::TraceFacility& trapTrace() {
   static Rt::TraceFacility& f = Rt::traceFacility("TavrinNflog");
   return f;
}

// Frames left after a reader's slice are offered again this long after:
// the next loop iteration, once the other descriptors have had their turn.
constexpr Seconds kRemindDelay = 0.001;

void addSlices(LinuxPam::Slices& to, const LinuxPam::Slices& s) {
   to.count += s.count;
   to.over += s.over;
   to.overSeconds += s.overSeconds;
   to.seconds += s.seconds;
}

}  // namespace

// ---------------------------------------------------------------- LinuxPam

Ptr<Rt::Pkt> LinuxPam::rxPkt() {
   if (rx_.empty()) return nullptr;
   auto pkt = std::move(rx_.front());
   rx_.pop_front();
   return pkt;
}

size_t LinuxPam::deliver(std::vector<Ptr<Rt::Pkt>>&& frames) {
   size_t queued = 0;
   for (auto& f : frames) {
      if (rx_.size() >= kQueueMax) {
         ++drops_;
         continue;
      }
      rx_.push_back(std::move(f));
      ++queued;
   }
   if (queued) tellReader();
   return queued;
}

void LinuxPam::remind() {
   if (!rx_.empty()) tellReader();
}

void LinuxPam::tellReader() {
   // The reader drains its slice inside the notification, so the time it
   // takes is the slice's.
   Ptr<LinuxPam> self(this);  // the slice may close this Pam
   const Seconds start = Rt::clock().monotonic();
   readableCountInc();
   const Seconds took = Rt::clock().monotonic() - start;
   ++slices_.count;
   slices_.seconds += took;
   if (took > kSliceBound) {
      ++slices_.over;
      slices_.overSeconds += took - kSliceBound;
   }
}

// ---------------------------------------------------------------- manager

NflogPamManager::NflogPamManager(Ptr<const Platform::PamDesiredIntfDir> desired,
                                 Ptr<Platform::EthDevPamCollection> collection,
                                 Ptr<Rt::TaskScheduler> scheduler)
    : desired_(std::move(desired)),
      collection_(std::move(collection)),
      remind_(std::move(scheduler), 1, "trapped frames left"),
      remindReactor_(*this) {
   remindReactor_.notifierIs(&remind_);
}

NflogPamManager::~NflogPamManager() = default;

void NflogPamManager::enabledIs(bool enabled) {
   if (enabled_ == enabled) return;
   enabled_ = enabled;
   if (!enabled_) {
      reactor_.reset();
      remind_.cancel();
      // Copied: each removal tells the agent, which may look at the collection.
      const auto open = pams_;
      for (const auto& [intf, pam] : open) {
         pams_.erase(intf);
         keepSlices(*pam);
         collection_->intfPamDel(intf);
      }
      return;
   }
   reactor_ = std::make_unique<DesiredReactor>(*this, desired_);
   for (auto i : desired_->intfDesiredAll()) sync(i);
}

void NflogPamManager::sync(IntfId i) {
   if (desired_->intfDesired(i)) {
      if (pams_.count(i)) return;
      auto pam = Rt::makePtr<LinuxPam>(i);
      pams_[i] = pam;
      TAVRIN_TRACE(trapTrace(), 4, "packet access opened on " << i);
      collection_->intfPamIs(i, pam);
   } else if (auto it = pams_.find(i); it != pams_.end()) {
      keepSlices(*it->second);
      pams_.erase(it);
      TAVRIN_TRACE(trapTrace(), 4, "packet access closed on " << i);
      collection_->intfPamDel(i);
   }
}

void NflogPamManager::keepSlices(const LinuxPam& pam) {
   // A slice still running on a closing Pam is not counted; closing is rare
   // and the count is for the flood, not for the last slice of a port.
   addSlices(counters_.slices, pam.slices());
}

NflogPamManager::Counters NflogPamManager::counters() const {
   Counters c = counters_;
   for (const auto& [intf, pam] : pams_) addSlices(c.slices, pam->slices());
   return c;
}

void NflogPamManager::deliver(IntfId port, std::vector<Ptr<Rt::Pkt>> frames) {
   const size_t n = frames.size();
   auto it = pams_.find(port);
   if (it == pams_.end()) {
      // A port the data plane locks but the agent does not (yet, or any
      // more): the two are changed one after the other, never together.
      counters_.noPam += n;
      TAVRIN_TRACE(trapTrace(), 6, n << " frames trapped on " << port << " without packet access");
      return;
   }
   // Held: reading the frames runs the agent, which may close this Pam.
   const Ptr<LinuxPam> pam = it->second;
   const size_t queued = pam->deliver(std::move(frames));
   counters_.delivered += queued;
   if (queued < n) {
      counters_.queueFull += n - queued;
      TAVRIN_TRACE(trapTrace(), 1,
                   n - queued << " frames trapped on " << port << " dropped: its queue is full");
   }
   if (pam->queued() > 0) remind_.scheduleTaskLowestDelay(kRemindDelay);
}

void NflogPamManager::handleRemind() {
   // Copied: a reader's slice may open or close Pams.
   const auto open = pams_;
   bool left = false;
   for (const auto& [intf, pam] : open) {
      pam->remind();
      left = left || pam->queued() > 0;
   }
   if (left) remind_.scheduleTaskLowestDelay(kRemindDelay);
}

}  // namespace Tavrin::Linux
