// Account, devices and banners in a real window against the local service: the signed-out
// offers, the sign-in sheet through to an approved sign-in, the signed-in limits, files sent
// to the user's devices, and the update banner dismissed for one version only.
#include "api/serviceorigin.h"
#include "app/desktop/desktopbridge.h"
#include "guiharness.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "testdata.h"

#include <QTemporaryDir>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {
constexpr int kWait = 60000;
}

class TestGuiAccount : public WindowTest
{
    Q_OBJECT

public:
    TestGuiAccount()
        : WindowTest({64 * 1024, {QStringLiteral("--device-interval"), QStringLiteral("0.2")}})
    {}

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(startService(), qPrintable(m_service.error()));
        QVERIFY(writeFile(
            m_service.dataDir() + QStringLiteral("/desktop.json"),
            R"({"version":"99.0","notes":"Faster.","linux":"lofthaven_99.0_amd64.deb"})"));
        QVERIFY(openWindow());
    }

    void cleanupTestCase() { m_shell.reset(); }

    // Dismissed, the banner stays away for that version and comes back for a newer one.
    void updateBanner()
    {
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("updateBanner")), kWait);
        QCOMPARE(textOf(item(QStringLiteral("updateText"))),
                 QStringLiteral("Lofthaven 99.0 is available"));
        screenshot(m_window, QStringLiteral("update-banner"));
        QVERIFY(click(item(QStringLiteral("updateDismiss"))));
        QTRY_VERIFY(!item(QStringLiteral("updateBanner")));

        m_shell->model()->checkForUpdate();
        QTest::qWait(500);
        QVERIFY(!item(QStringLiteral("updateBanner")));

        QVERIFY(writeFile(m_service.dataDir() + QStringLiteral("/desktop.json"),
                          R"({"version":"99.1","notes":"Newer."})"));
        m_shell->model()->checkForUpdate();
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("updateBanner")), kWait);
        QCOMPARE(textOf(item(QStringLiteral("updateText"))),
                 QStringLiteral("Lofthaven 99.1 is available"));
        QVERIFY(click(item(QStringLiteral("updateDismiss"))));
        QTRY_VERIFY(!item(QStringLiteral("updateBanner")));
    }

    void signedOutOffers()
    {
        QCOMPARE(textOf(item(QStringLiteral("accountText"))),
                 QStringLiteral("Up to 500 MB without an account"));
        QVERIFY(click(item(QStringLiteral("devicesTab"))));
        QTRY_VERIFY(item(QStringLiteral("signInPrompt")));
        QCOMPARE(textOf(item(QStringLiteral("signInPromptText"))),
                 QStringLiteral("Sign in to see files from your phone and other computers, and to "
                                "send to them."));
        screenshot(m_window, QStringLiteral("devices-signed-out"));
    }

    // The sheet shows the user code the service issued; approving it signs the window in.
    void signInThroughTheSheet()
    {
        QVERIFY(click(item(QStringLiteral("promptSignInButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(!textOf(item(QStringLiteral("userCode"))).isEmpty(), kWait);
        QCOMPARE(
            textOf(item(QStringLiteral("signInPitch"))),
            QStringLiteral("Free account: 2 GB transfers, 7-day links, and your devices inbox."));
        QCOMPARE(textOf(item(QStringLiteral("signInInstruction"))),
                 QStringLiteral("Check that your browser shows this code, then press Approve:"));
        QVERIFY(item(QStringLiteral("openBrowserAgain")));
        QVERIFY(item(QStringLiteral("signInCancel")));
        screenshot(m_window, QStringLiteral("signin-sheet"));

        const QString userCode = textOf(item(QStringLiteral("userCode")));
        m_service.control("POST", QStringLiteral("/__test/device/approve"),
                          {{"userCode", userCode}, {"email", "ada@example.com"}});
        QTRY_VERIFY_WITH_TIMEOUT(m_shell->model()->signedIn(), kWait);
        QTRY_VERIFY(!item(QStringLiteral("signInSheet")));
        QTRY_VERIFY_WITH_TIMEOUT(
            textOf(item(QStringLiteral("accountText")))
                    .contains(QStringLiteral("ada@example.com")) ||
                textOf(item(QStringLiteral("accountText"))).contains(QStringLiteral("ada")),
            kWait);
    }

    void signedInLimitsAndDevices()
    {
        const qint64 maxBytes = m_shell->model()->maxBytes();
        QVERIFY(maxBytes > 500LL * 1024 * 1024);
        QVERIFY(click(item(QStringLiteral("sendTab"))));
        QTRY_COMPARE(textOf(item(QStringLiteral("limitsLine"))),
                     QStringLiteral("Up to ") + DesktopBridge::formatBytes(maxBytes) +
                         QStringLiteral(" per transfer. Folders are zipped while uploading."));

        // A file sent to the user's devices shows in the devices inbox.
        const QString file = m_files.filePath(QStringLiteral("boarding pass.pdf"));
        QVERIFY(writeFile(file, randomBytes(40 * 1024, 5)));
        AppModel *model = m_shell->model();
        SendOptions options = model->defaultOptions(true);
        SendJob *job = model->startJob(SendPlan::make({file}), options, SendJob::Origin::Window);
        QTRY_VERIFY_WITH_TIMEOUT(!job->isActive(), kWait);
        QCOMPARE(job->state(), SendJob::State::Done);

        QVERIFY(click(item(QStringLiteral("devicesTab"))));
        model->refreshInbox(true);
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("inboxRow")), kWait);
        screenshot(m_window, QStringLiteral("devices-inbox"));
        QVERIFY(click(item(QStringLiteral("inboxDownload"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("savedTo")), kWait);
        const QString saved =
            textOf(item(QStringLiteral("savedTo"))).mid(QStringLiteral("Saved to ").size());
        QCOMPARE(readFile(saved), readFile(file));
    }
};

LOFTHAVEN_GUI_TEST_MAIN(TestGuiAccount)
#include "tst_gui_account.moc"
