#include "api/usermessage.h"

#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/decodeerror.h"
#include "api/transporterror.h"

#include <QUnhandledException>

namespace lofthaven {

QString userMessage(const std::exception &error)
{
    if (auto *e = dynamic_cast<const APIError *>(&error))
        return e->description();
    if (auto *e = dynamic_cast<const AppError *>(&error))
        return e->message();
    if (auto *e = dynamic_cast<const TransportError *>(&error))
        return e->description();
    if (auto *e = dynamic_cast<const DecodeError *>(&error))
        return e->description();
    if (dynamic_cast<const Cancelled *>(&error))
        return QStringLiteral("Cancelled.");
    if (auto *e = dynamic_cast<const QUnhandledException *>(&error); e && e->exception())
        return userMessage(e->exception());
    return QString::fromUtf8(error.what());
}

QString userMessage(const std::exception_ptr &error)
{
    if (!error)
        return {};
    try {
        std::rethrow_exception(error);
    } catch (const std::exception &e) {
        return userMessage(e);
    } catch (...) {
        return QStringLiteral("Something went wrong.");
    }
}

} // namespace lofthaven
