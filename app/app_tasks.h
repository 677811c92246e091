// Background work of the application: each task runs on a thread of its own and hands its result
// back to the main thread by a queued call. Tasks are counted so that the process, when it ends,
// can wait for a reclaim to finish the replacement under way instead of cutting it.
#pragma once

#include <functional>

namespace dedup::app::tasks {

// Starts `work` on a new thread. `work` must not throw; whatever it catches it reports itself.
void run(std::function<void()> work);
// Queues `call` to run on the main thread's event loop.
void onMainThread(std::function<void()> call);
int running();
// Blocks until every task has ended.
void waitAll();

}  // namespace dedup::app::tasks
