// A second thread that runs one job at a time for the object that owns it.
//
// The owner hands a job over with run() and goes on with its own work;
// wait() returns once the job has run, and everything the job wrote is then
// visible to the owner (the handover is a mutex). The thread starts with the
// first job; it blocks the asynchronous signals, so that they reach the
// program's own threads as before (the signals a write raises in the thread
// that makes it, SIGPIPE and SIGXFSZ, stay open). When no thread can be
// started, run() runs the job at once on the owner's thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace laytran {

class HelperThread {
  public:
    HelperThread() = default;
    ~HelperThread();
    HelperThread(const HelperThread &) = delete;
    HelperThread &operator=(const HelperThread &) = delete;

    // Hands `job` over (after the one before has run).
    void run(std::function<void()> job);
    // Starts the thread, if it is not running yet; false when it cannot be
    // started (run() then runs each job at once on the owner's thread).
    bool start();
    // Returns once the job handed over last has run.
    void wait();
    // Whether a job is handed over and not yet waited for.
    bool busy() const { return handed_; }

  private:
    void loop();

    std::mutex mutex_;
    std::condition_variable cv_;
    std::function<void()> job_; // the job to run, empty when none waits
    bool done_ = true;          // the last job has run
    bool stop_ = false;
    bool handed_ = false; // the owner's view: a job was handed over
    std::thread thread_;
};

} // namespace laytran
