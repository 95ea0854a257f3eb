#pragma once

#include <QString>

#include <exception>

namespace lofthaven {

// The sentence the screens show for any failure: APIError, AppError, TransportError,
// DecodeError (unwrapping QUnhandledException from QtConcurrent::run), or a plain exception.
QString userMessage(const std::exception_ptr &error);
QString userMessage(const std::exception &error);

} // namespace lofthaven
