// The dispatch thread "vornd_dispatch": applies queued node changes.
#pragma once

// Thread routine; never returns.
void *vornd_dispatch(void *unused);
