// The alarm setting read from the environment, and the check that tells
// whether the user has asked the run to stop.
#pragma once

#include <cstdint>

// The setting read by alarm_init (0 by default); nothing acts on it.
extern int32_t alarm_setting;

// Reads "QZ_ALARM"; without it, keeps program for the abort message.
void alarm_init(const char *program);
// Ends the alarm; returns 0.
int alarm_done();
// 1 while the run may go on, 0 once Stop was pressed (the abort message is
// printed once, when a program name is kept).
int user_abort_check();
// Shows percent in the progress window when it changed, then checks for a
// stop as user_abort_check does.
int progress_report(int percent);
// Back to the start-up state (no setting, no name, not aborted).
void alarm_reset();
