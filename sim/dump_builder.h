// Writes DDR dump directories for vornsim ddr-dump and the dump parser's tests:
// sparse memory images with their load.cmm lines, OCIMEM.BIN with the table
// address, memory dump tables of both formats and printk rings.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace dumpgen {

// v in bytes little-endian bytes.
inline std::string le(uint64_t v, int bytes) {
    std::string b;
    for (int i = 0; i < bytes; i++)
        b.push_back(static_cast<char>(v >> (8 * i)));
    return b;
}

// Generating a dump never fails quietly: aborts with what and errno's text.
inline void check(bool ok, const std::string &what) {
    if (!ok) {
        perror(what.c_str());
        abort();
    }
}

inline void pwrite_file(const std::string &path, uint64_t off, const std::string &bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    check(fd >= 0 && pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(off)) ==
                         static_cast<ssize_t>(bytes.size()),
          path);
    close(fd);
}

// A file of size bytes that takes no disk space until written.
inline void sparse_file(const std::string &path, uint64_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    check(fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) == 0, path);
    close(fd);
}

// Where the tables and the log sit in a generated dump.
struct Layout {
    uint64_t table = 0x80001000;     // memory dump table (its address is in OCIMEM)
    uint64_t ap_table = 0x80002000;  // format 2: the application processor's table
    uint64_t log_rec = 0x80003000;   // format 2: data record of the log buffer
    uint64_t idx_rec = 0x80003100;   // format 2: data record of the first index
    uint64_t idx = 0x80004000;       // the first-index variable
    uint64_t log_buf = 0x80100000;
};

// A printk record: the 16-byte header, the text, padding to 4 bytes. total
// and text_len replace the computed fields when non-zero.
inline std::string record(uint64_t ts, const std::string &text, uint16_t total = 0,
                          uint16_t text_len = 0) {
    uint16_t size = static_cast<uint16_t>((16 + text.size() + 3) & ~size_t{3});
    std::string b = le(ts, 8) + le(total ? total : size, 2) +
                    le(text_len ? text_len : text.size(), 2) + le(0, 4) + text;
    b.resize(size, '\0');
    return b;
}

struct Rec {
    uint64_t ts;
    std::string text;
};

// A printk ring of size bytes whose oldest record is at first. A record that
// does not fit before the end leaves a wrap marker (a header of zeros) and
// goes to the start. len is what a walk consumes to visit every record once.
struct Ring {
    std::string bytes;
    uint32_t first_idx = 0;
    uint32_t len = 0;
};

// Bytes taken as they are, walked (or copied) from the start to their end.
inline Ring flat_ring(std::string bytes) {
    uint32_t len = static_cast<uint32_t>(bytes.size());
    return Ring{std::move(bytes), 0, len};
}

inline Ring make_ring(const std::vector<Rec> &recs, uint32_t size, uint32_t first) {
    Ring r;
    r.bytes.assign(size, '\0');
    r.first_idx = first;
    size_t pos = first;
    bool wrapped = false;
    for (const Rec &rec : recs) {
        std::string b = record(rec.ts, rec.text);
        // Like the kernel, always leave room for a marker behind a record.
        if (!wrapped && pos + b.size() + 16 > size) {
            r.len += 16;  // the zeros already there are the marker
            pos = 0;
            wrapped = true;
        }
        check(pos + b.size() + 16 <= (wrapped ? first : size), "ring too small");
        r.bytes.replace(pos, b.size(), b);
        pos += b.size();
        r.len += static_cast<uint32_t>(b.size());
    }
    return r;
}

// The kmsg.txt lines the parser writes for recs.
inline std::string kmsg_text(const std::vector<Rec> &recs) {
    std::string out;
    char ts[24];
    for (const Rec &r : recs) {
        snprintf(ts, sizeof(ts), "%016llx: ", static_cast<unsigned long long>(r.ts));
        out += ts + r.text + "\n";
    }
    return out;
}

