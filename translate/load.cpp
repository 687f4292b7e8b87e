// Loaders: pull contours from the input stream into the slice model.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "formats/cli/cli.h"
#include "formats/fdm/fdm.h"
#include "formats/slc/slc.h"
#include "job/job.h"
#include "job/job_settings.h"
#include "translate/translate.h"

namespace {

// The layer new contours go into: the last one, or a new one at level z
// when the input delivers a contour before its first layer command.
SliceLayer *current_layer(SliceStack *stack, float z) {
    if (stack->count > 0) return &stack->layers[stack->count - 1];
    SliceLayer *layer = stack_add_layer(stack);
    if (layer) layer->z = z;
    return layer;
}

} // namespace

int contour_from_cli(const CliElement *e, SliceLayer *layer) {
    SliceContour *c = layer_add_contour(layer);
    if (!c || !contour_reserve_points(c, e->read)) return 0;
    if (e->kind == CLI_HATCHES)
        c->kind = CONTOUR_HATCHES;
    else if (e->kind == CLI_POLYLINE)
        c->kind = CONTOUR_PART;
    c->direction = e->dir;
    c->id = e->id;
    c->held = e->read;
    c->count = 0;
    for (uint32_t i = 0; i < e->read; i++) {
        c->points[i].x = e->points[i].x;
        c->points[i].y = e->points[i].y;
        c->count++;
    }
    return 1;
}

int load_cli(CliStream *cli_in, SliceStack *stack, CliHeader *header_block) {
    CliElement element = {};
    int result = 1;
    bool first = true;
    for (;;) {
        int r = cli_read_element(cli_in, &element);
        if (first && header_block) {
            CliHeader *header = nullptr;
            cli_get_option(cli_in, CLI_OPT_HEADER, &header);
            if (header) *header_block = *header;
        }
        first = false;
        if (r == 0) break;
        float z = 0.0f;
        cli_get_option(cli_in, CLI_OPT_LAYER, &z);
        SliceLayer *layer = r == 2 ? stack_add_layer(stack) : current_layer(stack, z);
        if (!layer) {
            result = 0;
            break;
        }
        if (r == 2) layer->z = z;
        if (!contour_from_cli(&element, layer)) {
            result = 0;
            break;
        }
    }
    cli_free_points(&element);
    return result;
}

void report_cli_input(CliStream *cli_in, uint32_t layers) {
    if (cli_stream_error_text(cli_in)) return;
    const char *name = job.program_name;
    CliHeader *header = nullptr;
    uint32_t read = 0, end_seen = 0, format = 0, signed_short = 0;
    cli_get_option(cli_in, CLI_OPT_HEADER, &header);
    cli_get_option(cli_in, CLI_OPT_LAYERS_READ, &read);
    cli_get_option(cli_in, CLI_OPT_END_SEEN, &end_seen);
    cli_get_option(cli_in, CLI_OPT_FORMAT, &format);
    cli_get_option(cli_in, CLI_OPT_SIGNED_SHORT, &signed_short);
    // One warning for an early end, whichever way it shows.
    if (!cli_read_ended_cleanly(cli_in)) {
        fprintf(stderr, "%s(WARNING): input ends early: data after layer %u could not be read\n",
                name, layers);
    } else if (header && header->layers > read) {
        fprintf(stderr,
                "%s(WARNING): input ends early: %u of the %u layers declared by $$LAYERS were "
                "read\n",
                name, read, header->layers);
    } else if (format != CLI_FORMAT_BINARY && !end_seen) {
        fprintf(stderr, "%s(WARNING): input ends early: $$GEOMETRYEND is missing after layer %u\n",
                name, layers);
    }
    if (signed_short && job.verbosity >= 1 && job.verbosity <= 5) {
        fprintf(stderr,
                "%s(info): $$DIMENSION declares a negative minimum: 16-bit coordinates are read "
                "as signed values\n",
                name);
    }
}

void report_cli_skipped(const CliStream *cli_in) {
    uint64_t count = 0;
    for (uint32_t i = 0; i < cli_skipped_keywords(cli_in); i++) {
        const char *keyword = cli_skipped_keyword(cli_in, i, &count);
        const char *verb = count == 1 ? "command was" : "commands were";
        if (*keyword)
            fprintf(stderr, "%s(WARNING): %" PRIu64 " $$%s %s skipped (not held by the output)\n",
                    job.program_name, count, keyword, verb);
        else
            fprintf(stderr, "%s(WARNING): %" PRIu64 " %s skipped (not held by the output)\n",
                    job.program_name, count,
                    count == 1 ? "command of another keyword was"
                               : "commands of other keywords were");
    }
}

int load_slc(SlcStream *slc_in, SliceStack *stack, double *unit) {
    SliceContour c0 = {};
    int r = slc_read_boundary(slc_in, &c0);
    SlcHeader *header = nullptr;
    slc_get_option(slc_in, SLC_OPT_HEADER, &header);
    *unit = 1.0;
    if (header && header->unit == SLC_KW_INCH) unit_word_factor("inch", unit);
    int result = -1;
    while (r != 0) {
        SliceLayer *layer = nullptr;
        if (r == 2) {
            layer = stack_add_layer(stack);
            if (layer) {
                SlcLayerInfo info = {};
                slc_get_option(slc_in, SLC_OPT_LAYER, &info);
                layer->z = info.z;
                layer->thickness = info.thickness;
                layer->contour_count = info.count;
            }
        } else {
            layer = current_layer(stack, 0.0f);
        }
        if (!layer) {
            result = 0;
            break;
        }
        SliceContour *c = layer_add_contour(layer);
        if (!c) {
            result = 0;
            break;
        }
        *c = c0; // the point array now belongs to the model
        c0 = SliceContour{};
        r = slc_read_boundary(slc_in, &c0);
    }
    contour_free_points(&c0);
    return result == 0 ? 0 : streams_check();
}

int contour_from_fdm(const FdmContour *f, SliceLayer *layer) {
    uint32_t n = f->filled;
    SliceContour *c = layer_add_contour(layer);
    if (!c || !contour_reserve_points(c, n + 1)) return 0;
    c->kind = CONTOUR_PART;
    bool closed = f->closure == FDM_CLOSED;
    c->direction = closed ? 1 : 2;
    c->held = closed && n != 0 ? n + 1 : n;
    c->count = 0;
    for (uint32_t i = 0; i < n; i++) {
        c->points[i].x = static_cast<float>(f->points[i].x);
        c->points[i].y = static_cast<float>(f->points[i].y);
        c->count++;
    }
    if (closed && n != 0) {
        c->points[n].x = static_cast<float>(f->points[0].x);
        c->points[n].y = static_cast<float>(f->points[0].y);
        c->count++;
    }
    return 1;
}

int load_fdm(SliceStack *stack, double *unit) {
    unit_word_factor("inch", unit);
    FdmContour f = {};
    int result = -1;
    int r = fdm_read_contour(job.fdm_in, &f);
    while (r != 0) {
        SliceLayer *layer = nullptr;
        if (r == 2) {
            layer = stack_add_layer(stack);
            if (layer) {
                double values[2] = {0.0, 0.0};
                fdm_get_option(job.fdm_in, FDM_OPT_LAYER, values);
                layer->z = static_cast<float>(values[0]);
                layer->thickness = static_cast<float>(values[1]);
            }
        } else {
            layer = current_layer(stack, 0.0f);
        }
        if (!layer || !contour_from_fdm(&f, layer)) {
            result = 0;
            break;
        }
        r = fdm_read_contour(job.fdm_in, &f);
    }
    fdm_free_points(&f);
    return result == 0 ? 0 : streams_check();
}
