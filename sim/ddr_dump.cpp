#include "sim/ddr_dump.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/io.h"
#include "sim/dump_builder.h"

namespace {

// /dev/kmsg escapes unprintable bytes as \xNN.
std::string unescape(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '\\' && i + 3 < s.size() + 0 && s[i + 1] == 'x' && isxdigit(s[i + 2]) &&
            isxdigit(s[i + 3])) {
            out.push_back(static_cast<char>(strtol(s.substr(i + 2, 2).c_str(), nullptr, 16)));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

}  // namespace

std::vector<KmsgRecord> parse_kmsg_lines(const std::string &text) {
    std::vector<KmsgRecord> out;
    std::istringstream in(text);
    std::string line;
    uint64_t made_up = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == ' ')
            continue;  // continuation lines carry dictionary fields
        size_t semi = line.find(';');
        unsigned prio = 0;
        unsigned long long seq = 0, usec = 0;
        if (semi != std::string::npos &&
            sscanf(line.c_str(), "%u,%llu,%llu", &prio, &seq, &usec) == 3) {
            out.push_back({usec * 1000, unescape(line.substr(semi + 1))});
        } else {
            made_up += 1000000;
            out.push_back({made_up, line});
        }
    }
    return out;
}

bool read_host_kmsg(std::vector<KmsgRecord> *out, std::string *err) {
    unique_fd fd(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        *err = std::string("/dev/kmsg: ") + strerror(errno);
        return false;
    }
    std::string text;
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd.get(), buf, sizeof buf);
        if (n > 0) {
            text.append(buf, static_cast<size_t>(n));
            if (text.back() != '\n')
                text.push_back('\n');
        } else if (n < 0 && errno == EPIPE) {
            continue;  // overwritten while we read: go on with the next record
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;  // EAGAIN: everything read
        }
    }
    *out = parse_kmsg_lines(text);
    return true;
}

bool write_ddr_dump(const std::string &dir, const std::vector<KmsgRecord> &recs, int version,
                    uint64_t image_size, std::string *err) {
    if (version < 304) {
        *err = "kernel release " + std::to_string(version / 100) + "." +
               std::to_string(version % 100) + " has no memory dump table";
        return false;
    }
    std::vector<dumpgen::Rec> rs;
    uint64_t total = 64;
    for (const KmsgRecord &r : recs) {
        // A record's lengths are 16-bit; the kernel caps a line far below.
        std::string text = r.text.substr(0, 1024);
        rs.push_back({r.ts_ns, text});
        total += (16 + text.size() + 3) & ~uint64_t{3};
    }
    dumpgen::Layout l;
    if (total > (l.log_buf - 0x80000000) + image_size || total > 0x7fffffff) {
        *err = "the log does not fit the image";
        return false;
    }
    if (image_size < (l.log_buf - 0x80000000) + total) {
        *err = "--image-size too small for the log";
        return false;
    }
    dumpgen::Ring ring = dumpgen::make_ring(rs, static_cast<uint32_t>(total), 0);
    dumpgen::DumpDir d(dir);
    dumpgen::simple_dump(d, version == 304 ? 304 : version, ring, true, image_size);
    return true;
}

int ddr_dump_main(const std::vector<std::string> &args) {
    if (args.empty())
        return 2;
    std::string out = args[0];
    uint64_t image_size = 64 << 20;
    std::string kmsg_file;
    bool from_dmesg = false;
    for (size_t i = 1; i < args.size(); i++) {
        if (args[i] == "--image-size" && i + 1 < args.size()) {
            char *end = nullptr;
            image_size = strtoull(args[++i].c_str(), &end, 0);
            if (*end != '\0' || image_size == 0) {
                fprintf(stderr, "vornsim: ddr-dump: bad --image-size %s\n", args[i].c_str());
                return 2;
            }
        } else if (args[i] == "--from-dmesg") {
            from_dmesg = true;
        } else if (args[i] == "--kmsg" && i + 1 < args.size()) {
            kmsg_file = args[++i];
        } else {
            fprintf(stderr, "vornsim: ddr-dump: unknown option %s\n", args[i].c_str());
            return 2;
        }
    }
    if (from_dmesg && !kmsg_file.empty()) {
        fprintf(stderr, "vornsim: ddr-dump takes --from-dmesg or --kmsg FILE, not both\n");
        return 2;
    }
    from_dmesg = kmsg_file.empty();  // the host's log unless a file is named
    std::vector<KmsgRecord> recs;
    std::string err;
    if (from_dmesg) {
        if (!read_host_kmsg(&recs, &err)) {
            fprintf(stderr, "vornsim: %s\n", err.c_str());
            return 1;
        }
    } else {
        std::ifstream in(kmsg_file);
        if (!in) {
            fprintf(stderr, "vornsim: cannot read %s\n", kmsg_file.c_str());
            return 1;
        }
        std::stringstream ss;
        ss << in.rdbuf();
        recs = parse_kmsg_lines(ss.str());
    }
    utsname u{};
    uname(&u);
    int major = 0, minor = 0;
    sscanf(u.release, "%d.%d", &major, &minor);
    if (!write_ddr_dump(out, recs, major * 100 + minor, image_size, &err)) {
        fprintf(stderr, "vornsim: %s\n", err.c_str());
        return 1;
    }
    printf("vornsim: DDR dump %s: %zu kernel messages, release %s\n", out.c_str(), recs.size(),
           u.release);
    return 0;
}
