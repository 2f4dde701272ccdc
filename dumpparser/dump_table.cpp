// Lookups in the memory dump table the boot loader leaves in DDR.
#include "dumpparser/dp_log.h"
#include "dumpparser/dump_io.h"
#include "dumpparser/dump_records.h"
#include "dumpparser/dumpparser.h"

namespace {

constexpr uint64_t kTableHeader = sizeof(dp_table_header);
constexpr uint64_t kV1Entry = sizeof(dp_table_entry_v1);
constexpr uint32_t kV1MaxId = 12;
constexpr uint64_t kV2Entry = sizeof(dp_table_entry_v2);
constexpr uint32_t kV2MaxId = 287;

}  // namespace

int dumpparser_table_find_v1(uint64_t table_off, uint32_t id, const char *file, uint64_t *start,
                             uint64_t *end) {
    for (uint64_t off = table_off + kTableHeader;; off += kV1Entry) {
        uint8_t e[kV1Entry];
        // A table running off the end of the image ends in a failed read.
        if (off < table_off || dumpparser_read_at(off, file, sizeof(e), e) < 0)
            return -1;
        uint32_t eid = dp_le32(e + offsetof(dp_table_entry_v1, id));
        uint64_t s = dp_le64(e + offsetof(dp_table_entry_v1, start));
        if (s == 0 || eid > kV1MaxId) {
            DPLOGE("%s: unable to find %d.\n", DP, static_cast<int>(id));
            return -1;
        }
        if (eid == id) {
            *start = s;
            *end = dp_le64(e + offsetof(dp_table_entry_v1, end));
            return 0;
        }
    }
}

int dumpparser_table_find_v2(uint64_t table_off, const char *file, uint32_t id, uint64_t *addr) {
    for (uint64_t off = table_off + kTableHeader;; off += kV2Entry) {
        uint8_t e[kV2Entry];
        if (off < table_off || dumpparser_read_at(off, file, sizeof(e), e) < 0)
            return -1;
        uint32_t eid = dp_le32(e + offsetof(dp_table_entry_v2, id));
        uint64_t a = dp_le64(e + offsetof(dp_table_entry_v2, addr));
        if (a == 0 || eid > kV2MaxId) {
            DPLOGD("%s: unable to find %d.\n", DP, static_cast<int>(id));
            return -1;
        }
        if (eid == id) {
            *addr = a;
            return 0;
        }
    }
}
