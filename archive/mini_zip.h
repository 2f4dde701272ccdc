// Log archive and upload notice.
#pragma once

// Thread routine of "vorn_zip": the argument is a heap copy of the 256-byte
// control message (type 8), owned and freed by the routine. Returns 0.
void *mini_zip(void *message);
