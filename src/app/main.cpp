#include "api/apperror.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "app/commandline.h"
#include "app/onlineselftest.h"
#include "app/selftest.h"
#include "app/windowmodule.h"

#include <QCoreApplication>
#include <QDir>
#include <QMetaObject>
#include <QStringList>
#include <QtConcurrent>

#include <cstdio>
#include <thread>

using namespace lofthaven;

namespace {

enum class Mode
{
    Desktop,
    SelfTestOffline,
    SelfTestFull
};

struct Invocation
{
    Mode mode = Mode::Desktop;
    QString folder; // empty: the temporary directory, removed after a successful run
};

Invocation parseArguments(const QStringList &args)
{
    const QString full = QStringLiteral("--selftest");
    const QString offline = QStringLiteral("--selftest-offline");
    Invocation invocation;
    qsizetype at = args.indexOf(full);
    if (at >= 0) {
        invocation.mode = Mode::SelfTestFull;
    } else if ((at = args.indexOf(offline, 1)) >= 0) {
        invocation.mode = Mode::SelfTestOffline;
    } else {
        return invocation;
    }
    // The folder is the first argument after the switch that is neither an option nor the
    // value of --origin.
    for (qsizetype i = at + 1; i < args.size(); ++i) {
        const QString &arg = args.at(i);
        if (arg == u"--origin") {
            ++i;
            continue;
        }
        if (arg.startsWith(u"--"))
            continue;
        invocation.folder = arg;
        break;
    }
    return invocation;
}

int runSelfTest(QCoreApplication &app, const Invocation &invocation)
{
    const bool keepRoot = !invocation.folder.isEmpty();
    const QString workFolder = keepRoot ? invocation.folder : QDir::tempPath();
    const bool online = invocation.mode == Mode::SelfTestFull;
    // The main thread only waits in its event loop; the test ends the process through it.
    // Its own thread, not the pool's: the online half waits there while the engine uses the pool.
    std::thread([workFolder, online, keepRoot] {
        SelfTest test(workFolder);
        test.setOnlineStep(&runOnlineSelfTest);
        const int status = test.run(online, keepRoot);
        QMetaObject::invokeMethod(
            qApp, [status] { QCoreApplication::exit(status); }, Qt::QueuedConnection);
    }).detach();
    const int status = app.exec();
    HttpTransport::instance().shutdown();
    return status;
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList rawArguments;
    for (int i = 0; i < argc; ++i)
        rawArguments.append(QString::fromLocal8Bit(argv[i]));
    // The window only when no verb or self-test is asked for: the command line never needs a
    // display.
    if (parseArguments(rawArguments).mode == Mode::Desktop &&
        !isCommandLineInvocation(rawArguments))
        return runWindowModule(argc, argv);

    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Lofthaven"));
    QCoreApplication::setApplicationName(QStringLiteral("Lofthaven"));
    QCoreApplication::setApplicationVersion(QStringLiteral(LOFTHAVEN_VERSION));

    const Invocation invocation = parseArguments(app.arguments());
    switch (invocation.mode) {
    case Mode::SelfTestOffline:
    case Mode::SelfTestFull:
        try {
            ServiceOrigin::configure(app.arguments());
        } catch (const AppError &error) {
            if (invocation.mode == Mode::SelfTestFull) {
                printLine(QStringLiteral("SELFTEST FAILED: ") + error.message());
                return 1;
            }
        }
        return runSelfTest(app, invocation);
    case Mode::Desktop:
        break;
    }
    if (const std::optional<int> status = runCommandLine(app.arguments()))
        return *status;
    std::fprintf(stderr, "lofthaven: unknown option; see lofthaven --help.\n");
    return 2;
}
