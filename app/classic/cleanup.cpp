#include "app/classic/cleanup.h"

#include <csignal>
#include <cstring>
#include <unistd.h>

namespace laytran::classic {

namespace {

constexpr int cleanup_signals[] = {SIGHUP, SIGINT, SIGTERM};
constexpr int signal_count = sizeof cleanup_signals / sizeof cleanup_signals[0];

// What the handler may need: fixed storage, filled before the temporary
// file exists and read by nothing but async-signal-safe calls.
char temp_name[32];
int temp_dir = -1;
volatile sig_atomic_t temp_live = 0;

struct sigaction saved_actions[signal_count];
bool handlers_installed = false;
sigset_t saved_mask;
bool blocked = false;

void on_signal(int signal_number) {
    if (temp_live) {
        unlinkat(temp_dir, temp_name, 0);
        temp_live = 0;
    }
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

} // namespace

void SignalCleanup::live(int dir_fd, const char *name) {
    temp_live = 0;
    std::strncpy(temp_name, name, sizeof temp_name - 1);
    temp_dir = dir_fd;
    if (!handlers_installed) {
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = on_signal;
        sigemptyset(&action.sa_mask);
        for (int s : cleanup_signals)
            sigaddset(&action.sa_mask, s);
        for (int i = 0; i < signal_count; i++) {
            sigaction(cleanup_signals[i], nullptr, &saved_actions[i]);
            if (saved_actions[i].sa_handler != SIG_IGN)
                sigaction(cleanup_signals[i], &action, nullptr);
        }
        handlers_installed = true;
    }
    temp_live = 1;
}

void SignalCleanup::ending() {
    // Renaming (or removing) the file and forgetting it is one step for a
    // signal: it comes before or after, never between.
    sigset_t set;
    sigemptyset(&set);
    for (int s : cleanup_signals)
        sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &saved_mask);
    blocked = true;
}

void SignalCleanup::gone() {
    temp_live = 0;
    if (handlers_installed) {
        for (int i = 0; i < signal_count; i++)
            sigaction(cleanup_signals[i], &saved_actions[i], nullptr);
        handlers_installed = false;
    }
    if (blocked) sigprocmask(SIG_SETMASK, &saved_mask, nullptr);
    blocked = false;
}

} // namespace laytran::classic
