#include "support/memory_budget.h"

#include <unistd.h>

namespace laytran {

std::optional<std::uint64_t> parse_memory_size(const char *text) {
    if (!text || *text < '0' || *text > '9') return std::nullopt;
    std::uint64_t v = 0;
    const char *p = text;
    for (; *p >= '0' && *p <= '9'; p++) {
        const unsigned digit = static_cast<unsigned>(*p - '0');
        if (v > (UINT64_MAX - digit) / 10) return std::nullopt;
        v = v * 10 + digit;
    }
    int shift = 0;
    switch (*p | 0x20) {
    case 'k':
        shift = 10;
        break;
    case 'm':
        shift = 20;
        break;
    case 'g':
        shift = 30;
        break;
    case 't':
        shift = 40;
        break;
    default:
        break;
    }
    if (shift != 0) {
        p++;
        if ((*p | 0x20) == 'i' && (p[1] | 0x20) == 'b') p++;
        if ((*p | 0x20) == 'b') p++;
        if (v > UINT64_MAX >> shift) return std::nullopt;
        v <<= shift;
    }
    if (*p != '\0') return std::nullopt;
    return v;
}

std::uint64_t default_memory_budget() {
    const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || page <= 0) return std::uint64_t(1) << 30;
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page) / 2;
}

} // namespace laytran
