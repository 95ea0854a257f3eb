#pragma once

#include <QCoroFuture>
#include <QCoroTask>
#include <QUnhandledException>
#include <QtConcurrent/QtConcurrentRun>

#include <exception>
#include <type_traits>

namespace lofthaven {

// Runs blocking work (file system walks, reads, spills, moves) on the global thread pool and
// resumes the awaiting coroutine on its own thread. An exception thrown by `work` reaches the
// awaiting coroutine as itself, not wrapped in QUnhandledException, so the user still sees
// the original sentence.
template<typename F>
auto runInPool(F work) -> QCoro::Task<std::invoke_result_t<F>>
{
    using Result = std::invoke_result_t<F>;
    QFuture<Result> future = QtConcurrent::run(std::move(work));
    try {
        if constexpr (std::is_void_v<Result>) {
            co_await future;
            future.waitForFinished(); // rethrows what the work threw
        } else {
            co_await future;
            co_return future.result();
        }
    } catch (const QUnhandledException &wrapped) {
        if (wrapped.exception())
            std::rethrow_exception(wrapped.exception());
        throw;
    }
}

} // namespace lofthaven
