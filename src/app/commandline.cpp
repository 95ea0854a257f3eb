#include "app/commandline.h"

#include "api/accountsession.h"
#include "api/apperror.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "app/accountcommands.h"
#include "app/commandcontext.h"
#include "app/desktop/launchrequest.h"
#include "app/historycommands.h"
#include "app/receivecommand.h"
#include "app/sendcommand.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"

#include <QCoreApplication>
#include <QTimer>

#include <atomic>
#include <csignal>

namespace lofthaven {

namespace {

std::atomic<bool> g_interrupted{false};

extern "C" void onInterrupt(int)
{
    g_interrupted = true;
}

const char *const kUsage = "Usage:\n"
                           "  lofthaven [PATH | LINK]...\n"
                           "  lofthaven --show | --background | --send-files | --receive\n"
                           "  lofthaven --get-link PATH...\n"
                           "  lofthaven --send-to-devices PATH...\n"
                           "  lofthaven send [options] PATH...\n"
                           "  lofthaven receive [options] CODE-OR-LINK\n"
                           "  lofthaven login [--no-browser] [--json]\n"
                           "  lofthaven logout\n"
                           "  lofthaven whoami [--json]\n"
                           "  lofthaven history [--json]\n"
                           "  lofthaven extend ID | delete [--yes] ID | forget ID\n"
                           "  lofthaven inbox [--json]\n"
                           "  lofthaven --selftest-offline [folder]\n"
                           "  lofthaven --selftest [folder]\n"
                           "\n"
                           "Without a verb, the window opens (or the running one is used): files "
                           "are staged to\n"
                           "send and lofthaven: links open on their tab. --get-link and "
                           "--send-to-devices send\n"
                           "the files as the file manager's actions do; --background starts "
                           "without the window.\n"
                           "\n"
                           "Run 'lofthaven send --help' or 'lofthaven receive --help' for their "
                           "options.\n"
                           "Common option: --origin URL (else LOFTHAVEN_ORIGIN, else the "
                           "serviceOrigin setting).\n";

// The first argument that is not --origin and its value.
qsizetype commandIndex(const QStringList &arguments)
{
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        if (arguments.at(i) == QLatin1String("--origin")) {
            ++i;
            continue;
        }
        if (arguments.at(i).startsWith(QLatin1String("--origin=")))
            continue;
        return i;
    }
    return -1;
}

void installInterruptHandler()
{
    struct sigaction action
    {
    };
    action.sa_handler = onInterrupt;
    action.sa_flags = SA_RESETHAND; // a second Ctrl-C ends the process at once
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

enum class Verb
{
    Send,
    Receive,
    Login,
    Logout,
    Whoami,
    History,
    Extend,
    Delete,
    Forget,
    Inbox
};

std::optional<Verb> findVerb(const QString &command)
{
    static const QList<std::pair<QString, Verb>> kVerbs = {
        {QStringLiteral("send"), Verb::Send},     {QStringLiteral("receive"), Verb::Receive},
        {QStringLiteral("login"), Verb::Login},   {QStringLiteral("logout"), Verb::Logout},
        {QStringLiteral("whoami"), Verb::Whoami}, {QStringLiteral("history"), Verb::History},
        {QStringLiteral("extend"), Verb::Extend}, {QStringLiteral("delete"), Verb::Delete},
        {QStringLiteral("forget"), Verb::Forget}, {QStringLiteral("inbox"), Verb::Inbox},
    };
    const auto found = std::find_if(kVerbs.cbegin(), kVerbs.cend(),
                                    [&](const auto &entry) { return entry.first == command; });
    if (found == kVerbs.cend())
        return std::nullopt;
    return found->second;
}

} // namespace

bool isCommandLineInvocation(const QStringList &arguments)
{
    const qsizetype at = commandIndex(arguments);
    if (at < 0)
        return false;
    const QString &command = arguments.at(at);
    // Options such as --get-link go to the window process, which may hand them to the one
    // already running.
    if (LaunchRequest::isWindowOption(command))
        return false;
    return command == QLatin1String("help") || findVerb(command).has_value() ||
           command.startsWith(QLatin1Char('-'));
}

std::optional<int> runCommandLine(const QStringList &arguments)
{
    const qsizetype at = commandIndex(arguments);
    if (at < 0)
        return std::nullopt;
    const QString command = arguments.at(at);
    if (command == QLatin1String("--help") || command == QLatin1String("-h") ||
        command == QLatin1String("help")) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == QLatin1String("--version")) {
        CommandContext::printOut(QStringLiteral("lofthaven ") +
                                 QCoreApplication::applicationVersion());
        return 0;
    }
    const std::optional<Verb> found = findVerb(command);
    if (!found)
        return std::nullopt;
    const Verb verb = *found;
    const bool send = verb == Verb::Send;

