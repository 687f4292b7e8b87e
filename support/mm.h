// Allocation wrappers and system error texts.
//
// Every block in laytran comes from these wrappers: they hand out zero-filled
// memory, print one line when the system has none left, and never abort; the
// caller decides what a null means.
#pragma once

#include <cstddef>

typedef int (*MmShortageHandler)(void *argument);

// A zero-filled block of size bytes, or null (size 0 gives null silently).
void *mm_malloc(size_t size);
// Resizes a block (null pointer: allocates). Bytes from old_size up to
// new_size are zero when the block grows. On failure the old block is left
// as it was. A new size of 0 releases the block and returns null.
void *mm_realloc(void *pointer, size_t old_size, size_t new_size);
// Releases a block from mm_malloc or mm_realloc; null is ignored.
void mm_free(void *pointer, size_t size, int reserved);

// Handlers run when the system allocator fails; a non-zero result means
// memory was released and the allocation is tried again.
int mm_add_shortage_handler(MmShortageHandler handler, void *argument);
int mm_run_shortage_handlers();

// The text for a system error number (as kept in errno).
const char *sys_error_text(int code);
