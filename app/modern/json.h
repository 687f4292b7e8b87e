// The small JSON text the modern surface writes: strings escaped (bytes
// that are not UTF-8 read as Latin-1), numbers finite and round-tripping.
#pragma once

#include <cstdint>
#include <string>

namespace laytran::modern {

std::string json_string(const std::string &text);
// The shortest text that reads back as v; "null" for a value that is not finite.
std::string json_number(double v);
std::string json_number(std::uint64_t v);

} // namespace laytran::modern
