#include "support/alarm.h"

#include <cstdio>
#include <cstdlib>

#include "app/progress.h"
#include "support/parse.h"

int32_t alarm_setting = 0;

namespace {

const char *abort_program = nullptr;
int aborted = 0;
int last_percent = -1;

// The platform's alarm hook: takes the handler to call when the alarm
// fires. Nothing arms an alarm in this system.
int alarm_hook(int (*)()) {
    return 0;
}

} // namespace

void alarm_reset() {
    alarm_setting = 0;
    abort_program = nullptr;
    aborted = 0;
    last_percent = -1;
}

void alarm_init(const char *program) {
    const char *value = getenv("QZ_ALARM");
    if (value) {
        int setting = 0;
        alarm_setting = parse_int(value, &setting) ? setting : 0;
        return;
    }
    alarm_setting = alarm_hook(user_abort_check);
    abort_program = program;
}

int alarm_done() {
    return 0;
}

int user_abort_check() {
    if (progress_pump()) return 1;
    if (!aborted) {
        if (abort_program) fprintf(stderr, "%s: program aborted by the user\n", abort_program);
        aborted = 1;
    }
    return 0;
}

int progress_report(int percent) {
    if (percent != last_percent) {
        progress_set_percent(percent);
        last_percent = percent;
    }
    return user_abort_check();
}
