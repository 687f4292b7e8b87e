// The FDM module's layer source and sink (see translate/format_io.h).
//
// The source reads an FDM slice file into layers of part contours in inches
// (ModelHeader::unit_mm is 25.4), with the thickness of each Z line. A
// closed contour (ended by C) gets its first point again at its end and the
// direction 1, an open one (O) the direction 2. A Z line without contours
// is a layer only with SourceOptions::keep_empty_layers.
//
// The sink writes the part contours in inches and leaves everything else
// out with one warning at the end. A contour is split at its gap marks.
// From the second layer on, a layer's thickness (or without one, its
// distance to the layer below) must be the standard 0.005: it is then
// written as ".005", otherwise as it is, with one warning for the run.
#pragma once

#include <memory>

#include "formats/fdm/fdm_io.h"
#include "formats/layer_helper.h"
#include "formats/left_out.h"
#include "translate/format_io.h"

namespace laytran {

class FdmSource final : public LayerSource {
  public:
    FdmSource(ByteInput &in, const SourceOptions &options, Reporter *reporter = nullptr);
    bool next_layer(Layer &layer) override;
    const ModelHeader &header() const override { return header_; }
    const StreamError &error() const override { return error_; }
    const LayerPlaces *places() const override { return check_ ? &places_ : nullptr; }

  private:
    FdmReader::Item next();

    FdmReader reader_;
    ModelHeader header_;
    StreamError error_;
    std::vector<Point> points_; // the contour being read
    bool closed_ = false;
    bool keep_empty_;
    bool started_ = false;
    bool pending_ = false; // a Z line was read whose layer is still to be given
    bool done_ = false;
    // Check mode: where the last item read began (before the blanks in
    // front of it), and the places of the layer being given.
    ByteInput &in_;
    bool check_ = false;
    std::uint64_t item_at_ = 0, layer_at_ = 0;
    LayerPlaces places_;
};

class FdmSink final : public LayerSink {
  public:
    FdmSink(ByteOutput &out, Reporter &reporter) : writer_(out), out_(out), reporter_(reporter) {}
    bool begin(const OutputPlan &) override { return true; }
    bool write_layer(const Layer &layer) override;
    bool finish() override;
    const StreamError &error() const override { return writer_.error(); }
    std::uint64_t gaps() const override { return gaps_; }
    void report_run_end(Reporter &reporter) override;

  private:
    bool write_contour(FdmWriter &writer, const Contour &c);
    bool share(const Layer &layer);

    FdmWriter writer_;
    ByteOutput &out_;
    Reporter &reporter_;
    // The second thread of large layers and what it formats into.
    LayerHelper<FdmWriter> helper_;
    LeftOut left_out_;
    std::uint64_t gaps_ = 0;
    std::uint64_t layers_ = 0;
    double previous_z_ = 0;
    bool warned_ = false;
    bool failed_ = false; // a layer failed (finish may fail on its own)
};

} // namespace laytran
