#include "support/mm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct ShortageRegistry {
    MmShortageHandler *handlers;
    void **arguments;
    int count;
    int busy;
};

ShortageRegistry registry = {nullptr, nullptr, 0, 0};

char unknown_error_text[64];

} // namespace

void *mm_malloc(size_t size) {
    if (size == 0) return nullptr;
    for (;;) {
        void *block = malloc(size);
        if (block) {
            memset(block, 0, size);
            return block;
        }
        if (!mm_run_shortage_handlers()) break;
    }
    fputs("mm_malloc: no more memory available\n", stderr);
    return nullptr;
}

void *mm_realloc(void *pointer, size_t old_size, size_t new_size) {
    if (new_size == 0) {
        free(pointer);
        return nullptr;
    }
    for (;;) {
        void *block = pointer ? realloc(pointer, new_size) : malloc(new_size);
        if (block) {
            // A fresh block is zeroed whole, whatever old size the caller passed.
            size_t from = pointer ? old_size : 0;
            if (new_size > from) memset(static_cast<char *>(block) + from, 0, new_size - from);
            return block;
        }
        if (!mm_run_shortage_handlers()) break;
    }
    fputs("mm_realloc: no more memory available\n", stderr);
    return nullptr;
}

void mm_free(void *pointer, size_t, int) {
    free(pointer);
}

int mm_run_shortage_handlers() {
    if (registry.busy) return 0;
    registry.busy = 1;
    int total = 0;
    for (int i = 0; i < registry.count; i++) {
        if (registry.handlers[i]) total |= registry.handlers[i](registry.arguments[i]);
    }
    registry.busy = 0;
    return total;
}

int mm_add_shortage_handler(MmShortageHandler handler, void *argument) {
    if (registry.busy) return -1;
    registry.busy = 1;
    for (int i = 0; i < registry.count; i++) {
        if (!registry.handlers[i]) {
            registry.handlers[i] = handler;
            registry.arguments[i] = argument;
            registry.busy = 0;
            return i;
        }
    }
    size_t old_size = registry.count * sizeof(void *);
    size_t new_size = (registry.count + 1) * sizeof(void *);
    auto *handlers =
        static_cast<MmShortageHandler *>(mm_realloc(registry.handlers, old_size, new_size));
    if (handlers) registry.handlers = handlers;
    void **arguments =
        handlers ? static_cast<void **>(mm_realloc(registry.arguments, old_size, new_size))
                 : nullptr;
    if (!handlers || !arguments) {
        registry.busy = 0;
        return -1;
    }
    registry.arguments = arguments;
    registry.handlers[registry.count] = handler;
    registry.arguments[registry.count] = argument;
    registry.busy = 0;
    return registry.count++;
}

const char *sys_error_text(int code) {
    if (code >= 0) {
        const char *text = strerrordesc_np(code);
        if (text) return text;
    }
    snprintf(unknown_error_text, sizeof unknown_error_text, "unknown error code d=%d, x=%x", code,
             static_cast<unsigned>(code));
    return unknown_error_text;
}
