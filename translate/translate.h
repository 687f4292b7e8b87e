// The translation driver: stream set-up and tear-down, loading the input
// into the slice model, placement and the output steps.
#pragma once

// Creates and configures the input and output streams on the job's files.
// 1 when both exist; 0 after a "failed to" message.
int streams_open();
// 1 when neither stream has recorded an error; 0 after the messages.
int streams_check();
// Destroys the streams (finishing the output file) and closes both files.
void streams_close();

// Loads, converts, places, reverses and writes the whole model; the result
// is that of streams_check.
int translate_job();
