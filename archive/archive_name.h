// How an archive request names its archive. Shared with vornctl, which
// predicts the name to wait for it.
#pragma once

#include <cstddef>
#include <string>

#define VORN_DESC_PREFIX "description_"
#define VORN_DESC_STAMP_MAX 19  // characters of a stamp taken from a description file

// The stamp a source entry named name gives the archive: the text after
// "description_" (at most 19 characters) when the name holds it and is not
// hidden. Returns true and fills stamp (VORN_DESC_STAMP_MAX + 1 bytes) then.
bool archive_entry_stamp(const char *name, char *stamp);

// The stamp of the source directory at a device path: that of its first
// entry that gives one (*from_description set), else the local time.
std::string archive_dir_stamp(const char *src, bool *from_description);

// "<log_path>/upload/<logname>": the upload directory of a log kind.
std::string archive_upload_dir(const char *log_path, const char *logname);

// "<upload_dir>/log_<stamp>.zip".
std::string archive_file_name(const std::string &upload_dir, const char *stamp);
