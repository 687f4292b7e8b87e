// The SLC module's layer source and sink (see translate/format_io.h).
//
// The source reads an SLC file into layers: every boundary is a contour of
// the header's TYPE (part contours when it names none, or names no contour
// type), with its gap count as the file gives it; levels and coordinates
// stay in the file's unit (ModelHeader::unit_mm is 25.4 for UNIT INCH, 1
// otherwise); layers carry no thickness. A layer record without boundaries
// is a layer only with SourceOptions::keep_empty_layers.
//
// The sink writes one contour kind: part contours, or in a model of
// support (or web) contours alone those, under their TYPE. Everything else
// is left out with one warning at the end. It needs at least two layers for
// the sampling table, writes UNIT INCH when the output unit is the inch
// (MM otherwise), and keeps every layer's record, also one whose contours
// were all left out. Gap marks stay in the boundaries.
#pragma once

#include <memory>
#include <optional>

#include "formats/left_out.h"
#include "formats/slc/slc_io.h"
#include "translate/format_io.h"

namespace laytran {

class SlcSource final : public LayerSource {
  public:
    SlcSource(ByteInput &in, const SourceOptions &options, Reporter *reporter = nullptr);
    bool next_layer(Layer &layer) override;
    const ModelHeader &header() const override { return header_; }
    const StreamError &error() const override { return error_; }
    const PointExtremes *extremes() const override { return extremes_.data(); }
    const LayerPlaces *places() const override { return check_ ? &places_ : nullptr; }
    // The SLC header as read (extents, tolerances, the sampling table).
    const SlcReader &reader() const { return reader_; }

  private:
    bool stop();
    void take_header();

    ByteInput &in_;
    SlcReader reader_;
    ModelHeader header_;
    StreamError error_;
    std::vector<PointExtremes> extremes_; // of the contours handed out last
    ContourKind kind_ = ContourKind::part;
    bool keep_empty_;
    bool started_ = false;
    bool done_ = false;
    bool check_ = false;
    LayerPlaces places_; // check mode
};

class SlcSink final : public LayerSink {
  public:
    explicit SlcSink(ByteOutput &out) : out_(out) {}
    bool begin(const OutputPlan &plan) override;
    bool write_layer(const Layer &layer) override;
    bool finish() override;
    const StreamError &error() const override { return error_; }
    std::uint64_t gaps() const override { return gaps_; }
    void report_run_end(Reporter &reporter) override;

  private:
    bool fail();
    bool refuse();

    ByteOutput &out_;
    std::optional<SlcWriter> writer_;
    StreamError error_;
    ContourKind kind_ = ContourKind::part;
    LeftOut left_out_;
    std::uint64_t gaps_ = 0;
    bool failed_ = false; // begin or a layer failed (finish may fail on its own)
};

} // namespace laytran
