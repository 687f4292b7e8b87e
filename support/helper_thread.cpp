#include "support/helper_thread.h"

#include <csignal>
#include <pthread.h>
#include <system_error>

namespace laytran {

HelperThread::~HelperThread() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
}

bool HelperThread::start() {
    if (thread_.joinable()) return true;
    // The thread starts with every asynchronous signal blocked (it
    // inherits the mask in force while it is made).
    sigset_t all, saved;
    sigfillset(&all);
    for (int s : {SIGPIPE, SIGXFSZ, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        sigdelset(&all, s);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
    try {
        thread_ = std::thread([this] { loop(); });
    } catch (const std::system_error &) {
    }
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return thread_.joinable();
}

void HelperThread::run(std::function<void()> job) {
    wait();
    handed_ = true;
    if (!start()) {
        job();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        job_ = std::move(job);
        done_ = false;
    }
    cv_.notify_all();
}

void HelperThread::wait() {
    if (!handed_) return;
    handed_ = false;
    if (!thread_.joinable()) return;
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return done_; });
}

void HelperThread::loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        cv_.wait(lock, [this] { return stop_ || !done_; });
        if (!done_) {
            std::function<void()> job = std::move(job_);
            job_ = nullptr;
            lock.unlock();
            job();
            lock.lock();
            done_ = true;
            cv_.notify_all();
        }
        if (stop_) return;
    }
}

} // namespace laytran
