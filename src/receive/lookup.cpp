#include "receive/lookup.h"

#include "api/apierror.h"
#include "api/apperror.h"
#include "api/transferid.h"
#include "receive/receivetarget.h"

namespace lofthaven {

QCoro::Task<TransferMeta> lookupTransfer(APIClient client, QString input, QString serviceHost,
                                         std::stop_token stop)
{
    const std::optional<ReceiveTarget> target = normalizeReceiveInput(input);
    // Identifiers go into the request path as they are, so only letters and digits pass
    // (a lofthaven://d/.. link must not reach another endpoint).
    if (!target || !isTransferId(target->value))
        throw AppError(QStringLiteral("Enter the 6-digit code or paste a ") + serviceHost +
                       QStringLiteral(" link."));
    try {
        QString id = target->value;
        if (target->kind == ReceiveTarget::Kind::Code) {
            auto resolving = client.lookupCode(target->value, stop);
            id = (co_await resolving).id;
        }
        auto describing = client.transfer(id, stop);
        co_return co_await describing;
    } catch (const APIError &error) {
        if (error.status() == 404)
            throw AppError(QStringLiteral("No active transfer uses that code or link."));
        throw;
    }
}

QCoro::Task<std::optional<QString>> unlockTransfer(APIClient client, TransferMeta meta,
                                                   QString password, std::stop_token stop)
{
    if (!meta.hasPassword.value_or(false))
        co_return std::nullopt;
    if (password.isEmpty())
        throw AppError(QStringLiteral("This transfer is password protected. Enter the password."));
    auto unlocking = client.unlock(meta.id, password, stop);
    co_return (co_await unlocking).token;
}

} // namespace lofthaven
