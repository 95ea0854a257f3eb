#pragma once

#include <QCoroTask>
#include <chrono>
#include <stop_token>

namespace lofthaven {

// Suspends the calling coroutine for `duration` on its own thread's event loop. A stop
// request ends the wait early (from any thread). Returns false when the wait was stopped.
QCoro::Task<bool> stoppableSleep(std::chrono::milliseconds duration, std::stop_token stop);

} // namespace lofthaven
