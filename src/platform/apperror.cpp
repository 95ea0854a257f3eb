#include "platform/apperror.h"

namespace lofthaven {

AppError::AppError(QString message)
    : m_message(std::move(message))
    , m_utf8(m_message.toUtf8())
{}

} // namespace lofthaven
