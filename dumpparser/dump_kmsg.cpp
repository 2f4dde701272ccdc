// Extraction of the kernel's message ring from one memory image.
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "dumpparser/dp_log.h"
#include "dumpparser/dump_io.h"
#include "dumpparser/dump_records.h"
#include "dumpparser/dumpparser.h"
#include "platform/root.h"

namespace {

constexpr size_t kChunk = 4096;
constexpr size_t kHeader = sizeof(dp_printk_header);
// Anything longer is not a printk record: the walk has run into garbage.
constexpr uint32_t kMaxText = 992;
constexpr int64_t kMaxBody = 4096;

// Reads the image through one 4096-byte window: the walk costs one read per
// window rather than two per record, and a rewind to a buffer start still in
// the window costs none.
class window_reader {
  public:
    explicit window_reader(int fd) : fd_(fd) {}

    // Copies len bytes at pos into out; returns the count copied, short at the
    // end of the file, -1 when pos cannot be sought.
    ssize_t read(uint64_t pos, void *out, size_t len) {
        size_t got = 0;
        while (got < len) {
            uint64_t p = pos + got;
            if (p < pos)
                return static_cast<ssize_t>(got);
            if (p >= start_ && p - start_ < len_) {
                size_t n = static_cast<size_t>(len_ - (p - start_));
                if (n > len - got)
                    n = len - got;
                memcpy(static_cast<uint8_t *>(out) + got, buf_ + (p - start_), n);
                got += n;
                continue;
            }
            if (dp_seek(fd_, p) < 0)
                return -1;
            ssize_t n = read_full(fd_, buf_, sizeof(buf_));
            if (n <= 0)
                break;
            start_ = p;
            len_ = static_cast<size_t>(n);
        }
        return static_cast<ssize_t>(got);
    }

  private:
    int fd_;
    uint64_t start_ = 0;
    size_t len_ = 0;
    uint8_t buf_[kChunk];
};

// Collects the output and writes it in large pieces; a short write fails.
class kmsg_writer {
  public:
    explicit kmsg_writer(int fd) : fd_(fd) {}

    int put(const char *p, size_t n) {
        pending_.append(p, n);
        return pending_.size() >= 16 * kChunk ? flush() : 0;
    }

    int flush() {
        if (pending_.empty())
            return 0;
        size_t done = 0;
        if (write_all(fd_, pending_.data(), pending_.size(), &done) < 0) {
            DPLOGE("%s: Failed to write, wlen(%d) != len(%d): %s", DP, static_cast<int>(done),
                   static_cast<int>(pending_.size()), strerror(errno));
            return -1;
        }
        pending_.clear();
        return 0;
    }

  private:
    int fd_;
    std::string pending_;
};

void log_short_read(ssize_t got, size_t want) {
    DPLOGE("%s: Failed to read, rlen(%d) != len(%d): %s", DP, static_cast<int>(got),
           static_cast<int>(want), strerror(errno));
}

void log_seek(uint64_t off, const char *image) {
    DPLOGE("%s: Failed to seek %llu from %s: %s", DP, static_cast<unsigned long long>(off), image,
           strerror(errno));
}

// A text ring without record headers: copied as it is.
int copy_raw(int in, kmsg_writer &out, uint64_t off, uint32_t len, const char *image) {
    if (dp_seek(in, off) < 0) {
        log_seek(off, image);
        return -1;
    }
    char buf[kChunk];
    for (uint32_t left = len; left > 0;) {
        size_t want = left < kChunk ? left : kChunk;
        errno = 0;
        ssize_t got = read_full(in, buf, want);
        if (got != static_cast<ssize_t>(want)) {
            log_short_read(got, want);
            return -1;
        }
        if (out.put(buf, want) < 0)
            return -1;
        left -= static_cast<uint32_t>(want);
    }
    return 0;
}

// The printk ring: records from the oldest one on, following the wrap marker
// back to the buffer start, until len bytes of records have been consumed.
int walk_records(int in, kmsg_writer &out, uint64_t off, uint32_t len, uint64_t first_idx,
                 const char *image) {
    window_reader rd(in);
    uint64_t pos = off + first_idx;
    uint64_t consumed = 0;
    // Every pass from the buffer start reads the same records again. One
    // that reached a wrap marker without writing a line will never write
    // one, however large the length: stop there rather than spin.
    bool from_start = first_idx == 0;
    bool wrote = false;
    uint8_t body[kMaxBody];
    char text[kMaxText + 1];
    char line[sizeof(text) + 24];
    for (;;) {
        uint8_t h[kHeader];
        errno = 0;
        ssize_t got = pos < off ? -1 : rd.read(pos, h, sizeof(h));
        if (got < 0) {
            log_seek(pos, image);
            return -1;
        }
        if (got != static_cast<ssize_t>(sizeof(h))) {
            log_short_read(got, sizeof(h));
            return -1;
        }
        consumed += kHeader;
        uint16_t total = dp_le16(h + offsetof(dp_printk_header, len));
        uint16_t text_len = dp_le16(h + offsetof(dp_printk_header, text_len));
        if (total == 0) {
            DPLOGD("%s: Back to log buf start addr.", DP);
            if (from_start && !wrote)
                break;
            pos = off;
            from_start = true;
            wrote = false;
        } else {
            int64_t body_len = static_cast<int64_t>((total + 3u) & ~3u) - int64_t{kHeader};
            // A total below the header size is as implausible as an oversized one.
            if (text_len > kMaxText || body_len > kMaxBody || body_len < 0) {
                DPLOGI("%s: log line format is wrong, maybe end.", DP);
                break;
            }
            size_t n = static_cast<size_t>(body_len);
            got = rd.read(pos + kHeader, body, n);
            if (got != static_cast<ssize_t>(n)) {
                log_short_read(got, n);
                return -1;
            }
            consumed += n;
            pos += kHeader + n;
            if (text_len != 0) {
                // The text may claim more than the record holds; never read past it.
                size_t t = text_len < n ? text_len : n;
                memcpy(text, body, t);
                text[t] = '\0';
                uint64_t ts = dp_le64(h + offsetof(dp_printk_header, ts_nsec));
                int l = snprintf(line, sizeof(line), "%016llx: %s\n",
                                 static_cast<unsigned long long>(ts), text);
                if (out.put(line, static_cast<size_t>(l)) < 0)
                    return -1;
                wrote = true;
            }
        }
        if (consumed >= len)
            break;
    }
    return 0;
}

}  // namespace

int dumpparser_dump_kmsg(uint64_t off, uint32_t len, int64_t first_idx, const char *image,
                         const char *out) {
    unique_fd in(open(vorn_path(image).c_str(), O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        // Named after the first image whichever one holds the log.
        DPLOGE("%s: Failed to open DDRCS0: %s", DP, strerror(errno));
        return -1;
    }
    unique_fd fd(open(vorn_path(out).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.get() < 0) {
        DPLOGE("%s: Failed to create kmsg:%s", DP, strerror(errno));
        return -1;
    }
    kmsg_writer w(fd.get());
    int ret = first_idx == -1
                  ? copy_raw(in.get(), w, off, len, image)
                  : walk_records(in.get(), w, off, len, static_cast<uint64_t>(first_idx), image);
    // What was read before a failure still goes out.
    if (w.flush() < 0)
        ret = -1;
    return ret;
}
