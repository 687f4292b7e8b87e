// A second thread that runs jobs in order for the object that owns it.
//
// The owner hands a job over with run() (after the jobs before it have run)
// or queues it with post() (which waits only while enough jobs are pending)
// and goes on with its own work; wait() returns once every job handed over
// has run, and everything the jobs wrote is then visible to the owner (the
// handover is a mutex). Between queued jobs the thread does not sleep, so a
// job can follow the one before without waiting for the owner to wake. The
// thread starts with the first job; it blocks the asynchronous signals, so
// that they reach the program's own threads as before (the signals a write
// raises in the thread that makes it, SIGPIPE and SIGXFSZ, stay open). When
// no thread can be started, each job runs at once on the owner's thread.
#pragma once

#include <condition_variable>
#include <deque>
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

    // Hands `job` over (after the ones before have run).
    void run(std::function<void()> job);
    // Queues `job` behind the ones pending; waits first while `most` jobs
    // (at least one) are pending, the one running included.
    void post(std::function<void()> job, int most);
    // Starts the thread, if it is not running yet; false when it cannot be
    // started (jobs then run at once on the owner's thread).
    bool start();
    // Returns once every job handed over has run.
    void wait();
    // Whether a job is handed over and not yet waited for.
    bool busy() const { return handed_; }

  private:
    void loop();
    // Waits (holding `lock`) while more than `most` jobs are pending.
    void wait_pending(std::unique_lock<std::mutex> &lock, int most);

    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> jobs_; // queued, not yet started
    int pending_ = 0;                        // queued or running
    bool owner_waits_ = false;
    bool stop_ = false;
    bool handed_ = false; // the owner's view: a job was handed over
    std::thread thread_;
};

} // namespace laytran
