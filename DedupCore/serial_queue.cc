#include "serial_queue.h"

#include <future>
#include <vector>

namespace dedup {

SerialQueue::SerialQueue(std::string name, std::function<void()> setup)
    : name_(std::move(name)), thread_([this, setup = std::move(setup)] { run(setup); }) {}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wakeup_.notify();
    thread_.join();
}

void SerialQueue::async(std::function<void()> task) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        tasks_.push_back(std::move(task));
    }
    wakeup_.notify();
}

void SerialQueue::sync(const std::function<void()>& task) {
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    finished.get();
}

void SerialQueue::setTimer(Clock::duration interval, std::function<void()> handler) {
    timerHandler_ = std::move(handler);
    interval_ = interval;
    nextFire_ = Clock::now();
}

void SerialQueue::cancelTimer() { timerHandler_ = nullptr; }

void SerialQueue::setReader(int descriptor, std::function<void()> handler) {
    reader_ = descriptor;
    readerHandler_ = std::move(handler);
}

void SerialQueue::clearReader() {
    reader_ = -1;
    readerHandler_ = nullptr;
}

void SerialQueue::run(const std::function<void()>& setup) {
    if (setup) setup();
    for (;;) {
        std::vector<int> descriptors{wakeup_.descriptor()};
        if (reader_ >= 0) descriptors.push_back(reader_);
        std::optional<std::chrono::milliseconds> timeout;
        if (timerHandler_) {
            auto left = std::chrono::ceil<std::chrono::milliseconds>(nextFire_ - Clock::now());
            timeout = std::max(left, std::chrono::milliseconds(0));
        }
        auto ready = platform::waitReadable(descriptors, timeout);
        if (ready[0]) wakeup_.drain();

        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            tasks.swap(tasks_);
        }
        for (auto& task : tasks) task();

        // A task may have replaced or cleared the reader: only the one polled is asked.
        if (ready.size() > 1 && ready[1] && reader_ == descriptors[1] && readerHandler_) readerHandler_();
        if (timerHandler_ && Clock::now() >= nextFire_) {
            nextFire_ = Clock::now() + interval_;
            timerHandler_();
        }
    }
}

}  // namespace dedup
