// Writes a large binary long-form CLI file for the benchmarks: a stack of
// layers, each holding closed polylines with many points and a block of
// hatches (unless the third argument is "parts"), in millimetres. Prints the
// number of layers and of points (the model's point data is 8 bytes a point).
//
// The layers are 0.125 apart, a spacing that every z of a tall stack keeps
// exactly in a float: with 0.1 the rounded spacings of a 1 GB stack would
// need more than the 255 entries of SLC's sampling table.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

std::vector<unsigned char> out;

void u16(uint32_t v) {
    out.push_back(static_cast<unsigned char>(v & 0xff));
    out.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
}
void u32(uint32_t v) {
    u16(v & 0xffff);
    u16(v >> 16);
}
void f32(float f) {
    uint32_t v;
    memcpy(&v, &f, 4);
    u32(v);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3 && argc != 4) {
        fprintf(stderr, "usage: gen_slices output.cli megabytes [parts]\n");
        return 2;
    }
    double megabytes = atof(argv[2]);
    FILE *f = fopen(argv[1], "wb");
    if (!f) {
        perror(argv[1]);
        return 1;
    }
    const char *header = "$$HEADERSTART\n$$BINARY\n$$UNITS/1\n$$VERSION/200\n$$DATE/231126\n"
                         "$$HEADEREND";
    fwrite(header, 1, strlen(header), f);
    const int contours = 8, points = 2000;
    const int hatches = argc == 4 && strcmp(argv[3], "parts") == 0 ? 0 : 400;
    size_t written = 0, target = static_cast<size_t>(megabytes * 1048576.0);
    unsigned long long total_points = 0;
    int layer = 1;
    for (; written < target; layer++) {
        out.clear();
        u16(127);
        f32(static_cast<float>(layer * 0.125));
        for (int c = 0; c < contours; c++) {
            u16(130);
            u32(c + 1);
            u32(1);
            u32(points);
            double r = 10.0 + 5.0 * c, cx = 120.0, cy = 90.0;
            for (int i = 0; i < points; i++) {
                double a = 2.0 * M_PI * (i % (points - 1)) / (points - 1);
                f32(static_cast<float>(cx + r * cos(a)));
                f32(static_cast<float>(cy + r * sin(a)));
            }
        }
        if (hatches) {
            u16(132);
            u32(99);
            u32(hatches);
        }
        for (int i = 0; i < hatches; i++) {
            float y = 50.0f + 0.2f * i;
            f32(70.0f);
            f32(y);
            f32(170.0f);
            f32(y);
        }
        if (fwrite(out.data(), 1, out.size(), f) != out.size()) break;
        written += out.size();
        total_points += static_cast<unsigned long long>(contours) * points + 2ull * hatches;
    }
    if (fclose(f) != 0 || written < target) {
        perror(argv[1]);
        return 1;
    }
    printf("%d layers, %llu points\n", layer - 1, total_points);
    return 0;
}
