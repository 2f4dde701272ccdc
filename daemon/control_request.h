// One request of the control socket, apart from the socket itself: the
// connection code receives the bytes and sends what this leaves in the buffer.
#pragma once

#include "core/ctrl_msg.h"

// What the connection sends before it closes.
enum vorn_reply_kind {
    VORN_REPLY_NONE,  // nothing: close at once
    VORN_REPLY_MSG,   // the 256-byte reply (types 1 and 3); a failed send is logged
    VORN_REPLY_ACK,   // the acknowledgement of a queued change (type 2)
};

// Handles one request. msg holds the received bytes, zero past the len bytes
// received; on return it holds the reply when the result is not
// VORN_REPLY_NONE.
vorn_reply_kind vornd_handle_request(vorn_ctrl_msg *msg, int len);
