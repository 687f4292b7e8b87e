// How much memory a translation may give its model.
//
// A translation keeps the layers it read until it writes them, unless the
// model would not fit its budget: then it reads the input twice and holds
// one layer at a time (translate/translation.h). The budget is
// TranslateOptions::memory_budget when the caller sets one, else the
// environment variable LAYTRAN_MEMORY (bytes, with an optional K, M, G or T
// for the powers of 1024: "256M", "2G"), else half the physical memory.
#pragma once

#include <cstdint>
#include <optional>

namespace laytran {

// "4096", "64K", "256M", "2G", "1T" (letters in either case, a "B" or
// "iB" may follow them: "256MB", "2GiB") as bytes; nothing for any other text or a value beyond
// 64 bits.
std::optional<std::uint64_t> parse_memory_size(const char *text);

// Half the physical memory (1 GiB when the system does not tell).
std::uint64_t default_memory_budget();

} // namespace laytran