    QStringList commandArguments = arguments;
    commandArguments.removeAt(at);
    commandArguments[0] = QStringLiteral("lofthaven ") + command;

    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption(
        {QStringLiteral("origin"), QStringLiteral("The service origin."), QStringLiteral("url")});
    switch (verb) {
    case Verb::Send:
        parser.setApplicationDescription(
            QStringLiteral("Send files and folders by code and link."));
        addSendOptions(parser);
        break;
    case Verb::Receive:
        parser.setApplicationDescription(QStringLiteral("Receive a transfer by its code or link."));
        addReceiveOptions(parser);
        break;
    case Verb::Login:
        parser.setApplicationDescription(
            QStringLiteral("Sign in by approving a code in the browser."));
        addLoginOptions(parser);
        break;
    case Verb::Logout:
        parser.setApplicationDescription(QStringLiteral("Sign out and forget the sign-in."));
        break;
    case Verb::Whoami:
        parser.setApplicationDescription(QStringLiteral("Show the account, its plan and limits."));
        addWhoamiOptions(parser);
        break;
    case Verb::History:
    case Verb::Extend:
    case Verb::Delete:
    case Verb::Forget:
    case Verb::Inbox:
        addHistoryOptions(parser, command);
        break;
    }
    if (!parser.parse(commandArguments)) {
        CommandContext::printError(parser.errorText());
        std::fputs(kUsage, stderr);
        return CommandContext::kUsage;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(parser.helpText().toUtf8().constData(), stdout);
        return 0;
    }
    if (send && parser.positionalArguments().isEmpty()) {
        CommandContext::printError(QStringLiteral("send needs at least one file or folder."));
        std::fputs(kUsage, stderr);
        return CommandContext::kUsage;
    }

    try {
        ServiceOrigin::configure(arguments);
    } catch (const AppError &error) {
        CommandContext::printError(error.message());
        return CommandContext::kUsage;
    }

    std::stop_source stop;
    installInterruptHandler();
    QTimer interruptPoll;
    QObject::connect(&interruptPoll, &QTimer::timeout, [&stop] {
        if (g_interrupted)
            stop.request_stop();
    });
    interruptPoll.start(100);

    registerDefaultSettings();
    AccountSession session;
    waitForTask(session.load());

    CommandContext context;
    context.parser = &parser;
    context.client = session.client();
    context.session = &session;
    context.serviceHost = ServiceOrigin::host();
    context.stop = stop.get_token();
    int status = CommandContext::kFailed;
    switch (verb) {
    case Verb::Send:
        status = waitForTask(sendCommand(context));
        break;
    case Verb::Receive:
        status = waitForTask(receiveCommand(context));
        break;
    case Verb::Login:
        status = waitForTask(loginCommand(context));
        break;
    case Verb::Logout:
        status = waitForTask(logoutCommand(context));
        break;
    case Verb::Whoami:
        status = waitForTask(whoamiCommand(context));
        break;
    case Verb::History:
        status = waitForTask(historyCommand(context));
        break;
    case Verb::Extend:
        status = waitForTask(extendCommand(context));
        break;
    case Verb::Delete:
        status = waitForTask(deleteCommand(context));
        break;
    case Verb::Forget:
        status = waitForTask(forgetCommand(context));
        break;
    case Verb::Inbox:
        status = waitForTask(inboxCommand(context));
        break;
    }
    interruptPoll.stop();
    HttpTransport::instance().shutdown();
    return status;
}

} // namespace lofthaven
