// The logd reader: liblog's logger list on Android; on a host a client of
// logd's reader protocol on "<root>/dev/socket/logdr" (SOCK_SEQPACKET: the
// client sends one text command naming the buffers, the server answers with
// one logger_entry record per read). Either way an entry arrives as a
// log_msg whose header is liblog's own (hdr_size == sizeof(logger_entry)),
// ready for android_log_processLogBuffer and friends.
#pragma once

#include <log/log_read.h>
#include <sys/types.h>

#include <cstddef>

#define VORN_LOGDR_SOCKET "/dev/socket/logdr"

struct vorn_logger_list;
struct vorn_logger;

// Same arguments as android_logger_list_alloc (mode 0 reads blocking).
vorn_logger_list *vorn_logger_list_alloc(int mode, unsigned int tail, pid_t pid);

// Adds a buffer to the list; null when the id is not a buffer.
vorn_logger *vorn_logger_open(vorn_logger_list *list, log_id_t id);

// Reads the next entry of any buffer of the list (blocking). Returns the
// entry's size (> 0), or 0 / a negative errno value, as liblog does: -EINTR
// when a signal interrupted the read.
int vorn_logger_list_read(vorn_logger_list *list, log_msg *msg);

// Closes the connection and frees the list and its buffers.
void vorn_logger_list_free(vorn_logger_list *list);

// Decodes one logdr record of n bytes into out, rewriting its header into
// liblog's own layout; the payload is followed by a zero byte. Returns the
// entry's size (hdr_size + len), or -1 when the record's header size or
// length does not match the record (nothing past rec + n is read).
int vorn_logdr_decode(const void *rec, size_t n, log_msg *out);
