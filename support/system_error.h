// The system's text for an error number, as the messages quote it.
#pragma once

#include <string>

namespace laytran {

// The text for errno value `code` ("No such file or directory"), or
// "unknown error code d=<code>, x=<hex>" for a number the system has no
// text for.
std::string system_error_text(int code);

} // namespace laytran
