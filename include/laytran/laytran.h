// laytran: reading, writing and translating layer ("slice") files.
//
// Include this header for the whole API:
//   model.h        the slice model and its queries (bounds, counts)
//   formats.h      the input formats and output forms
//   diagnostics.h  messages, and the sink that receives them
//   io.h           read_model, write_model, translate, version
//   detect.h       a file's format from its first bytes
//   summary.h      what a model holds (format, header, heights, bounds, counts)
//   version.h      the version the library was built as
#pragma once

#include "laytran/detect.h"
#include "laytran/diagnostics.h"
#include "laytran/formats.h"
#include "laytran/io.h"
#include "laytran/model.h"
#include "laytran/summary.h"
#include "laytran/version.h"
