#include "app_tasks.h"

#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include <QCoreApplication>
#include <QMetaObject>

namespace dedup::app::tasks {

namespace {

std::mutex lock;
std::condition_variable ended;
int count = 0;

}  // namespace

void run(std::function<void()> work) {
    {
        std::lock_guard guard(lock);
        ++count;
    }
    auto task = [work = std::move(work)] {
        work();
        std::lock_guard guard(lock);
        --count;
        ended.notify_all();
    };
    try {
        std::thread(task).detach();
    } catch (const std::system_error&) {
        // No thread to be had (a process or memory limit): the work is done here, the window
        // waits, and nothing is left half-started.
        task();
    }
}

void onMainThread(std::function<void()> call) {
    // The application object outlives every task: main() waits for them before it ends.
    if (auto* application = QCoreApplication::instance()) {
        QMetaObject::invokeMethod(application, std::move(call), Qt::QueuedConnection);
    }
}

int running() {
    std::lock_guard guard(lock);
    return count;
}

void waitAll() {
    std::unique_lock guard(lock);
    ended.wait(guard, [] { return count == 0; });
}

}  // namespace dedup::app::tasks
