#pragma once

#include <QCoroTask>
#include <QEventLoop>

#include <exception>
#include <optional>
#include <type_traits>

namespace lofthaven {

// Runs a task to completion in a nested event loop and returns its result or rethrows its
// exception. For the command line's top level and for tests; QCoro 0.8's waitFor loses an
// exception and then never returns.
template<typename T>
T waitForTask(QCoro::Task<T> task)
{
    QEventLoop loop;
    bool done = false;
    std::exception_ptr error;
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> result;
    auto runner = [&]() -> QCoro::Task<void> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await task;
                result.emplace(true);
            } else {
                result.emplace(co_await task);
            }
        } catch (...) {
            error = std::current_exception();
        }
        done = true;
        loop.quit();
    };
    auto running = runner();
    if (!done)
        loop.exec();
    if (error)
        std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*result);
}

} // namespace lofthaven
