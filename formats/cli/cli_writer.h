// The CLI writer: writes a CLI file to a ByteOutput in one of the five CLI
// output forms (ASCII; binary long, aligned, short, aligned short).
//
// The header goes out lazily, with the first element (or when asked for):
// its first $$LAYER carries the height most recently given to set_layer.
// Binary blocks of hatches are always of the short form. A value that does
// not fit its 16-bit field is refused before anything of its element is
// written (error `field`, see fault()), never wrapped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "formats/cli/cli_format.h"
#include "laytran/formats.h"
#include "laytran/model.h"
#include "support/byte_output.h"
#include "support/number_text.h"

namespace laytran {

struct CliWriteHeader {
    float units = 0.01f;       // $$UNITS, millimetres per unit; 0 writes 0.01
    std::uint32_t date = 0;    // $$DATE as ddmmyy; 0 writes today's date
    std::uint32_t layers = 0;  // $$LAYERS; 0 leaves it out
    std::string dimension;     // the parameters of $$DIMENSION as written; "" leaves it out
    std::vector<Label> labels; // $$LABEL entries
};

// Which value did not fit its 16-bit field.
enum class CliField : std::uint8_t { none, layer_height, id, direction, count, x, y };

struct CliFieldFault {
    CliField field = CliField::none;
    double value = 0.0; // as it would have been written
};

class CliWriter {
  public:
    // Writes to `out`, which must outlive the writer, in `form`, one of the
    // CLI forms (any other records `argument`).
    CliWriter(ByteOutput &out, OutputForm form);
    CliWriter(const CliWriter &) = delete;
    CliWriter &operator=(const CliWriter &) = delete;

    // The header to write; takes effect when the header goes out.
    void set_header(CliWriteHeader header) { header_ = std::move(header); }

    // Starts a layer at height z. Before the header is out the height is
    // only kept, for the header's first $$LAYER; after it, a height the same
    // as the current layer's (cli_same_height) writes nothing.
    bool set_layer(float z);
    // One polyline, or one block of hatches (count / 2 hatches of two points
    // each), of the current layer; the header goes out first.
    bool write_element(CliElementKind kind, std::uint32_t id, std::uint32_t direction,
                       const Point *points, std::size_t count);
    // Writes the header now, unless it is out already: with its first
    // $$LAYER, or without one (a geometry section that holds no layer).
    bool write_header(bool first_layer = true);
    // Ends the file: $$GEOMETRYEND unless the geometry went out binary,
    // then the last flush. Later calls do nothing more. True when no error
    // was recorded and every byte got through.
    bool finish();

    // For a writer whose ASCII elements go inside another writer's
    // geometry: its header counts as written, and nothing is written for it.
    void continue_geometry() { header_written_ = true; }

    // Records a write error when the output has failed; true otherwise.
    bool check_output() { return output_ok(); }

    bool header_written() const { return header_written_; }
    float layer_z() const { return layer_z_; }
    // The units the header says (0 given becomes 0.01).
    float units() const { return header_.units == 0.0f ? 0.01f : header_.units; }

    // The first error recorded, its errno (write errors) and the output
    // offset at which it was recorded; for `field`, the value in fault().
    CliError error() const { return error_; }
    int system_error() const { return system_error_; }
    std::uint64_t error_offset() const { return error_offset_; }
    const CliFieldFault &fault() const { return fault_; }

  private:
    bool fail(CliError code);
    bool output_ok();
    bool check_element(bool hatches, std::uint32_t id, std::uint32_t direction, const Point *points,
                       std::size_t count);
    void text(const char *s);
    void pad();
    void u16(std::uint32_t v, bool align);
    void u32(std::uint32_t v, bool align);
    void integer(std::uint32_t v, bool shorts);
    void real(float v, bool shorts, bool align);
    void ascii_real(float v);
    void layer_command(float z);
    void points(const Point *p, std::size_t count, bool shorts);

    ByteOutput &out_;
    CliWriteHeader header_;
    MarkedRealsFunction marked_reals_ = marked_reals_function(); // the points' texts
    bool ascii_;
    bool aligned_;
    bool short_;
    bool header_written_ = false;
    bool binary_ = false; // the geometry is going out binary (after the header)
    bool finished_ = false;
    float layer_z_ = 0.0f;
    CliError error_ = CliError::none;
    int system_error_ = 0;
    std::uint64_t error_offset_ = 0;
    CliFieldFault fault_;
};

} // namespace laytran
