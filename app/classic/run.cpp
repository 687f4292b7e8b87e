#include "app/classic/run.h"

#include <cerrno>
#include <cstdio>
#include <new>

#include "app/classic/cleanup.h"
#include "app/classic/files.h"
#include "app/classic/options.h"
#include "app/classic/session.h"
#include "laytran/io.h"
#include "support/system_error.h"

namespace laytran::classic {

namespace {

const char completed_text[] = "Slice file conversion completed. Please check the log file";
const char failed_text[] = "Slice file conversion failed. Please check the log file";

void print(const std::string &line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
}

// The engine's messages, each one line on the error stream.
void print_diagnostic(const Diagnostic &d) {
    const char *lead = d.severity == Severity::info      ? "(info): "
                       : d.severity == Severity::warning ? "(WARNING): "
                                                         : ": ";
    print(program_name + (lead + d.text) + "\n");
}

enum class Parsed { run, help, stop, refuse };

// The options, then the verbosity step, the files and the unit check.
Parsed parse(int argc, char **argv, ClassicOptions &o, ClassicFiles &files) {
    try {
        ScanResult scanned = scan_options(argc, argv, o);
        if (scanned != ScanResult::run)
            return scanned == ScanResult::help ? Parsed::help : Parsed::stop;
        const char *started_as = argc > 0 && argv && argv[0] ? argv[0] : program_name;
        if (!finish_verbosity(o, started_as)) return Parsed::stop;
        Resolved resolved = resolve_files(o, files);
        if (resolved != Resolved::run)
            return resolved == Resolved::refuse ? Parsed::refuse : Parsed::stop;
        return check_output_units(o) ? Parsed::run : Parsed::stop;
    } catch (const std::bad_alloc &) {
        print(std::string(program_name) + ": unable to allocate additional memory.\n");
        return Parsed::stop;
    }
}

TranslateOptions translate_options(const ClassicOptions &o) {
    TranslateOptions t;
    t.input = input_format(o);
    t.output = output_form(o);
    t.unit_mm = o.units.value_or(0.0);
    t.move_positive = o.positive;
    t.reverse = o.reverse != 0;
    t.cli_header = CliHeaderStyle::classic;
    t.keep_empty_layers = false;
    t.verbosity = o.verbosity;
    return t;
}

} // namespace

int run(int argc, char **argv) {
    RunTimer timer;
    timer.start();
    SignalCleanup cleanup;
    ClassicOptions o;
    ClassicFiles files(&cleanup);

    // An option error ends the run here with status 0: no translation, no
    // report. An output file opened before it is not kept.
    switch (parse(argc, argv, o, files)) {
    case Parsed::help:
        print(help_text);
        return 0;
    case Parsed::stop:
        return 0;
    case Parsed::refuse:
        return -1;
    case Parsed::run:
        break;
    }

    ProgressWindow window;
    window.begin("LAYTRAN");
    window.set_text(1, "Translating...");
    window.set_text(2, "");
    if (o.no_window)
        window.suppressed = true;
    else
        window.show();
    Alarm alarm(window);
    alarm.init(program_name);

    TranslateOptions options = translate_options(o);
    options.private_output = files.output.temporary();
    TranslateResult result =
        translate(files.input, files.output.stream(), options, print_diagnostic);
    int status = result.ok ? 0 : -1;
    files.close_input();
    // A Stop pressed during the run turns a completed run into a failed one.
    if (status == 0 && !window.pump()) status = -1;
    // Only a completed run replaces the output file.
    if (!files.output.close(status == 0)) {
        print(std::string(program_name) + ": error writing output file (" +
              files.output.failed_step() + ": " + system_error_text(files.output.error_number()) +
              ")\n");
        status = -1;
    }

    if (input_format(o) == InputFormat::slc && o.verbosity >= 1 && o.verbosity <= 6) {
        print(std::string(program_name) + "(info): input file contains " +
              (result.gaps != 0 ? std::to_string(result.gaps) + " gap(s)\n" : "no gaps\n"));
    }
    timer.stop();
    if (o.verbosity == 1) print(time_report(timer.elapsed, program_name, "total"));
    alarm.done();

    if (o.no_message_box) return status;
    window.hide();
    window.suppressed = false;
    window.message_box(status == 0 ? completed_text : failed_text);
    return status;
}

std::vector<std::string> split_command_line(const char *text) {
    std::vector<std::string> words{program_name};
    std::string word;
    bool open = false, quoted = false;
    for (const char *p = text ? text : "";; p++) {
        const char c = *p;
        if (c == '\0' || (c == ' ' && !quoted) || (c == '"' && quoted)) {
            if (open) words.push_back(word);
            open = false;
            word.clear();
            if (c == '\0') break;
            if (c == '"') quoted = false;
        } else if (c == '"') {
            quoted = true;
        } else {
            open = true;
            word += c;
        }
    }
    return words;
}

} // namespace laytran::classic
