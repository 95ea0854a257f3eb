// The send screen in a real window against the local service: a dropped folder is counted,
// sent, and its code, link and QR code match what the service holds; a failed send and its
// Try Again; the signed-out limits line and the download-limit picker.
#include "api/serviceorigin.h"
#include "guiharness.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "testdata.h"

#include <QRegularExpression>
#include <QTemporaryDir>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {
constexpr int kWait = 60000;
}

class TestGuiSend : public WindowTest
{
    Q_OBJECT

    QString makeFolder(const QString &name, qsizetype bigSize)
    {
        const QString folder = m_files.filePath(name);
        writeFile(folder + QStringLiteral("/photo.jpg"), randomBytes(bigSize, 3));
        writeFile(folder + QStringLiteral("/notes/day 1.txt"), "sunny");
        writeFile(folder + QStringLiteral("/notes/day 2.txt"), "rain");
        return folder;
    }

    // Drops the folder on the drop zone and waits for its plan.
    void stageByDrop(const QString &folder)
    {
        QVERIFY(item(QStringLiteral("dropZone")));
        QVERIFY(dropFiles(item(QStringLiteral("dropZone")), {folder}));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("stagingPanel")), kWait);
        QTRY_VERIFY_WITH_TIMEOUT(!m_shell->model()->planning(), kWait);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(startService(), qPrintable(m_service.error()));
        QVERIFY(openWindow());
    }

    void cleanupTestCase() { m_shell.reset(); }

    void signedOutScreen()
    {
        QCOMPARE(textOf(item(QStringLiteral("limitsLine"))),
                 QStringLiteral("Up to 500 MB without an account, 2 GB free with one. Folders "
                                "are zipped while uploading."));
        QVERIFY(item(QStringLiteral("dropZone")));
        QCOMPARE(textOf(item(QStringLiteral("chooseFilesButton"))),
                 QStringLiteral("Choose Files…"));
        screenshot(m_window, QStringLiteral("send-empty"));

        // Paste with no files on the clipboard says where files come from.
        QGuiApplication::clipboard()->setText(QStringLiteral("not a file"));
        QVERIFY(click(item(QStringLiteral("pasteButton"))));
        QTRY_COMPARE(
            textOf(item(QStringLiteral("noticeText"))),
            QStringLiteral("Copy files in your file manager (Ctrl+C), then paste them here."));
        QVERIFY(click(item(QStringLiteral("noticeClose"))));
        QTRY_VERIFY(!item(QStringLiteral("noticeBanner")));
    }

    // A folder dropped, counted and sent with a password; the result shows the service's
    // code and link, and the QR code on screen reads back as the link.
    void dropFolderAndSend()
    {
        const QString folder = makeFolder(QStringLiteral("Trip"), 2 * 1024 * 1024);
        stageByDrop(folder);
        QCOMPARE(textOf(item(QStringLiteral("planLine"))),
                 QStringLiteral("3 files, zipped while uploading"));
        QVERIFY(textOf(item(QStringLiteral("stagedSummary")))
                    .startsWith(QStringLiteral("1 item(s)  ·  ")));
        QVERIFY(typeInto(item(QStringLiteral("passwordField")), QStringLiteral("s3cret")));
        QCOMPARE(m_shell->model()->password(), QStringLiteral("s3cret"));
        screenshot(m_window, QStringLiteral("send-staged"));
        if (!qEnvironmentVariableIsEmpty("LOFTHAVEN_SCREENSHOTS")) {
            // The same screen at the window's smallest size.
            m_window->resize(m_window->minimumSize());
            screenshot(m_window, QStringLiteral("send-staged-small"));
            m_window->resize(860, 620);
        }

        // Hold the first part back a moment, so the running state is on screen.
        m_service.addFault({{"method", "PUT"},
                            {"path", "/api/transfers/*/parts/*"},
                            {"count", 1},
                            {"stallSeconds", 2}});
        QVERIFY(click(item(QStringLiteral("sendButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("runningJob")), kWait);
        QTRY_VERIFY_WITH_TIMEOUT(
            item(QStringLiteral("runningJob")) == nullptr ||
                textOf(item(QStringLiteral("progressText"))).contains(QStringLiteral(" of ")),
            kWait);
        if (item(QStringLiteral("runningJob")))
            screenshot(m_window, QStringLiteral("send-uploading"));

        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("resultCard")), kWait);
        m_service.clearFaults();
        const QString codeText = textOf(item(QStringLiteral("codeLabel")));
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("^Code (\\d{3}) (\\d{3})$")).match(codeText);
        QVERIFY2(match.hasMatch(), qPrintable(codeText));
        const QString code = match.captured(1) + match.captured(2);

        const QJsonObject record = m_service.control("GET", QStringLiteral("/api/code/") + code);
        const HistoryEntry entry = m_shell->model()->history()->entries().constFirst();
        QCOMPARE(record.value(QStringLiteral("id")).toString(), entry.id);
        QCOMPARE(entry.code, code);
        const QString link = textOf(item(QStringLiteral("linkLabel")));
        QCOMPARE(link, entry.url);
        QCOMPARE(decodeQr(item(QStringLiteral("resultQr")), m_files.path()), link);
        screenshot(m_window, QStringLiteral("send-result"));

        QVERIFY(click(item(QStringLiteral("copyCodeButton"))));
        QCOMPARE(textOf(item(QStringLiteral("copyCodeButton"))), QStringLiteral("Copied"));
        QCOMPARE(QGuiApplication::clipboard()->text(), code);

        QVERIFY(click(item(QStringLiteral("sendMoreButton"))));
        QTRY_VERIFY(item(QStringLiteral("dropZone")));
    }

    void downloadLimitPicker()
    {
        stageByDrop(makeFolder(QStringLiteral("Picker"), 1024));
        QQuickItem *picker = item(QStringLiteral("downloadLimitPicker"));
        QVERIFY(picker);
        QStringList labels;
        for (int i = 0; i < picker->property("count").toInt(); ++i) {
            QString label;
            QMetaObject::invokeMethod(picker, "textAt", Q_RETURN_ARG(QString, label),
                                      Q_ARG(int, i));
            labels.append(label);
        }
        QCOMPARE(labels,
                 QStringList({QStringLiteral("Unlimited"), QStringLiteral("1 download"),
                              QStringLiteral("5 downloads"), QStringLiteral("10 downloads"),
                              QStringLiteral("50 downloads"), QStringLiteral("100 downloads")}));
        QVERIFY(click(item(QStringLiteral("clearStagedButton"))));
        QTRY_VERIFY(item(QStringLiteral("dropZone")));
    }

    // The service refuses the upload once: the failure names the item and Try Again sends it.
    void failedSendThenTryAgain()
    {
        stageByDrop(makeFolder(QStringLiteral("Refused"), 4096));
        m_service.addFault(
            {{"method", "POST"}, {"path", "/api/transfers"}, {"count", 1}, {"status", 400}});
        QVERIFY(click(item(QStringLiteral("sendButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("failedJob")), kWait);
        QCOMPARE(textOf(item(QStringLiteral("failedTitle"))),
                 QStringLiteral("Couldn't send Refused.zip"));
        QVERIFY(!textOf(item(QStringLiteral("failedMessage"))).isEmpty());
        screenshot(m_window, QStringLiteral("send-failed"));
        m_service.clearFaults();
        QVERIFY(click(item(QStringLiteral("tryAgainButton"))));
        QTRY_VERIFY_WITH_TIMEOUT(item(QStringLiteral("resultCard")), kWait);
        QVERIFY(!item(QStringLiteral("failedJob")));
    }
};

LOFTHAVEN_GUI_TEST_MAIN(TestGuiSend)
#include "tst_gui_send.moc"
