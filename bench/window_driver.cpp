// Sends one file from the real window (shown, drawing its progress) and prints the seconds
// from pressing Send to the result: the window's side of bench/window.sh's throughput row.
// Usage: lofthaven-bench-window FILE   (LOFTHAVEN_ORIGIN names the service)
#include "api/serviceorigin.h"
#include "app/desktop/desktopshell.h"
#include "model/appmodel.h"
#include "platform/preferences.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QTest>

#include <cstdio>

using namespace lofthaven;

int main(int argc, char *argv[])
{
    // Rendered as the app renders it (lofthaven chooses the same way).
    DesktopShell::preferSoftwareRenderingWithoutGpu();
    QGuiApplication app(argc, argv);
    DesktopShell::setUpApplication();
    if (argc < 2) {
        std::fputs("usage: lofthaven-bench-window FILE\n", stderr);
        return 2;
    }
    ServiceOrigin::configure(app.arguments());
    DesktopShell shell;
    if (!shell.open() || !QTest::qWaitForWindowExposed(shell.window()))
        return 1;
    AppModel *model = shell.model();
    model->stage({QString::fromLocal8Bit(argv[1])});
    if (!QTest::qWaitFor([model] { return !model->planning(); }, 600000))
        return 1;
    QElapsedTimer timer;
    timer.start();
    SendJob *job = model->jobs()->find(model->send());
    // The application's own event loop, as in the window: QTest::qWaitFor sleeps 10 ms between
    // passes and would hold the send back.
    if (job && job->isActive()) {
        QEventLoop loop;
        QObject::connect(job, &SendJob::stateChanged, &loop, [job, &loop] {
            if (!job->isActive())
                loop.quit();
        });
        loop.exec();
    }
    if (!job || job->state() != SendJob::State::Done) {
        std::fprintf(stderr, "send failed: %s\n", job ? qPrintable(job->message()) : "not started");
        return 1;
    }
    std::printf("%.3f\n", timer.nsecsElapsed() / 1e9);
    return 0;
}
