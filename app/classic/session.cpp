#include "app/classic/session.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "support/number_text.h"

namespace laytran::classic {

namespace {

double clock_seconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

} // namespace

void RunTimer::start() {
    start_ = clock_seconds();
}

void RunTimer::stop() {
    elapsed += static_cast<float>(clock_seconds() - start_);
}

std::string time_report(float total, const char *program, const char *label) {
    char text[160];
    const std::string lead = std::string(program) + "(info): ";
    std::string report = lead + label + " time was ";
    if (static_cast<double>(total) < 0.1) {
        report += "insignificant\n";
    } else if (total > 3600.0f) {
        const int hours = static_cast<int>(total / 3600.0f);
        const float rest = total - static_cast<float>(hours) * 3600.0f;
        if (rest < 60.0f) {
            std::snprintf(text, sizeof text, "%d hour(s) and %.1f second(s)\n", hours,
                          static_cast<double>(rest) + 0.05);
        } else {
            const int minutes = static_cast<int>(rest / 60.0f);
            const float seconds = rest - static_cast<float>(minutes) * 60.0f;
            std::snprintf(text, sizeof text, "%d hour(s), %d minute(s) and %.1f second(s)\n", hours,
                          minutes, static_cast<double>(seconds) + 0.05);
        }
        report += text;
    } else {
        std::snprintf(text, sizeof text, "%.1f seconds\n", static_cast<double>(total) + 0.05);
        report += text;
        if (total > 120.0f) {
            std::snprintf(text, sizeof text, "(more than %d minutes)\n",
                          static_cast<int>(total / 60.0f));
            report += lead + text;
        }
    }
    return report;
}

void ProgressWindow::begin(const char *new_caption) {
    if (new_caption) caption = new_caption;
    pause_enabled = true;
    resume_enabled = false;
    stop_enabled = true;
}

void ProgressWindow::set_text(int, const char *text) {
    message = text ? text : "";
}

void ProgressWindow::set_percent(int percent) {
    // The bar holds its range; the text shows the value as given.
    position = percent < 0 ? 0 : percent > 100 ? 100 : percent;
    percent_text = std::to_string(percent) + " %";
}

void ProgressWindow::show() {
    if (!suppressed) visible = true;
}

void ProgressWindow::hide() {
    if (!suppressed) visible = false;
}

void ProgressWindow::message_box(const char *text) const {
    std::fprintf(stderr, "%s\n", text);
    std::fflush(stderr);
}

// There is no message queue to wait on, so a pause returns at once and
// lasts until Resume or Stop.
void ProgressWindow::on_pause() {
    pause_enabled = false;
    resume_enabled = stop_enabled = paused = true;
}

void ProgressWindow::on_resume() {
    pause_enabled = stop_enabled = true;
    resume_enabled = paused = false;
}

void ProgressWindow::on_stop() {
    pause_enabled = resume_enabled = paused = keep_running = false;
}

void Alarm::init(const char *program) {
    if (const char *value = std::getenv("QZ_ALARM")) {
        // A decimal integer followed by nothing or a space; else 0.
        long n = 0;
        const char *end = value + scan_long(value, value + std::strlen(value), &n);
        setting_ = *end == '\0' || *end == ' ' ? static_cast<std::int32_t>(n > INT_MAX   ? INT_MAX
                                                                           : n < INT_MIN ? INT_MIN
                                                                                         : n)
                                               : 0;
        return;
    }
    // The platform's alarm hook would take abort_check; nothing arms an
    // alarm in this system, and the hook gives 0.
    setting_ = 0;
    program_ = program;
}

bool Alarm::abort_check() {
    if (window_.pump()) return true;
    if (!aborted_ && program_) std::fprintf(stderr, "%s: program aborted by the user\n", program_);
    aborted_ = true;
    return false;
}

bool Alarm::progress_report(int percent) {
    if (percent != last_percent_) {
        window_.set_percent(percent);
        last_percent_ = percent;
    }
    return abort_check();
}

} // namespace laytran::classic
