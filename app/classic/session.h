// The run's companions: the run timer and its report, the progress window
// (kept as state: it is never drawn), the alarm setting and the user-abort
// check.
#pragma once

#include <cstdint>
#include <string>

namespace laytran::classic {

// Measures the run on a monotonic clock, in float seconds as the report
// prints them.
class RunTimer {
  public:
    void start();
    // Adds the time since the start; the start stays, so a second stop adds
    // the whole time again.
    void stop();
    float elapsed = 0.0f;

  private:
    double start_ = 0.0;
};

// "<program>(info): <label> time was ..." in seconds, minutes or hours,
// each line ending in a line feed.
std::string time_report(float total, const char *program, const char *label);

// The progress window: a caption, one message line, a bar with its
// percentage text and the Pause, Resume and Stop buttons.
struct ProgressWindow {
    std::string caption = "laytran", message, percent_text = "0 %";
    int position = 0; // 0 to 100
    bool pause_enabled = true, resume_enabled = false, stop_enabled = true;
    bool visible = false;
    bool suppressed = false; // show and hide change nothing
    bool paused = false;
    bool keep_running = true; // until Stop is pressed

    void begin(const char *caption);
    void set_text(int line, const char *text); // one line: the number is not used
    void set_percent(int percent);
    void show();
    void hide();
    // Handles what is pending; whether the run may go on.
    bool pump() const { return keep_running; }
    // The closing message, on the error stream.
    void message_box(const char *text) const;
    void on_pause();
    void on_resume();
    void on_stop();
};

// The setting read from QZ_ALARM (nothing acts on it) and the check that
// tells whether the user asked the run to stop.
class Alarm {
  public:
    explicit Alarm(ProgressWindow &window) : window_(window) {}
    // Reads QZ_ALARM; without it, keeps `program` for the abort message.
    void init(const char *program);
    int done() { return 0; }
    // True while the run may go on; after Stop, false, with the abort
    // message printed once when a program name is kept.
    bool abort_check();
    // Shows percent in the window when it changed, then checks as above.
    bool progress_report(int percent);
    std::int32_t setting() const { return setting_; }

  private:
    ProgressWindow &window_;
    std::int32_t setting_ = 0;
    const char *program_ = nullptr;
    bool aborted_ = false;
    int last_percent_ = -1;
};

} // namespace laytran::classic
