#pragma once

#include <QCoroTask>

namespace lofthaven {

// Lets a started task run on by itself. What it throws is logged, never lost silently; every
// task started this way routes its own failures to a state or a notice first.
void detach(QCoro::Task<void> task);

// The same for a task whose result nobody waits for.
template<typename T>
void detach(QCoro::Task<T> task)
{
    auto dropping = [](QCoro::Task<T> running) -> QCoro::Task<void> { co_await running; };
    detach(dropping(std::move(task)));
}

} // namespace lofthaven
