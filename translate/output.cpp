// The heart of a run: load, convert units, place, reverse and write.
#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>

#include "formats/cli/cli.h"
#include "formats/fdm/fdm.h"
#include "formats/slc/slc.h"
#include "job/job.h"
#include "job/job_settings.h"
#include "support/mm.h"
#include "translate/translate.h"

namespace {

constexpr double CLI_OUTPUT_UNIT = 0.01;
constexpr double CLI_FRAME = 60000.0;
constexpr double INCH = 25.4;
constexpr double FDM_LAYER_THICKNESS = 0.005;

const char *const NO_MEMORY = "no more memory";

// Names the last value found not to fit its CLI field ("" when none).
char field_text[320];

// Whether the values of e (null: the layer height z) fit the fields of the
// CLI output form; when one does not, field_text says which, where, and
// what helps.
bool fields_fit(CliStream *out, const CliElement *e, float z) {
    CliFieldFault f;
    if (cli_check_fields(out, e, z, &f)) return true;
    CliHeader *h = nullptr;
    cli_get_option(out, CLI_OPT_HEADER, &h);
    const bool hatches = e && e->kind == CLI_HATCHES;
    const bool real =
        f.field == CLI_FIELD_LAYER || f.field == CLI_FIELD_X || f.field == CLI_FIELD_Y;
    const char *const names[] = {"value",       "layer height", "id",          "direction",
                                 "point count", "x coordinate", "y coordinate"};
    const char *what = f.field < 7 ? names[f.field] : names[0];
    if (hatches && f.field == CLI_FIELD_COUNT) what = "hatch count";
    char where[96] = "";
    if (e)
        snprintf(where, sizeof where, "%s %u, layer %g: ", hatches ? "hatches" : "polyline", e->id,
                 z);
    char range[64] = "0 to 65535";
    if (real && h) snprintf(range, sizeof range, "0 to 65535, unit %g mm", h->units);
    const char *remedy;
    if (real && f.value < 0.0)
        remedy = "try -P to move the model";
    else if (real)
        remedy = hatches ? "try -U with a larger unit or ASCII output -O A"
                         : "try -U with a larger unit or the long form -O b";
    else
        remedy = hatches ? "try ASCII output -O A" : "try the long form -O b or ASCII output -O A";
    snprintf(field_text, sizeof field_text, "%s%s %g does not fit a 16-bit field (%s); %s", where,
             what, f.value, range, remedy);
    return false;
}

// Warns about negative coordinates and, with -P, moves the model. 0 (after
// the message) when the move takes a value beyond float range.
int place_model(SliceStack *stack, SliceBounds *b) {
    const char *name = job.program_name;
    fprintf(stderr, "%s(WARNING): model is not entirely in the positive quadrant\n", name);
    if (!(job.flags[1] & JOB_POSITIVE)) {
        fprintf(stderr, "%s(info): the minimum xyz-coordinates are %g, %g, and %g\n", name, b->xmin,
                b->ymin, b->zmin);
        fprintf(stderr, "%s(info): the option -P can be used to move the model\n", name);
        return 1;
    }
    double dx = b->xmin < 0.0 ? -b->xmin : 0.0;
    double dy = b->ymin < 0.0 ? -b->ymin : 0.0;
    double dz = b->zmin < 0.0 ? -b->zmin : 0.0;
    uint32_t bad = stack_translate(stack, dx, dy, dz);
    fprintf(stderr, "%s(info): moving the model by XYZ=+%g,+%g,+%g\n", name, dx, dy, dz);
    if (bad < stack->count) {
        fprintf(stderr, "%s: moving the model makes a coordinate of layer %u infinite\n", name,
                bad + 1);
        return 0;
    }
    b->xmin += dx;
    b->xmax += dx;
    b->ymin += dy;
    b->ymax += dy;
    b->zmin += dz;
    b->zmax += dz;
    if (b->zmin <= UNIT_TOLERANCE) {
        fprintf(stderr, "%s(info): min. z-coordinate places the part close to,", name);
        fputs(" or on the platform\n", stderr);
    }
    return 1;
}

// Contours an output format cannot hold, counted by what they were.
struct LeftOut {
    uint64_t hatches, support, web, other;
};

void leave_out(LeftOut *left, const SliceContour &c) {
    gap_total += c.gaps; // the gap report speaks of the whole input
    if (c.kind == CONTOUR_HATCHES)
        left->hatches++;
    else if (c.kind == CONTOUR_SUPPORT)
        left->support++;
    else if (c.kind == CONTOUR_WEB)
        left->web++;
    else
        left->other++;
}

// One warning for everything the output format left out, such as
// "the SLC format holds part contours only: 2 hatch blocks were left out".
void report_left_out(const char *format, const LeftOut &left) {
    const struct {
        uint64_t n;
        const char *one, *many;
    } kinds[] = {{left.hatches, "hatch block", "hatch blocks"},
                 {left.support, "support contour", "support contours"},
                 {left.web, "web contour", "web contours"},
                 {left.other, "contour of another type", "contours of another type"}};
    uint64_t total = 0;
    int items = 0;
    for (const auto &k : kinds) {
        total += k.n;
        items += k.n != 0;
    }
    if (total == 0) return;
    fprintf(stderr, "%s(WARNING): the %s format holds part contours only: ", job.program_name,
            format);
    int listed = 0;
    for (const auto &k : kinds) {
        if (k.n == 0) continue;
        if (listed > 0) fputs(listed == items - 1 ? " and " : ", ", stderr);
        fprintf(stderr, "%" PRIu64 " %s", k.n, k.n == 1 ? k.one : k.many);
        listed++;
    }
    fprintf(stderr, " %s left out\n", total == 1 ? "was" : "were");
}

// The one contour kind an SLC file of the model holds: part contours, or
// for a model of support (or web) contours alone, those, under their TYPE.
uint32_t slc_kind(const SliceStack *stack) {
    uint32_t kind = 0;
    for (uint32_t i = 0; i < stack->count; i++) {
        const SliceLayer &layer = stack->layers[i];
        for (uint32_t j = 0; j < layer_contours_in_use(layer); j++) {
            const uint32_t k = layer.contours[j].kind;
            if (k == CONTOUR_PART) return CONTOUR_PART;
            if (kind == 0 && (k == CONTOUR_SUPPORT || k == CONTOUR_WEB)) kind = k;
        }
    }
    return kind ? kind : CONTOUR_PART;
}

} // namespace

