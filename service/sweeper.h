#pragma once

#include "servicecontext.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace lofthaven::service {

// Expired transfers lose their bytes (their rows stay a week, so links answer
// "expired"), and files nobody references are removed: now, and every
// --sweep-seconds on its own thread between start() and stop().
class Sweeper
{
public:
    explicit Sweeper(ServiceContext &context);
    ~Sweeper();

    void sweep();
    void start();
    void stop();

private:
    void loop();

    ServiceContext &m_context;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace lofthaven::service
