#include "app/receivecommand.h"

#include "api/apperror.h"
#include "app/progressprinter.h"
#include "platform/folders.h"
#include "platform/runinpool.h"
#include "receive/downloadjob.h"
#include "receive/downloadtopartial.h"
#include "receive/lookup.h"
#include "receive/moveintoplace.h"
#include "receive/unzipinplace.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace lofthaven {

void addReceiveOptions(QCommandLineParser &parser)
{
    parser.addOptions({
        {QStringLiteral("to"), QStringLiteral("Folder to save into (default: Downloads)."),
         QStringLiteral("dir")},
        {QStringLiteral("no-unzip"), QStringLiteral("Keep a zipped folder as its .zip file.")},
        {QStringLiteral("password-stdin"),
         QStringLiteral("Read the transfer's password from standard input.")},
        {QStringLiteral("json"), QStringLiteral("Print one JSON object instead of text.")},
    });
    parser.addPositionalArgument(QStringLiteral("CODE-OR-LINK"),
                                 QStringLiteral("The 6-digit code or the link."));
}

QCoro::Task<int> receiveCommand(CommandContext context)
{
    QCommandLineParser &parser = *context.parser;
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1) {
        CommandContext::printError(QStringLiteral("receive takes one code or link."));
        co_return CommandContext::kUsage;
    }
    const QString folder = parser.isSet(QStringLiteral("to"))
                               ? QFileInfo(parser.value(QStringLiteral("to"))).absoluteFilePath()
                               : downloadFolder();
    const bool json = parser.isSet(QStringLiteral("json"));

    try {
        QString password;
        if (parser.isSet(QStringLiteral("password-stdin"))) {
            const auto line = CommandContext::readSecretLine();
            if (!line || line->isEmpty())
                throw AppError(QStringLiteral("No password on standard input."));
            password = *line;
        }
        auto resolving =
            lookupTransfer(context.client, positional.first(), context.serviceHost, context.stop);
        const TransferMeta meta = co_await resolving;
        auto unlocking = unlockTransfer(context.client, meta, password, context.stop);
        const std::optional<QString> token = co_await unlocking;

        auto counter = std::make_shared<ProgressCounter>();
        const QString partial = partialPathFor(tempFolder(), meta.id);
        ProgressPrinter progress(QStringLiteral("Receiving"), meta.size, counter);
        progress.start();
        auto fetching = downloadToPartial(context.client, meta.id, token, meta.size, false, partial,
                                          counter, context.stop);
        co_await fetching;
        progress.stop();

        auto moving = runInPool(
            [partial, name = meta.name, folder] { return moveIntoPlace(partial, name, folder); });
        QString saved = co_await moving;
        if (shouldUnzip(meta, !parser.isSet(QStringLiteral("no-unzip")))) {
            const qint64 budget = meta.size + meta.size / 10 + (64 << 20);
            auto unzipping = runInPool([saved, budget] { return unzipInPlace(saved, budget); });
            saved = co_await unzipping;
        }
        if (json) {
            QJsonObject object{{QStringLiteral("path"), saved},
                               {QStringLiteral("id"), meta.id},
                               {QStringLiteral("name"), meta.name},
                               {QStringLiteral("size"), double(meta.size)}};
            CommandContext::printOut(
                QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
        } else {
            CommandContext::printOut(saved);
        }
        co_return 0;
    } catch (...) {
        co_return context.fail(std::current_exception());
    }
}

} // namespace lofthaven
