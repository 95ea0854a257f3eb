#pragma once

#include <QCoroTask>

namespace lofthaven {

// Lets a started task run on by itself. What it throws is logged, never lost silently; every
// task started this way routes its own failures to a state or a notice first.
void detach(QCoro::Task<void> task);

} // namespace lofthaven
