// A progress bar on standard error, for people at a terminal.
#ifndef ZENTRAVA_TOOLS_PROGRESS_H
#define ZENTRAVA_TOOLS_PROGRESS_H

#include <stddef.h>

struct Progress {
    const char* what;
    size_t total;
    bool is_shown;
    int drawn; // percent; negative: nothing yet
};

Progress begin_progress(const char* what, size_t total, bool is_wanted);
void show_progress(Progress* progress, size_t done);

// Takes the bar away.
void end_progress(Progress* progress);

#endif
