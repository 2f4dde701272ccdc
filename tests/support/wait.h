// Waits on a condition instead of sleeping for a guessed time: every test
// folder uses this one helper.
#pragma once

#include <unistd.h>

// Checks pred every step_ms until it holds or timeout_ms has passed; returns
// its last value.
template <typename Pred>
bool wait_until(Pred pred, int timeout_ms, int step_ms = 20) {
    for (int waited = 0; waited < timeout_ms && !pred(); waited += step_ms)
        usleep(static_cast<useconds_t>(step_ms) * 1000);
    return pred();
}