void cli_frame(SliceBounds *b) {
    b->xmin = b->ymin = b->zmin = 0.0;
    b->xmax = b->ymax = b->zmax = CLI_FRAME;
}

int write_cli_contour(CliStream *cli_out, const SliceContour *c, CliElement *e) {
    gap_total += c->gaps;
    if (c->kind == CONTOUR_PART)
        e->kind = CLI_POLYLINE;
    else if (c->kind == CONTOUR_HATCHES || c->kind == CONTOUR_SUPPORT || c->kind == CONTOUR_WEB)
        e->kind = CLI_HATCHES;
    e->dir = c->direction;
    e->id = c->id;
    float z = 0.0f;
    cli_get_option(cli_out, CLI_OPT_LAYER, &z);
    if (!cli_reserve_points(e, c->held)) return 0;
    e->count = 0;
    for (uint32_t i = 0; i < c->held; i++) {
        const SlicePoint &p = c->points[i];
        if (c->gaps != 0 && point_is_gap_mark(p)) {
            if (!fields_fit(cli_out, e, z) || !cli_write_element(cli_out, e)) return 0;
            e->count = 0;
            continue;
        }
        e->points[e->count].x = p.x;
        e->points[e->count].y = p.y;
        e->count++;
    }
    if (e->count <= 1) return 1;
    return fields_fit(cli_out, e, z) && cli_write_element(cli_out, e);
}

int write_cli(const SliceStack *stack, CliHeader *header, const char **cause) {
    if (header->units != 0.0f &&
        std::fabs(static_cast<double>(header->units) - CLI_OUTPUT_UNIT) > UNIT_TOLERANCE) {
        fprintf(stderr, "%s(WARNING): units different from 0.01(MM)", job.program_name);
        fputs(" may cause the conversion\n", stderr);
        fprintf(stderr, "%s(WARNING):   to SLI to fail.\n", job.program_name);
    }
    header->layers = stack->count;
    cli_set_option(job.cli_out, CLI_OPT_HEADER, header);
    CliElement element = {};
    int result = 1;
    field_text[0] = '\0';
    for (uint32_t i = 0; i < stack->count && result; i++) {
        SliceLayer &layer = stack->layers[i];
        if (!fields_fit(job.cli_out, nullptr, layer.z)) {
            result = 0;
            break;
        }
        cli_set_option(job.cli_out, CLI_OPT_LAYER, &layer.z);
        for (uint32_t j = 0; j < layer_contours_in_use(layer) && result; j++) {
            result = write_cli_contour(job.cli_out, &layer.contours[j], &element);
        }
    }
    cli_free_points(&element);
    if (!result) *cause = field_text[0] ? field_text : NO_MEMORY;
    return result;
}

