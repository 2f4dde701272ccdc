#include "sim/sim_device.h"

#define FUSE_USE_VERSION 312
#include <fuse.h>

SimDevice::~SimDevice() {
    for (fuse_pollhandle *ph : polls_)
        fuse_pollhandle_destroy(ph);
}

unsigned SimDevice::poll(SimOpen &open, fuse_pollhandle *ph) {
    std::lock_guard<std::mutex> lock(mu_);
    if (ph != nullptr) {
        // Pollers that time out and poll again leave their handles here; a
        // spurious wake-up of the old ones (they poll again) keeps it small.
        if (polls_.size() >= kMaxPolls)
            changed_locked();
        polls_.push_back(ph);
    }
    return events_locked(open);
}

void SimDevice::shut_down() {
    std::lock_guard<std::mutex> lock(mu_);
    down_ = true;
    changed_locked();
}

void SimDevice::changed_locked() {
    cv_.notify_all();
    for (fuse_pollhandle *ph : polls_) {
        fuse_notify_poll(ph);
        fuse_pollhandle_destroy(ph);
    }
    polls_.clear();
}

bool SimDevice::nap_locked(std::unique_lock<std::mutex> &lock, int ms) {
    if (down_ || interrupted())
        return false;
    cv_.wait_for(lock, std::chrono::milliseconds(ms));
    return !down_ && !interrupted();
}

thread_local bool sim_in_request = false;

bool SimDevice::interrupted() {
    // Only a file system thread serving a request can be interrupted.
    return sim_in_request && fuse_interrupted() != 0;
}
