// Reads a slice file, prints what it holds and writes it as SLC.
#include <cstdio>
#include <laytran/laytran.h>

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: consumer IN.cli OUT.slc\n");
        return 2;
    }
    auto print = [](const laytran::Diagnostic &d) { std::fprintf(stderr, "%s\n", d.text.c_str()); };
    laytran::Model model;
    if (!laytran::read_model(argv[1], {laytran::InputFormat::cli}, model, print)) return 1;
    laytran::Bounds b = laytran::bounds_mm(model);
    laytran::Counts n = laytran::count(model);
    std::printf("laytran %s: %zu layers, x %g..%g mm, z %g..%g mm, %llu points\n",
                laytran::version(), model.layers.size(), b.xmin, b.xmax, b.zmin, b.zmax,
                static_cast<unsigned long long>(n.points));
    laytran::WriteOptions slc;
    slc.form = laytran::OutputForm::slc;
    return laytran::write_model(model, argv[2], slc, print) ? 0 : 1;
}