int write_slc(const SliceStack *stack, double out_unit, const char **cause) {
    if (stack->count < 2) {
        *cause = "the SLC format needs at least two layers";
        return 0;
    }
    const uint32_t kind = slc_kind(stack);
    SlcHeader header = {};
    header.unit = out_unit == INCH ? SLC_KW_INCH : 0u; // inch coordinates get a header that says so
    header.type = kind;
    slc_set_option(job.slc_out, SLC_OPT_HEADER, &header);
    size_t size = (stack->count + 1) * sizeof(float);
    float *levels = static_cast<float *>(mm_malloc(size));
    if (!levels) {
        *cause = NO_MEMORY;
        return 0;
    }
    for (uint32_t i = 0; i < stack->count; i++)
        levels[i] = stack->layers[i].z;
    levels[stack->count] = FLT_MAX;
    int ok = slc_set_sampling_levels(job.slc_out, levels, nullptr);
    mm_free(levels, size, 0);
    if (!ok) {
        *cause = "the SLC format needs at least two layers";
        return 0;
    }
    // Every layer keeps its record, also one whose contours are all left out.
    LeftOut left = {};
    for (uint32_t i = 0; i < stack->count; i++) {
        const SliceLayer &layer = stack->layers[i];
        const uint32_t n = layer_contours_in_use(layer);
        SlcLayerInfo info = {layer.z, layer.thickness, 0};
        for (uint32_t j = 0; j < n; j++)
            info.count += layer.contours[j].kind == kind;
        if (!slc_set_option(job.slc_out, SLC_OPT_LAYER, &info) ||
            (i == 0 && !slc_write_entity(job.slc_out, nullptr))) {
            *cause = NO_MEMORY;
            return 0;
        }
        for (uint32_t j = 0; j < n; j++) {
            const SliceContour &c = layer.contours[j];
            if (c.kind != kind) {
                leave_out(&left, c);
                continue;
            }
            gap_total += c.gaps;
            if (!slc_write_entity(job.slc_out, &c)) {
                *cause = NO_MEMORY;
                return 0;
            }
        }
    }
    report_left_out("SLC", left);
    return 1;
}

int write_fdm_contour(FdmStream *fdm_out, const SliceContour *c, FdmContour *f) {
    gap_total += c->gaps;
    f->kind = FDM_CONTOUR;
    if (c->gaps != 0)
        f->closure = FDM_OPEN;
    else if (c->kind == CONTOUR_PART)
        f->closure = FDM_CLOSED;
    else if (c->kind == CONTOUR_SUPPORT || c->kind == CONTOUR_WEB)
        f->closure = FDM_OPEN;
    // A contour without points has nothing the format could say.
    if (c->held == 0) return 1;
    if (!fdm_reserve_points(f, c->held)) return 0;
    f->count = 0;
    for (uint32_t i = 0; i < c->held; i++) {
        const SlicePoint &p = c->points[i];
        if (point_is_gap_mark(p)) {
            if (f->count >= 1 && !fdm_write_contour(fdm_out, f)) return 0;
            f->count = 0;
            continue;
        }
        f->points[f->count].x = p.x;
        f->points[f->count].y = p.y;
        f->count++;
    }
    return f->count > 1 ? fdm_write_contour(fdm_out, f) : 1;
}

int write_fdm(const SliceStack *stack, const char **cause) {
    double prev_z = 0.0;
    bool warned = false;
    FdmContour f = {};
    LeftOut left = {};
    int result = 1;
    for (uint32_t i = 0; i < stack->count && result; i++) {
        const SliceLayer &layer = stack->layers[i];
        float thickness = layer.thickness;
        if (i > 0) {
            if (thickness == 0.0f) thickness = static_cast<float>(layer.z - prev_z);
            if (std::fabs(thickness - FDM_LAYER_THICKNESS) > UNIT_TOLERANCE) {
                if (!warned) {
                    fprintf(stderr, "%s(WARNING): layer thickness must be %g\n", job.program_name,
                            FDM_LAYER_THICKNESS);
                    warned = true;
                }
            } else {
                thickness = 0.0f;
            }
        }
        prev_z = layer.z;
        double values[2] = {layer.z, thickness};
        fdm_set_option(job.fdm_out, FDM_OPT_LAYER, values);
        for (uint32_t j = 0; j < layer_contours_in_use(layer) && result; j++) {
            const SliceContour &c = layer.contours[j];
            if (c.kind == CONTOUR_PART)
                result = write_fdm_contour(job.fdm_out, &c, &f);
            else
                leave_out(&left, c);
        }
    }
    fdm_free_points(&f);
    // The header goes out even when no contour did, so that the file is whole.
    if (result) result = fdm_write_contour(job.fdm_out, nullptr);
    if (!result) *cause = NO_MEMORY;
    if (result) report_left_out("FDM", left);
    return result;
}

