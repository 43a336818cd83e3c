#include "ThreadPool.h"

#include <Poco/Runnable.h>
#include <Poco/ThreadPool.h>

namespace vlm {
namespace {

// Poco's pool runs Runnables by reference; each task owns itself and is freed
// once it has run.
class TaskRunnable : public Poco::Runnable {
public:
    explicit TaskRunnable(std::function<void()> t) : task(std::move(t)) {}
    void run() override
    {
        try {
            task();
        } catch (...) {
            // A task's failure is its owner's business; it must not take a
            // pool thread down with it.
        }
        delete this;
    }

private:
    std::function<void()> task;
};

} // namespace

ThreadPool& ThreadPool::defaultPool()
{
    static ThreadPool* pool = new ThreadPool(2, 16);  // lives until process exit
    return *pool;
}

ThreadPool::ThreadPool(int minThreads, int maxThreads) : pool(new Poco::ThreadPool(minThreads, maxThreads)) {}

ThreadPool::~ThreadPool()
{
    pool->joinAll();
}

void ThreadPool::start(std::function<void()> task)
{
    auto* runnable = new TaskRunnable(std::move(task));
    try {
        pool->start(*runnable);
    } catch (...) {
        delete runnable;
        throw;
    }
}

int ThreadPool::available() const
{
    return pool->available();
}

void ThreadPool::joinAll()
{
    pool->joinAll();
}

} // namespace vlm
