// Loaders: pull contours from the input stream into the slice model.
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
