// The history screen in a real window against the local service: extend, delete and forget
// from a row reach the service (or, for forget, stay local) and the row follows.
#include "api/serviceorigin.h"
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

class TestGuiHistory : public WindowTest
{
    Q_OBJECT

    // The newest history row is the one just sent.
    QString sendFile(const QString &name)
    {
        const QString path = m_files.filePath(name);
        writeFile(path, randomBytes(8 * 1024, 9));
        AppModel *model = m_shell->model();
        SendJob *job =
            model->startJob(SendPlan::make({path}), model->options(), SendJob::Origin::Window);
        if (!QTest::qWaitFor([job] { return !job->isActive(); }, kWait))
            return {};
        return model->history()->entries().constFirst().id;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(startService(), qPrintable(m_service.error()));
        QVERIFY(openWindow());
        QVERIFY(click(item(QStringLiteral("historyTab"))));
        QTRY_VERIFY(item(QStringLiteral("historyEmpty")));
        screenshot(m_window, QStringLiteral("history-empty"));
    }

    void cleanupTestCase() { m_shell.reset(); }

    void rowActions_data()
    {
        QTest::addColumn<QString>("button");
        QTest::addColumn<QString>("method"); // empty: no request
        QTest::addColumn<QString>("pathEnd");
        QTest::addColumn<bool>("rowStays");
        QTest::newRow("extend") << "historyExtend"
                                << "POST"
                                << "/extend" << true;
        QTest::newRow("delete") << "historyDelete"
                                << "DELETE"
                                << "" << false;
        QTest::newRow("forget") << "historyForget"
                                << ""
                                << "" << false;
    }

    void rowActions()
    {
        QFETCH(QString, button);
        QFETCH(QString, method);
        QFETCH(QString, pathEnd);
        QFETCH(bool, rowStays);

        const QString id = sendFile(QStringLiteral("report-%1.pdf").arg(QTest::currentDataTag()));
        QVERIFY(!id.isEmpty());
        HistoryList *history = m_shell->model()->history();
        const int before = history->count();
        QQuickItem *row = nullptr;
        QTRY_VERIFY((row = findItemWith(m_window->contentItem(), QStringLiteral("historyRow"),
                                        "transferId", id)));
        if (qstrcmp(QTest::currentDataTag(), "extend") == 0)
            screenshot(m_window, QStringLiteral("history"));
        m_service.clearLog();

        QVERIFY(click(findItem(row, button)));
        const QString path = QStringLiteral("/api/transfers/") + id + pathEnd;
        if (!method.isEmpty()) {
            QTRY_VERIFY_WITH_TIMEOUT(!m_service.requests(method, path).isEmpty(), kWait);
        }
        if (rowStays) {
            QTRY_VERIFY_WITH_TIMEOUT(history->find(id) && history->find(id)->isExtended(), kWait);
            QTRY_VERIFY(!findItem(row, QStringLiteral("historyExtend")));
        } else {
            QTRY_COMPARE_WITH_TIMEOUT(history->count(), before - 1, kWait);
            QVERIFY(!history->find(id));
        }
        if (method.isEmpty())
            QVERIFY(m_service.requests(QString(), id).isEmpty());
    }
};

LOFTHAVEN_GUI_TEST_MAIN(TestGuiHistory)
#include "tst_gui_history.moc"
