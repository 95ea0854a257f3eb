#include "app/accountcommands.h"

#include "api/accountsession.h"
#include "platform/bytecount.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

namespace lofthaven {

namespace {

QString json(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString displayName(const MeResponse &me)
{
    if (!me.user)
        return QStringLiteral("your account");
    if (me.user->name && !me.user->name->isEmpty())
        return *me.user->name;
    if (me.user->email && !me.user->email->isEmpty())
        return *me.user->email;
    return me.user->id;
}

QString lifetimeText(qint64 seconds)
{
    if (seconds % 86400 == 0)
        return seconds == 86400 ? QStringLiteral("1 day")
                                : QString::number(seconds / 86400) + QStringLiteral(" days");
    if (seconds % 3600 == 0)
        return seconds == 3600 ? QStringLiteral("1 hour")
                               : QString::number(seconds / 3600) + QStringLiteral(" hours");
    return QString::number(seconds) + QStringLiteral(" seconds");
}

void openInBrowser(const QUrl &url)
{
    QProcess opener;
    opener.setProgram(QStringLiteral("xdg-open"));
    opener.setArguments({url.toString(QUrl::FullyEncoded)});
    opener.setStandardOutputFile(QProcess::nullDevice());
    opener.setStandardErrorFile(QProcess::nullDevice());
    opener.startDetached();
}

const char *const kSignedOut = "Not signed in. Run 'lofthaven login' to sign in.";

} // namespace

void addLoginOptions(QCommandLineParser &parser)
{
    parser.addOptions({
        {QStringLiteral("no-browser"),
         QStringLiteral("Only print the approval address; do not open the browser.")},
        {QStringLiteral("json"),
         QStringLiteral("Print JSON lines: the code and address, then the account.")},
    });
}

QCoro::Task<int> loginCommand(CommandContext context)
{
    AccountSession &session = *context.session;
    const bool asJson = context.parser->isSet(QStringLiteral("json"));
    const bool browser = !context.parser->isSet(QStringLiteral("no-browser"));

    const QMetaObject::Connection printing =
        QObject::connect(&session, &AccountSession::signInChanged, &session, [&session, asJson] {
            const auto state = session.signIn();
            if (!state || state->phase != SignInState::Phase::Waiting)
                return;
            const QString url = state->url.toString();
            if (asJson) {
                CommandContext::printOut(json(
                    {{QStringLiteral("userCode"), state->userCode}, {QStringLiteral("url"), url}}));
            } else {
                CommandContext::printOut(QStringLiteral("Your code: ") + state->userCode);
                CommandContext::printOut(QStringLiteral("Approve this sign-in at: ") + url);
                CommandContext::printOut(QStringLiteral("Waiting for approval… (Ctrl-C cancels)"));
            }
        });
    if (browser)
        session.setUrlOpener(&openInBrowser);
    std::stop_callback cancel(context.stop, [&session] { session.cancelSignIn(); });

    auto signingIn = session.startSignIn();
    co_await signingIn;
    QObject::disconnect(printing);

    if (context.stop.stop_requested()) {
        CommandContext::printError(QStringLiteral("Cancelled."));
        co_return CommandContext::kInterrupted;
    }
    if (const auto state = session.signIn(); state && state->phase == SignInState::Phase::Failed) {
        CommandContext::printError(state->message);
        co_return CommandContext::kFailed;
    }
    if (!session.token() || !session.me()) {
        // Signed in, then the first account refresh already refused the token.
        CommandContext::printError(session.notice().value_or(QString::fromLatin1(kSignedOut)));
        co_return CommandContext::kFailed;
    }
    if (const auto notice = session.notice())
        CommandContext::printError(*notice);
    if (asJson)
        CommandContext::printOut(json(session.me()->toJson()));
    else
        CommandContext::printOut(QStringLiteral("Signed in as ") + displayName(*session.me()) +
                                 QLatin1Char('.'));
    co_return 0;
}

QCoro::Task<int> logoutCommand(CommandContext context)
{
    AccountSession &session = *context.session;
    const bool wasSignedIn = session.token().has_value();
    auto signingOut = session.signOut();
    co_await signingOut;
    CommandContext::printOut(wasSignedIn ? QStringLiteral("Signed out.")
                                         : QStringLiteral("Not signed in."));
    co_return 0;
}

void addWhoamiOptions(QCommandLineParser &parser)
{
    parser.addOption(
        {QStringLiteral("json"), QStringLiteral("Print the account as one JSON object.")});
}

QCoro::Task<int> whoamiCommand(CommandContext context)
{
    AccountSession &session = *context.session;
    if (session.token()) {
        // The service's current view; offline, the cached account answers.
        auto refreshing = session.refresh(context.stop);
        co_await refreshing;
    }
    if (!session.token() || !session.me()) {
        CommandContext::printError(session.notice().value_or(QString::fromLatin1(kSignedOut)));
        co_return CommandContext::kFailed;
    }
    const MeResponse me = *session.me();
    if (context.parser->isSet(QStringLiteral("json"))) {
        CommandContext::printOut(json(me.toJson()));
        co_return 0;
    }
    QString who = displayName(me);
    if (me.user && me.user->email && *me.user->email != who)
        who += QStringLiteral(" <") + *me.user->email + QLatin1Char('>');
    CommandContext::printOut(QStringLiteral("Signed in as ") + who + QLatin1Char('.'));
    if (me.plans) {
        for (auto plan = me.plans->cbegin(); plan != me.plans->cend(); ++plan)
            CommandContext::printOut(QStringLiteral("Plan: ") + plan.value());
    }
    if (me.limits) {
        CommandContext::printOut(QStringLiteral("Largest transfer: ") +
                                 formatByteCount(me.limits->maxBytes));
        QStringList lifetimes;
        for (qint64 seconds : me.limits->expiries)
            lifetimes << lifetimeText(seconds);
        CommandContext::printOut(QStringLiteral("Link lifetimes: ") +
                                 lifetimes.join(QStringLiteral(", ")));
    }
    co_return 0;
}

} // namespace lofthaven
