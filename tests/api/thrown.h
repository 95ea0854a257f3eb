#pragma once

#include "platform/waitfortask.h"

#include <optional>

// Runs the task to its end; returns the Error it threw, or nothing when it succeeded. Any other
// exception passes through and fails the test.
template<class Error, class T>
std::optional<Error> thrown(QCoro::Task<T> task)
{
    try {
        lofthaven::waitForTask(std::move(task));
    } catch (const Error &error) {
        return error;
    }
    return std::nullopt;
}
