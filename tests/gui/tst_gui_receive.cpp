// The receive screen in a real window against the local service: a code typed in, the
// transfer's card, the password, the download with its progress and where it was saved; the
// bytes on disk are the bytes sent.
#include "api/serviceorigin.h"
#include "guiharness.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "testdata.h"

#include <QDirIterator>
#include <QTemporaryDir>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

constexpr int kWait = 60000;

} // namespace

class TestGuiReceive : public WindowTest
{
    Q_OBJECT

    // Sends through the model's own operations (the send screen has its own test) and
    // answers the code.
    QString sendThroughModel(const QString &path, const QString &password)
    {
        AppModel *model = m_shell->model();
        model->stage({path});
        if (!QTest::qWaitFor([model] { return !model->planning(); }, kWait))
            return {};
        model->setPassword(password);
        SendJob *job = model->jobs()->find(model->send());
        if (!job || !QTest::qWaitFor([job] { return !job->isActive(); }, kWait))
            return {};
        const QString code = job->code();
        model->dismissJob(job->id());
        model->setPassword({});
        return code;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(startService(), qPrintable(m_service.error()));
        QVERIFY(openWindow());
    }

    void cleanupTestCase() { m_shell.reset(); }

    void receiveFolderWithPassword()
    {
        const QString folder = m_files.filePath(QStringLiteral("Holiday"));
        QVERIFY(writeFile(folder + QStringLiteral("/beach.jpg"), randomBytes(700 * 1024, 11)));
        QVERIFY(writeFile(folder + QStringLiteral("/notes/list.txt"), "towel\nbook\n"));
        const QString code = sendThroughModel(folder, QStringLiteral("open sesame"));
        QCOMPARE(code.size(), 6);

        QVERIFY(click(item(QStringLiteral("receiveTab"))));
        QTRY_VERIFY(item(QStringLiteral("codeField")));
        screenshot(m_window, QStringLiteral("receive-empty"));
        QVERIFY(typeInto(item(QStringLiteral("codeField")),
                         code.left(3) + QLatin1Char(' ') + code.mid(3)));
        QVERIFY(click(item(QStringLiteral("findButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("transferCard")), kWait);
        QCOMPARE(textOf(item(QStringLiteral("transferName"))), QStringLiteral("Holiday.zip"));
        QVERIFY(textOf(item(QStringLiteral("savesTo"))).startsWith(QStringLiteral("Saves to ")));
        QVERIFY(item(QStringLiteral("unzipSwitch")));
        QVERIFY(
            typeInto(item(QStringLiteral("receivePasswordField")), QStringLiteral("open sesame")));
        screenshot(m_window, QStringLiteral("receive-card"));

        QVERIFY(click(item(QStringLiteral("downloadButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("savedTo")), kWait);
        const QString saved =
            textOf(item(QStringLiteral("savedTo"))).mid(QStringLiteral("Saved to ").size());
        QVERIFY2(QFileInfo(saved).isDir(), qPrintable(saved));
        QCOMPARE(filesBelow(saved), filesBelow(folder));
        QVERIFY(item(QStringLiteral("showInFolderButton")));
        QCOMPARE(textOf(item(QStringLiteral("showInFolderButton"))),
                 QStringLiteral("Show in Folder"));
        screenshot(m_window, QStringLiteral("receive-done"));
    }

    // A wrong password: the refusal shows where the download would be, with Try Again.
    void wrongPasswordShowsTheRefusal()
    {
        const QString file = m_files.filePath(QStringLiteral("secret.txt"));
        QVERIFY(writeFile(file, "hush"));
        const QString code = sendThroughModel(file, QStringLiteral("right"));
        QVERIFY(typeInto(item(QStringLiteral("codeField")), code));
        QVERIFY(click(item(QStringLiteral("findButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(
            textOf(item(QStringLiteral("transferName"))) == QStringLiteral("secret.txt"), kWait);
        QVERIFY(typeInto(item(QStringLiteral("receivePasswordField")), QStringLiteral("wrong")));
        QVERIFY(click(item(QStringLiteral("downloadButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("downloadError")), kWait);
        QVERIFY(!textOf(item(QStringLiteral("downloadError"))).isEmpty());
        QVERIFY(item(QStringLiteral("retryDownloadButton")));
    }
};

LOFTHAVEN_GUI_TEST_MAIN(TestGuiReceive)
#include "tst_gui_receive.moc"
