#include "app/historycommands.h"

#include "api/accountsession.h"
#include "model/appmodel.h"
#include "model/sendrules.h"
#include "platform/bytecount.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace lofthaven {

namespace {

QString when(double ms)
{
    return QDateTime::fromMSecsSinceEpoch(qint64(ms))
        .toLocalTime()
        .toString(QStringLiteral("yyyy-MM-dd HH:mm"));
}

void printJson(const QJsonValue &value)
{
    const QJsonDocument document =
        value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    CommandContext::printOut(QString::fromUtf8(document.toJson(QJsonDocument::Indented)).trimmed());
}

// What extend, delete and forget act on: the history entry their one ID names, with the model
// that holds it. Without one, exitCode says why and the reason has been printed.
struct Target
{
    std::unique_ptr<AppModel> model;
    std::optional<HistoryEntry> entry;
    int exitCode = 0;
};

Target target(const CommandContext &context, const char *verb)
{
    const QStringList positional = context.parser->positionalArguments();
    if (positional.size() != 1) {
        CommandContext::printError(
            QString::fromLatin1(verb) +
            QStringLiteral(" takes one transfer ID (see lofthaven history)."));
        return {nullptr, std::nullopt, CommandContext::kUsage};
    }
    const QString &id = positional.first();
    auto model = std::make_unique<AppModel>(context.session);
    std::optional<HistoryEntry> entry = model->history()->find(id);
    if (!entry) {
        CommandContext::printError(QStringLiteral("No transfer with the ID ") + id +
                                   QStringLiteral(" in the history."));
        return {std::move(model), std::nullopt, CommandContext::kFailed};
    }
    return {std::move(model), std::move(entry), 0};
}

bool confirmed(const QString &question)
{
    std::fputs(question.toUtf8().constData(), stderr);
    std::fflush(stderr);
    const std::optional<QString> answer = CommandContext::readSecretLine();
    const QString word = answer.value_or(QString()).trimmed().toLower();
    return word == u"y" || word == u"yes";
}

} // namespace

void addHistoryOptions(QCommandLineParser &parser, const QString &verb)
{
    if (verb == u"history" || verb == u"inbox") {
        parser.setApplicationDescription(verb == u"history"
                                             ? QStringLiteral("List the transfers sent from this "
                                                              "computer.")
                                             : QStringLiteral("List the files sent to your "
                                                              "devices (signed in)."));
        parser.addOption(
            {QStringLiteral("json"), QStringLiteral("Print a JSON array instead of text.")});
        return;
    }
    if (verb == u"delete") {
        parser.setApplicationDescription(
            QStringLiteral("Delete a transfer: the link and code stop working for everyone."));
        parser.addOption({QStringLiteral("yes"), QStringLiteral("Do not ask for confirmation.")});
    } else if (verb == u"extend") {
        parser.setApplicationDescription(
            QStringLiteral("Extend a transfer by 3 days (once per transfer)."));
    } else {
        parser.setApplicationDescription(
            QStringLiteral("Remove a transfer from the history; the link keeps working."));
    }
    parser.addPositionalArgument(QStringLiteral("ID"), QStringLiteral("The transfer's ID."));
}

QCoro::Task<int> historyCommand(CommandContext context)
{
    AppModel model(context.session);
    const QList<HistoryEntry> &entries = model.history()->entries();
    if (context.parser->isSet(QStringLiteral("json"))) {
        QJsonArray array;
        for (const HistoryEntry &entry : entries) {
            // Everything but the owner token, which stays in the 0600 file.
            QJsonObject object = entry.toJson();
            object.remove(QStringLiteral("ownerToken"));
            object.insert(QStringLiteral("extended"), entry.isExtended());
            object.insert(QStringLiteral("toSelf"), entry.isToSelf());
            array.append(object);
        }
        printJson(array);
        co_return 0;
    }
    if (entries.isEmpty()) {
        CommandContext::printOut(QStringLiteral("Nothing sent from this computer yet."));
        co_return 0;
    }
    const double now = double(QDateTime::currentMSecsSinceEpoch());
    for (const HistoryEntry &entry : entries) {
        QString status =
            (entry.expiresAt <= now ? QStringLiteral("expired ") : QStringLiteral("expires ")) +
            when(entry.expiresAt);
        if (entry.isExtended())
            status += QStringLiteral(", extended");
        if (entry.isToSelf())
            status += QStringLiteral(", to my devices");
        CommandContext::printOut(entry.name + QStringLiteral(" (") + formatByteCount(entry.size) +
                                 QLatin1Char(')'));
        CommandContext::printOut(QStringLiteral("  Code: ") + sendrules::spacedCode(entry.code) +
                                 QStringLiteral("  Link: ") + entry.url);
        CommandContext::printOut(QStringLiteral("  ID: ") + entry.id + QStringLiteral("  ") +
                                 status);
    }
    co_return 0;
}