int translate_job() {
    bool in_cli = job.flags[0] & JOB_IN_CLI;
    bool out_cli = job_out_is_cli(job);
    CliHeader *header = nullptr;
    if (in_cli || out_cli) {
        header = static_cast<CliHeader *>(mm_malloc(sizeof(CliHeader)));
        if (!header) return 0;
    }
    SliceStack stack = {};
    double u_in = 1.0;
    int loaded;
    if (in_cli) {
        loaded = load_cli(job.cli_in, &stack, header);
        u_in = header->units != 0.0f ? header->units : 1.0;
        if (loaded) report_cli_input(job.cli_in, stack.count);
    } else if (job.flags[0] & JOB_IN_SLC) {
        loaded = load_slc(job.slc_in, &stack, &u_in);
    } else {
        loaded = load_fdm(&stack, &u_in);
    }

    const char *cause = nullptr;
    int placed = 1;
    if (loaded) {
        // A CLI input that failed to read is reported as such at the end.
        if (stack.count == 0 && !(in_cli && cli_stream_error_text(job.cli_in)))
            fprintf(stderr, "%s(WARNING): the input holds no geometry\n", job.program_name);
        double u_out;
        if (job.flags[1] & JOB_UNITS_SET) {
            u_out = job.units;
            if (header) header->units = static_cast<float>(u_out);
        } else if (out_cli) {
            u_out = CLI_OUTPUT_UNIT;
            header->units = static_cast<float>(CLI_OUTPUT_UNIT);
        } else if (job.flags[1] & JOB_OUT_SLC) {
            u_out = u_in == INCH ? INCH : 1.0;
        } else {
            u_out = INCH;
        }

        SliceBounds bounds;
        const double factor = u_in / u_out;
        const uint32_t bad = stack_scale(&stack, factor, &bounds);
        if (bad < stack.count) {
            fprintf(stderr,
                    "%s: scaling by %g to the output unit makes a coordinate of layer %u infinite "
                    "(choose a larger unit with -U)\n",
                    job.program_name, factor, bad + 1);
            placed = 0;
        } else if (bounds_negative(bounds)) {
            placed = place_model(&stack, &bounds);
        }
        if (placed && job.reverse != 0) stack_reverse(&stack);

        int written = 0;
        if (!placed) {
            // nothing is written
        } else if (out_cli) {
            cli_frame(&bounds);
            header->xmin = bounds.xmin;
            header->xmax = bounds.xmax;
            header->ymin = bounds.ymin;
            header->ymax = bounds.ymax;
            header->zmin = bounds.zmin;
            header->zmax = bounds.zmax;
            written = write_cli(&stack, header, &cause);
            // A model without elements still makes a whole file: the header
            // and an empty geometry.
            if (written) written = cli_write_element(job.cli_out, nullptr);
        } else if (job.flags[1] & JOB_OUT_SLC) {
            written = write_slc(&stack, u_out, &cause);
        } else {
            written = write_fdm(&stack, &cause);
        }
        if (written || streams_output_error_text()) cause = nullptr;
    }

    mm_free(header, sizeof(CliHeader), 0);
    stack_free(&stack);
    // End the output file now, so that a failure of its last write is
    // reported like any other.
    if (job.cli_out) cli_finish(job.cli_out);
    if (job.slc_out) slc_finish(job.slc_out);
    if (job.fdm_out) fdm_finish(job.fdm_out);
    if (in_cli) report_cli_skipped(job.cli_in);
    int result = streams_check() && placed;
    if (cause) {
        fprintf(stderr, "%s: error writing output file (%s)\n", job.program_name, cause);
        result = 0;
    }
    return result;
}
