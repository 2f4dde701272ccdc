// Fuzzes the dump parser over a dump directory built from the input:
//   byte 0      bit 0: format 1 (3.4 kernel) instead of 2; bit 1: two images;
//               bit 2: load.cmm comes from the input instead of the bases
//   bytes 1-4   table address stored in OCIMEM.BIN
//   bytes 5-20  bases of DDRCS0.BIN and DDRCS1.BIN
//   then        with bit 2, a 16-bit length and that much load.cmm text;
//               the rest is the content of the images (split in half for two)
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "dumpparser/dumpparser.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

std::string g_dir;

void write(const std::string &name, const void *data, size_t size) {
    FILE *f = fopen((g_dir + "/" + name).c_str(), "w");
    if (f == nullptr)
        abort();
    fwrite(data, 1, size, f);
    fclose(f);
}

uint64_t le(const uint8_t *p, int n) {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; i--)
        v = v << 8 | p[i];
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_dir = fuzz_temp_dir("dumpdir");
    fuzz_quiet();
    // A corrupt length can make the walk repeat records for gigabytes of
    // output; the parser fails with a short write once the limit is hit.
    struct rlimit lim = {16 << 20, 16 << 20};
    setrlimit(RLIMIT_FSIZE, &lim);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 21)
        return 0;
    // Set here: libFuzzer installs its own handler after the initialisation.
    signal(SIGXFSZ, SIG_IGN);
    std::filesystem::create_directories(g_dir);
    int version = data[0] & 1 ? 304 : 310;
    int images = data[0] & 2 ? 2 : 1;

    uint8_t ocimem[20504] = {};
    memcpy(ocimem + (version == 304 ? 20500 : 16), data + 1, 4);
    write("OCIMEM.BIN", ocimem, sizeof(ocimem));

    const uint8_t *p = data + 21;
    size_t left = size - 21;
    std::string cmm;
    if (data[0] & 4) {
        size_t n = 0;
        if (left >= 2) {
            n = std::min<size_t>(le(p, 2), left - 2);
            p += 2;
            left -= 2;
        }
        cmm.assign(reinterpret_cast<const char *>(p), n);
        p += n;
        left -= n;
    } else {
        char line[96];
        for (int i = 0; i < images; i++) {
            snprintf(line, sizeof(line), "d.load.binary DDRCS%d.BIN 0x%llx /noclear\n", i,
                     static_cast<unsigned long long>(le(data + 5 + 8 * i, 8)));
            cmm += line;
        }
    }
    write("load.cmm", cmm.data(), cmm.size());
    size_t first = images == 2 ? left / 2 : left;
    write("DDRCS0.BIN", p, first);
    if (images == 2)
        write("DDRCS1.BIN", p + first, left - first);

    char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
    int status = dumpparser_extract(g_dir.c_str(), version, reason);
    if ((status != 0 && status != -1) || strnlen(reason, sizeof(reason)) == sizeof(reason))
        abort();
    // libFuzzer leaves without exit handlers: never keep a dump behind.
    std::filesystem::remove_all(g_dir);
    return 0;
}