QCoro::Task<int> extendCommand(CommandContext context)
{
    const Target chosen = target(context, "extend");
    if (!chosen.entry)
        co_return chosen.exitCode;
    AppModel &model = *chosen.model;
    const QString id = chosen.entry->id;
    auto extending = model.extendTask(id);
    const bool extended = co_await extending;
    if (extended)
        CommandContext::printOut(model.notice() + QStringLiteral(" Expires ") +
                                 when(model.history()->find(id)->expiresAt) + u'.');
    else
        CommandContext::printError(model.notice());
    co_return extended ? 0 : CommandContext::kFailed;
}

QCoro::Task<int> deleteCommand(CommandContext context)
{
    const Target chosen = target(context, "delete");
    if (!chosen.entry)
        co_return chosen.exitCode;
    const HistoryEntry &entry = *chosen.entry;
    if (!context.parser->isSet(QStringLiteral("yes")) && ::isatty(STDIN_FILENO) &&
        !confirmed(QStringLiteral("Delete ") + entry.name +
                   QStringLiteral("? The link and code stop working for everyone. [y/N] "))) {
        CommandContext::printError(QStringLiteral("Not deleted."));
        co_return CommandContext::kFailed;
    }
    auto deleting = chosen.model->deleteTask(entry.id);
    if (!co_await deleting) {
        CommandContext::printError(chosen.model->notice());
        co_return CommandContext::kFailed;
    }
    CommandContext::printOut(QStringLiteral("Deleted ") + entry.name + u'.');
    co_return 0;
}

QCoro::Task<int> forgetCommand(CommandContext context)
{
    const Target chosen = target(context, "forget");
    if (!chosen.entry)
        co_return chosen.exitCode;
    chosen.model->forget(chosen.entry->id);
    CommandContext::printOut(QStringLiteral("Removed ") + chosen.entry->name +
                             QStringLiteral(" from the history. Its link keeps working."));
    co_return 0;
}

QCoro::Task<int> inboxCommand(CommandContext context)
{
    AppModel model(context.session);
    if (!model.signedIn()) {
        CommandContext::printError(
            QStringLiteral("Sign in to see files from your devices: lofthaven login"));
        co_return CommandContext::kFailed;
    }
    // A plain listing: announcing, seeding and auto-downloading stay with the app.
    InboxResponse inbox;
    try {
        auto loading = model.session()->client().inbox(context.stop);
        inbox = co_await loading;
    } catch (...) {
        co_return context.fail(std::current_exception());
    }
    const QSet<QString> seen = model.seenInbox();
    if (context.parser->isSet(QStringLiteral("json"))) {
        QJsonArray array;
        for (const TransferMeta &item : inbox.items) {
            QJsonObject object = item.toJson();
            object.insert(QStringLiteral("new"), !seen.contains(item.id));
            array.append(object);
        }
        printJson(array);
        co_return 0;
    }
    if (inbox.items.isEmpty()) {
        CommandContext::printOut(QStringLiteral("Nothing from your devices."));
        co_return 0;
    }
    for (const TransferMeta &item : inbox.items) {
        QString line = item.name + QStringLiteral(" (") + formatByteCount(item.size) +
                       QStringLiteral(") from ") +
                       item.device.value_or(QStringLiteral("your device"));
        if (item.hasPassword.value_or(false))
            line += QStringLiteral(", password protected");
        if (!seen.contains(item.id))
            line += QStringLiteral(", new");
        CommandContext::printOut(line);
        CommandContext::printOut(QStringLiteral("  ") + item.url.value_or(item.id));
    }
    co_return 0;
}

} // namespace lofthaven
