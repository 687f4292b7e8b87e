// Run timing: a timer that measures the whole run and a report that prints
// the measured time in words.
#pragma once

#include <cstdint>
#include <cstdio>

struct RunTimer {
    uint8_t started; // 1 once started
    float elapsed;   // accumulated seconds
    float elapsed2;  // second accumulated component; never advanced
    float start;     // clock reading at the last start
    float start2;    // start of the second component; always 0
};

// Seconds on a monotonic wall clock since the first reading in the process.
float run_timer_clock();
// Starts each timer that is not null; the accumulated fields stay.
void run_timer_start(RunTimer *first, RunTimer *second);
// Adds the time since its start to each timer that is not null. The start
// is kept, so a second stop adds the whole time again.
void run_timer_stop(RunTimer *first, RunTimer *second);
// "<program>(info): <label> time was ..." in seconds, minutes or hours.
void run_time_report(const RunTimer *timer, FILE *stream, const char *program, const char *label);
// The run's total time on the error stream, at verbosity 1 only.
void report_total_time(const RunTimer *timer);
