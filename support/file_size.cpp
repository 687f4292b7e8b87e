#include "support/file_size.h"

#include <sys/stat.h>

int file_measure(FILE *file, uint64_t *size, uint64_t *left) {
    if (!file || file == stdin) return 0;
    int fd = fileno(file);
    if (fd <= 0) return 0;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0) return 0;
    long offset = ftell(file);
    if (offset < 0 || static_cast<uint64_t>(offset) > static_cast<uint64_t>(st.st_size)) return 0;
    *size = static_cast<uint64_t>(st.st_size);
    *left = *size - static_cast<uint64_t>(offset);
    return 1;
}
