#include "app/progress.h"

#include <cstdio>
#include <cstring>

ProgressWindow progress_window = {"laytran", "", "0 %", 0, 1, 0, 1, 0};
int32_t window_suppressed = 0;
int32_t paused = 0;
int32_t keep_running = 1;

namespace {

void copy_text(char *to, size_t size, const char *text) {
    snprintf(to, size, "%s", text ? text : "");
}

} // namespace

void progress_create() {
    memset(&progress_window, 0, sizeof progress_window);
    copy_text(progress_window.caption, sizeof progress_window.caption, "laytran");
    progress_set_text(0, "");
    progress_set_percent(0);
    progress_window.pause_enabled = 1;
    progress_window.stop_enabled = 1;
    window_suppressed = 0;
    paused = 0;
    keep_running = 1;
}

int progress_begin(const char *caption) {
    if (caption) copy_text(progress_window.caption, sizeof progress_window.caption, caption);
    progress_window.pause_enabled = 1;
    progress_window.resume_enabled = 0;
    progress_window.stop_enabled = 1;
    return 1;
}

void progress_set_text(int, const char *text) {
    copy_text(progress_window.message, sizeof progress_window.message, text);
}

void progress_set_percent(int percent) {
    // The bar holds its range; the text shows the value as given.
    progress_window.position = percent < 0 ? 0 : percent > 100 ? 100 : percent;
    snprintf(progress_window.percent_text, sizeof progress_window.percent_text, "%d %%", percent);
}

void progress_show() {
    if (!window_suppressed) progress_window.visible = 1;
}

void progress_hide() {
    if (!window_suppressed) progress_window.visible = 0;
}

void progress_suppress(int on) {
    window_suppressed = on ? 1 : 0;
}

int progress_pump() {
    return keep_running;
}

int progress_message_box(const char *text) {
    fprintf(stderr, "%s\n", text);
    fflush(stderr);
    return 1;
}

// There is no message queue to wait on, so a pause returns at once and
// lasts until Resume or Stop.
void progress_on_pause() {
    progress_window.pause_enabled = 0;
    progress_window.resume_enabled = 1;
    progress_window.stop_enabled = 1;
    paused = 1;
}

void progress_on_resume() {
    progress_window.pause_enabled = 1;
    progress_window.resume_enabled = 0;
    progress_window.stop_enabled = 1;
    paused = 0;
}

void progress_on_stop() {
    progress_window.pause_enabled = 0;
    progress_window.resume_enabled = 0;
    paused = 0;
    keep_running = 0;
}
