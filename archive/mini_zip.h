// Log archive and upload notice: zips one log directory into the upload area
// under the log root, removes the directory and tells the companion app.
#pragma once

#include <cstddef>
#include <string>

#define VORN_UPLOAD_PATH_MAX 2048  // upload directory and archive names
#define VORN_ZIP_READ_SIZE 16384   // bytes per read of a source file
#define VORN_STAMP_LEN 30          // buffer of log_time_stamp

// Result codes carried by the upload notice; any other non-zero value is the
// code returned by minizip's zipClose.
#define VORN_ZIP_OK 0
#define VORN_ZIP_OPEN_FAILED (-1)
#define VORN_ZIP_PREPARE_FAILED (-3)

// Thread routine of "vorn_zip": the argument is a heap copy of the 256-byte
// control message (type 8), owned and freed by the routine. Returns 0.
void *mini_zip(void *message);

// Creates the upload directory "<log_path>/upload/<logname>" and in it the
// empty archive "log_<stamp>.zip" for the source directory src, whose device
// path is written into name (len bytes). Returns 0 or -1.
int prepare_upload_archive(char *name, size_t len, const char *logname, const char *src);

// A request may only pack a directory strictly inside the current log path
// (after symbolic links and ".." are resolved) under a log kind that is one
// plain name. True with the resolved device path of the source in *source;
// false, logged, otherwise.
bool archive_request_allowed(const char *logname, const char *src, std::string *source);

// Writes the local time as "%Y_%m_%d-%H_%M_%S" into buf (VORN_STAMP_LEN bytes).
void log_time_stamp(char *buf);
