#include "support/run_timer.h"

#include <ctime>

#include "job/job_settings.h"

float run_timer_clock() {
    // The origin keeps the float reading small and therefore precise.
    static double origin = -1.0;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    double seconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    if (origin < 0.0) origin = seconds;
    return static_cast<float>(seconds - origin);
}

void run_timer_start(RunTimer *first, RunTimer *second) {
    float reading = run_timer_clock();
    RunTimer *timers[2] = {first, second};
    for (RunTimer *timer : timers) {
        if (!timer) continue;
        timer->started = 1;
        timer->start = reading;
        timer->start2 = 0.0f;
    }
}

void run_timer_stop(RunTimer *first, RunTimer *second) {
    float reading = run_timer_clock();
    RunTimer *timers[2] = {first, second};
    for (RunTimer *timer : timers) {
        if (!timer) continue;
        timer->elapsed += reading - timer->start;
        timer->elapsed2 += 0.0f - timer->start2;
    }
}

void run_time_report(const RunTimer *timer, FILE *stream, const char *program, const char *label) {
    float total = timer->elapsed + timer->elapsed2;
    fprintf(stream, "%s(info): %s time was ", program, label);
    if (static_cast<double>(total) < 0.1) {
        fputs("insignificant\n", stream);
    } else if (total > 3600.0f) {
        int hours = static_cast<int>(total / 3600.0f);
        float rest = total - static_cast<float>(hours) * 3600.0f;
        if (rest < 60.0f) {
            fprintf(stream, "%d hour(s) and %.1f second(s)\n", hours,
                    static_cast<double>(rest) + 0.05);
        } else {
            int minutes = static_cast<int>(rest / 60.0f);
            float seconds = rest - static_cast<float>(minutes) * 60.0f;
            fprintf(stream, "%d hour(s), %d minute(s) and %.1f second(s)\n", hours, minutes,
                    static_cast<double>(seconds) + 0.05);
        }
    } else {
        fprintf(stream, "%.1f seconds\n", static_cast<double>(total) + 0.05);
        if (total > 120.0f) {
            fprintf(stream, "%s(info): (more than %d minutes)\n", program,
                    static_cast<int>(total / 60.0f));
        }
    }
    fflush(stream);
}

void report_total_time(const RunTimer *timer) {
    if (job.verbosity == 1) run_time_report(timer, stderr, job.program_name, "total");
}