inline std::string table_v1(const std::vector<std::vector<uint64_t>> &entries) {
    std::string b(8, '\0');
    for (const auto &e : entries)  // {id, start, end}
        b += le(e[0], 4) + le(0, 4) + le(e[1], 8) + le(e[2], 8);
    return b + std::string(24, '\0');
}

inline std::string table_v2(const std::vector<std::vector<uint64_t>> &entries) {
    std::string b(8, '\0');
    for (const auto &e : entries)  // {id, address}
        b += le(e[0], 4) + std::string(36, 'n') + le(e[1], 8);
    return b + std::string(48, '\0');
}

inline std::string data_record(uint64_t addr, uint64_t len) {
    return std::string(40, 'r') + le(addr, 8) + le(len, 8) + std::string(8, '\0');
}

class DumpDir {
  public:
    explicit DumpDir(std::string dir) : dir_(std::move(dir)) {
        std::filesystem::create_directories(dir_);
    }

    std::string path(const std::string &name) const { return dir_ + "/" + name; }

    // DDRCS<n>.BIN, n counting from 0, and its load.cmm line.
    void image(uint64_t base, uint64_t size) {
        char name[32];
        snprintf(name, sizeof(name), "DDRCS%zu.BIN", images_.size());
        sparse_file(path(name), size);
        images_.push_back({base, size});
        char line[128];
        snprintf(line, sizeof(line), "d.load.binary %s 0x%llx /noclear\n", name,
                 static_cast<unsigned long long>(base));
        cmm_ += line;
    }

    // OCIMEM.BIN with the table address where a kernel of that version reads it.
    void ocimem(int version, uint32_t table_addr) {
        sparse_file(path("OCIMEM.BIN"), 0x40000);
        pwrite_file(path("OCIMEM.BIN"), version == 304 ? 20500 : 16, le(table_addr, 4));
    }

    // Writes bytes at a physical address of one of the images.
    void write(uint64_t addr, const std::string &bytes) {
        for (size_t i = 0; i < images_.size(); i++) {
            if (addr >= images_[i].base && addr - images_[i].base < images_[i].size) {
                pwrite_file(path("DDRCS" + std::to_string(i) + ".BIN"), addr - images_[i].base,
                            bytes);
                return;
            }
        }
        check(false, "address in no image");
    }

    // Replaces the generated load.cmm lines.
    void set_load_cmm(std::string text) { cmm_ = std::move(text); }

    // Writes load.cmm; call last.
    void finish() const {
        sparse_file(path("load.cmm"), 0);
        pwrite_file(path("load.cmm"), 0, cmm_);
    }

  private:
    struct Image {
        uint64_t base, size;
    };
    std::string dir_;
    std::vector<Image> images_;
    std::string cmm_;
};

// The tables of a kernel of that version (304: format 1) pointing at a log
// buffer holding ring. Without a first index, format 2 leaves id 273 out and
// the buffer is raw text. The images must already be there.
inline void write_tables(DumpDir &d, int version, const Layout &l, const Ring &ring,
                         bool first_idx = true) {
    d.ocimem(version, static_cast<uint32_t>(l.table));
    if (version == 304) {
        d.write(l.table, table_v1({{11, l.log_buf, l.log_buf + ring.len}, {12, l.idx, l.idx + 4}}));
    } else {
        d.write(l.table, table_v2({{0, l.ap_table}}));
        std::vector<std::vector<uint64_t>> ap = {{272, l.log_rec}};
        if (first_idx)
            ap.push_back({273, l.idx_rec});
        d.write(l.ap_table, table_v2(ap));
        d.write(l.log_rec, data_record(l.log_buf, ring.len));
        d.write(l.idx_rec, data_record(l.idx, 4));
    }
    d.write(l.idx, le(ring.first_idx, 4));
    d.write(l.log_buf, ring.bytes);
}

// One image of image_size bytes at 0x80000000 with everything in it.
inline void simple_dump(DumpDir &d, int version, const Ring &ring, bool first_idx = true,
                        uint64_t image_size = 64 << 20) {
    Layout l;
    d.image(0x80000000, image_size);
    write_tables(d, version, l, ring, first_idx);
    d.finish();
}

}  // namespace dumpgen
