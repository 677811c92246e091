// One named thread that runs tasks one after another, with an optional repeating timer and an
// optional descriptor whose readiness it handles, so that every piece of state the tasks, the timer
// and the descriptor handler touch belongs to that one thread and needs no lock.
//
// Any thread may post or wait for tasks. The timer and the descriptor are set from tasks running on
// the queue. Destroying the queue finishes the task under way, drops what is still waiting, and
// joins the thread; it must not be destroyed from its own thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/events.h"

namespace dedup {

class SerialQueue {
public:
    using Clock = std::chrono::steady_clock;

    // `setup` runs first on the new thread (to name it or lower its priority).
    explicit SerialQueue(std::string name, std::function<void()> setup = {});
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> task);
    // Runs the task on the queue and returns when it is done; an exception it throws is thrown
    // here. Called on the queue itself, it runs the task at once.
    void sync(const std::function<void()>& task);
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

    // On the queue only. The handler first runs as soon as the current task ends, then every
    // `interval`; a handler that overruns is not run twice to catch up.
    void setTimer(Clock::duration interval, std::function<void()> handler);
    void cancelTimer();
    // On the queue only. The handler runs whenever the descriptor is readable.
    void setReader(int descriptor, std::function<void()> handler);
    void clearReader();

private:
    void run(const std::function<void()>& setup);

    std::string name_;
    platform::Wakeup wakeup_;
    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;

    // Touched only by the queue's thread.
    std::function<void()> timerHandler_;
    Clock::duration interval_{};
    Clock::time_point nextFire_{};
    int reader_ = -1;
    std::function<void()> readerHandler_;

    std::thread thread_;  // last: it starts once everything above is ready
};

}  // namespace dedup
