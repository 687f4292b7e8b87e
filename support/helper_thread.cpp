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
    post(std::move(job), 1);
}

void HelperThread::post(std::function<void()> job, int most) {
    handed_ = true;
    if (!start()) {
        job();
        return;
    }
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wait_pending(lock, most < 1 ? 0 : most - 1);
        jobs_.push_back(std::move(job));
        pending_++;
    }
    cv_.notify_all();
}

void HelperThread::wait_pending(std::unique_lock<std::mutex> &lock, int most) {
    while (pending_ > most) {
        owner_waits_ = true;
        cv_.wait(lock);
        owner_waits_ = false;
    }
}

void HelperThread::wait() {
    if (!handed_) return;
    handed_ = false;
    if (!thread_.joinable()) return;
    std::unique_lock<std::mutex> lock(mutex_);
    wait_pending(lock, 0);
}

void HelperThread::loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        while (!stop_ && jobs_.empty())
            cv_.wait(lock);
        if (jobs_.empty()) return; // stopped, with nothing left to run
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        job = nullptr;
        lock.lock();
        pending_--;
        if (owner_waits_) cv_.notify_all();
    }
}

} // namespace laytran
