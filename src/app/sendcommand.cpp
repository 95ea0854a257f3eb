#include "app/sendcommand.h"

#include "api/apperror.h"
#include "app/progressprinter.h"
#include "platform/bytecount.h"
#include "platform/folders.h"
#include "platform/runinpool.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <limits>

namespace lofthaven {

namespace {

constexpr qint64 kAnonymousLimit = 524288000; // 500 MiB
constexpr qint64 kDefaultExpiry = 259200;     // three days
const QList<qint64> kAnonymousExpiries = {3600, 86400, 259200};

QString spacedCode(const QString &code)
{
    return code.size() == 6 ? code.left(3) + QLatin1Char(' ') + code.mid(3) : code;
}

// Nothing when the plan may be sent anonymously, else the sentence that forbids it.
std::optional<QString> sendBlocker(const SendPlan &plan, bool toSelf)
{
    if (toSelf)
        return QStringLiteral("Sign in to send files to your devices.");
    if (plan.size > kAnonymousLimit)
        return plan.name + QStringLiteral(" is ") + formatByteCount(plan.size) +
               QStringLiteral("; the limit is ") + formatByteCount(kAnonymousLimit) +
               QStringLiteral(" per transfer without an account. Sign in for free to send up "
                              "to 2 GB.");
    return std::nullopt;
}

} // namespace

void addSendOptions(QCommandLineParser &parser)
{
    parser.addOptions({
        {QStringLiteral("expires"),
         QStringLiteral("Link lifetime in seconds: 3600, 86400 or 259200 (default)."),
         QStringLiteral("seconds")},
        {QStringLiteral("downloads"), QStringLiteral("Download limit (default: unlimited)."),
         QStringLiteral("n")},
        {QStringLiteral("title"), QStringLiteral("Title shown to the receiver."),
         QStringLiteral("text")},
        {QStringLiteral("message"), QStringLiteral("Note for the receiver."),
         QStringLiteral("text")},
        {QStringLiteral("password-stdin"),
         QStringLiteral("Protect the transfer with a password read from standard input.")},
        {QStringLiteral("to-devices"), QStringLiteral("Send to your own devices (signed in).")},
        {QStringLiteral("json"), QStringLiteral("Print one JSON object instead of text.")},
    });
    parser.addPositionalArgument(QStringLiteral("PATH"), QStringLiteral("Files and folders."),
                                 QStringLiteral("PATH..."));
}

QCoro::Task<int> sendCommand(CommandContext context)
{
    QCommandLineParser &parser = *context.parser;
    SendOptions options;
    options.expiresIn = kDefaultExpiry;
    if (parser.isSet(QStringLiteral("expires"))) {
        bool ok = false;
        options.expiresIn = parser.value(QStringLiteral("expires")).toLongLong(&ok);
        if (!ok || !kAnonymousExpiries.contains(options.expiresIn)) {
            CommandContext::printError(
                QStringLiteral("--expires takes 3600, 86400 or 259200 seconds."));
            co_return CommandContext::kUsage;
        }
    }
    if (parser.isSet(QStringLiteral("downloads"))) {
        bool ok = false;
        options.maxDownloads = parser.value(QStringLiteral("downloads")).toLongLong(&ok);
        // The service keeps the limit in 32 bits; a larger number must not wrap around.
        if (!ok || options.maxDownloads < 0 ||
            options.maxDownloads > std::numeric_limits<qint32>::max()) {
            CommandContext::printError(
                QStringLiteral("--downloads takes a whole number from 0 to 2147483647."));
            co_return CommandContext::kUsage;
        }
    }
    options.title = parser.value(QStringLiteral("title"));
    options.message = parser.value(QStringLiteral("message"));
    options.toSelf = parser.isSet(QStringLiteral("to-devices"));
    const bool json = parser.isSet(QStringLiteral("json"));

    try {
        if (parser.isSet(QStringLiteral("password-stdin"))) {
            const auto password = CommandContext::readSecretLine();
            if (!password || password->isEmpty())
                throw AppError(QStringLiteral("No password on standard input."));
            options.password = *password;
        }
        QList<QString> paths;
        for (const QString &path : parser.positionalArguments())
            paths.append(QFileInfo(path).absoluteFilePath());
        auto planning = runInPool([paths] { return SendPlan::make(paths); });
        const SendPlan plan = co_await planning;
        if (const auto blocker = sendBlocker(plan, options.toSelf))
            throw AppError(*blocker);

        auto counter = std::make_shared<ProgressCounter>();
        Uploader uploader(context.client, plan, options, tempFolder(), counter);
        uploader.setSource(QStringLiteral("cli"));
        ProgressPrinter progress(QStringLiteral("Sending"), plan.size, counter);
        progress.start();
        auto uploading = uploader.run(context.stop);
        const UploadResult result = co_await uploading;
        progress.stop();

        const CompletedTransfer &done = result.completed;
        if (json) {
            QJsonObject object{
                {QStringLiteral("id"), done.id},
                {QStringLiteral("code"), done.code},
                {QStringLiteral("url"), done.url},
                {QStringLiteral("codeUrl"),
                 done.codeUrl.value_or(result.created.codeUrl.value_or(QString()))},
                {QStringLiteral("expiresAt"), done.expiresAt},
                {QStringLiteral("size"), double(done.size.value_or(plan.size))},
            };
            CommandContext::printOut(
                QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
        } else {
            CommandContext::printOut(QStringLiteral("Sent ") + plan.name + QStringLiteral(" (") +
                                     formatByteCount(plan.size) + QLatin1Char(')'));
            CommandContext::printOut(QStringLiteral("Code: ") + spacedCode(done.code));
            CommandContext::printOut(QStringLiteral("Link: ") + done.url);
        }
        co_return 0;
    } catch (...) {
        co_return context.fail(std::current_exception());
    }
}

} // namespace lofthaven
