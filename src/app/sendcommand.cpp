#include "app/sendcommand.h"

#include "api/accountsession.h"
#include "api/apperror.h"
#include "app/progressprinter.h"
#include "model/historyfile.h"
#include "platform/bytecount.h"
#include "platform/devicename.h"
#include "platform/folders.h"
#include "platform/preferences.h"
#include "platform/runinpool.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace lofthaven {

namespace {

constexpr qint64 kAnonymousLimit = 524288000; // 500 MiB
constexpr qint64 kThreeDays = 259200;
const QList<qint64> kAnonymousExpiries = {3600, 86400, 259200};

// What this sender may send: the signed-in account's limits, or the anonymous ones.
struct SendLimits
{
    bool signedIn = false;
    qint64 maxBytes = kAnonymousLimit;
    QList<qint64> expiries = kAnonymousExpiries;
};

SendLimits limitsOf(const AccountSession &session)
{
    SendLimits limits;
    limits.signedIn = session.token().has_value();
    if (limits.signedIn && session.me() && session.me()->limits &&
        !session.me()->limits->expiries.isEmpty()) {
        limits.maxBytes = session.me()->limits->maxBytes;
        limits.expiries = session.me()->limits->expiries;
    }
    return limits;
}

// The preferred lifetime when the account allows it, else three days, else the longest allowed.
qint64 defaultLifetime(const SendLimits &limits)
{
    const qint64 preferred = integerPreference(Preference::DefaultExpiry);
    if (limits.expiries.contains(preferred))
        return preferred;
    if (limits.expiries.contains(kThreeDays))
        return kThreeDays;
    return *std::max_element(limits.expiries.cbegin(), limits.expiries.cend());
}

QString spacedCode(const QString &code)
{
    return code.size() == 6 ? code.left(3) + QLatin1Char(' ') + code.mid(3) : code;
}

// Nothing when the plan may be sent, else the sentence that forbids it.
std::optional<QString> sendBlocker(const SendPlan &plan, bool toSelf, const SendLimits &limits)
{
    if (toSelf && !limits.signedIn)
        return QStringLiteral("Sign in to send files to your devices.");
    if (plan.size > limits.maxBytes)
        return plan.name + QStringLiteral(" is ") + formatByteCount(plan.size) +
               QStringLiteral("; the limit is ") + formatByteCount(limits.maxBytes) +
               QStringLiteral(" per transfer") +
               (limits.signedIn ? QStringLiteral(" on your plan.")
                                : QStringLiteral(" without an account. Sign in for free to send "
                                                 "up to 2 GB."));
    return std::nullopt;
}

} // namespace

void addSendOptions(QCommandLineParser &parser)
{
    parser.addOptions({
        {QStringLiteral("expires"),
         QStringLiteral("Link lifetime in seconds: 3600, 86400 or 259200 (default); signed in, "
                        "also the longer ones your plan allows."),
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
    AccountSession &session = *context.session;
    if (session.token()) {
        // Current limits; a token the service no longer takes signs out here.
        auto refreshing = session.refresh(context.stop);
        co_await refreshing;
        if (const auto notice = session.notice())
            CommandContext::printError(*notice);
        context.client = session.client();
    }
    const SendLimits limits = limitsOf(session);
    SendOptions options;
    options.expiresIn = defaultLifetime(limits);
    if (parser.isSet(QStringLiteral("expires"))) {
        bool ok = false;
        options.expiresIn = parser.value(QStringLiteral("expires")).toLongLong(&ok);
        if (!ok || !limits.expiries.contains(options.expiresIn)) {
            QStringList allowed;
            for (qint64 seconds : limits.expiries)
                allowed << QString::number(seconds);
            const QString last = allowed.takeLast();
            CommandContext::printError(QStringLiteral("--expires takes ") +
                                       (allowed.isEmpty() ? last
                                                          : allowed.join(QStringLiteral(", ")) +
                                                                QStringLiteral(" or ") + last) +
                                       QStringLiteral(" seconds."));
            co_return CommandContext::kUsage;
        }
    }
    if (parser.isSet(QStringLiteral("downloads"))) {
        bool ok = false;
        options.maxDownloads = parser.value(QStringLiteral("downloads")).toLongLong(&ok);
        if (!ok || options.maxDownloads < 0) {
            CommandContext::printError(QStringLiteral("--downloads takes a whole number."));
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
        if (const auto blocker = sendBlocker(plan, options.toSelf, limits))
            throw AppError(*blocker);

        auto counter = std::make_shared<ProgressCounter>();
        Uploader uploader(context.client, plan, options, tempFolder(), counter);
        uploader.setSource(QStringLiteral("cli"));
        if (options.toSelf)
            uploader.setDeviceName(deviceName());
        ProgressPrinter progress(QStringLiteral("Sending"), plan.size, counter);
        progress.start();
        auto uploading = uploader.run(context.stop);
        const UploadResult result = co_await uploading;
        progress.stop();
        // The app's history lists it too, with the owner token for extend and delete.
        HistoryFile::add(
            HistoryFile::defaultPath(),
            HistoryEntry::fromUpload(result, plan, options,
                                     double(QDateTime::currentDateTimeUtc().toMSecsSinceEpoch())));

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
