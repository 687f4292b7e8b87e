// The progress window, kept as state: a caption, one message line, a bar
// with its percentage text and the Pause, Resume and Stop buttons. The run
// sets its texts; the window itself is never drawn.
#pragma once

#include <cstdint>

struct ProgressWindow {
    char caption[128];
    char message[256];
    char percent_text[16];
    int32_t position; // bar position, 0 to 100
    uint8_t pause_enabled;
    uint8_t resume_enabled;
    uint8_t stop_enabled;
    uint8_t visible;
};

extern ProgressWindow progress_window;
// While set, progress_show and progress_hide change nothing.
extern int32_t window_suppressed;
// 1 while a pause is in effect.
extern int32_t paused;
// 1 until Stop is pressed.
extern int32_t keep_running;

// Creates the window hidden, with an empty message line and the bar at 0;
// also puts the switches back to their start-up values.
void progress_create();
// Sets the caption (when given); enables Pause and Stop, disables Resume.
int progress_begin(const char *caption);
// Replaces the one message line; line is not used.
void progress_set_text(int line, const char *text);
// Bar position and the text "<p> %".
void progress_set_percent(int percent);
void progress_show();
void progress_hide();
void progress_suppress(int on);
// Handles what is pending and returns keep_running.
int progress_pump();
// The closing message: the text and a line feed on the error stream.
int progress_message_box(const char *text);

// Button handlers.
void progress_on_pause();
void progress_on_resume();
void progress_on_stop();
