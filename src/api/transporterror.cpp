#include "api/transporterror.h"

namespace lofthaven {

TransportError::TransportError(QString description, bool retryable, int curlCode)
    : m_description(std::move(description))
    , m_retryable(retryable)
    , m_curlCode(curlCode)
    , m_utf8(m_description.toUtf8())
{}

} // namespace lofthaven
