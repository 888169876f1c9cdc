#include "progress.h"

#include <stdio.h>
#include <unistd.h>

#include <string>

static const size_t BAR_WIDTH = 40;

Progress begin_progress(const char* what, size_t total, bool is_wanted)
{
    return {what, total, is_wanted && total > 0 && isatty(STDERR_FILENO) == 1, -1};
}

void show_progress(Progress* progress, size_t done)
{
    if (!progress->is_shown) {
        return;
    }
    const int percent = static_cast<int>(done * 100 / progress->total);
    if (percent == progress->drawn) {
        return;
    }
    progress->drawn = percent;
    const size_t filled = done * BAR_WIDTH / progress->total;
    const std::string bar = std::string(filled, '#') + std::string(BAR_WIDTH - filled, '.');
    fprintf(stderr, "\r%-8s [%s] %3d%%", progress->what, bar.c_str(), percent);
}

void end_progress(Progress* progress)
{
    if (progress->drawn >= 0) {
        fputs("\r\033[K", stderr);
    }
    progress->drawn = -1;
}
