// Placeholder until the dispatcher is built: queued commands stay queued.
#include <unistd.h>

#include "core/daemon/dispatcher.h"
#include "platform/log.h"

void *vornd_dispatch(void *) {
    VLOGD("Dispatch thread starts to run");
    for (;;)
        pause();
    return nullptr;
}
