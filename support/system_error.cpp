#include "support/system_error.h"

#include <cstdio>
#include <cstring>

namespace laytran {

std::string system_error_text(int code) {
    if (code >= 0) {
        if (const char *text = strerrordesc_np(code)) return text;
    }
    char unknown[64];
    std::snprintf(unknown, sizeof unknown, "unknown error code d=%d, x=%x", code,
                  static_cast<unsigned>(code));
    return unknown;
}

} // namespace laytran
