// The update check: version comparison, what an answer means, and a real fetch of the manifest.
#include "api/serviceorigin.h"
#include "isolatedhome.h"
#include "localservice.h"
#include "model/appmodel.h"
#include "model/updatecheck.h"
#include "platform/preferences.h"
#include "platform/waitfortask.h"
#include "testdata.h"

#include <QSignalSpy>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;

class TestUpdateCheck : public QObject
{
    Q_OBJECT

    LocalService m_service;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
        ServiceOrigin::setUrl(m_service.origin());
    }

    void isNewer_data()
    {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<QString>("current");
        QTest::addColumn<bool>("newer");
        QTest::newRow("equal") << "1.2.0"
                               << "1.2.0" << false;
        QTest::newRow("missing piece is 0") << "1.2"
                                            << "1.2.0" << false;
        QTest::newRow("1.2.0 vs 1.2") << "1.2.0"
                                      << "1.2" << false;
        QTest::newRow("numeric, not text") << "1.10"
                                           << "1.9" << true;
        QTest::newRow("older") << "1.9"
                               << "1.10" << false;
        QTest::newRow("beta piece is 0") << "1.2-beta"
                                         << "1.0" << false;
        QTest::newRow("beta piece is 0, above 0.9") << "1.2-beta"
                                                    << "0.9" << true;
        QTest::newRow("empty pieces dropped") << "1..3"
                                              << "1.2" << true;
        QTest::newRow("longer list decides") << "1.0.0.1"
                                             << "1" << true;
    }
    void isNewer()
    {
        QFETCH(QString, candidate);
        QFETCH(QString, current);
        QFETCH(bool, newer);
        QCOMPARE(UpdateCheck::isNewer(candidate, current), newer);
    }

    void evaluate_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("dismissed");
        QTest::addColumn<QString>("version");      // empty: no notice
        QTest::addColumn<QString>("downloadLink"); // checked when a notice comes
        const QByteArray newer = R"({"version":"2.0.0","notes":"n"})";
        const QString fallback =
            QStringLiteral("https://lofthaven.test/downloads/lofthaven_2.0.0_");
        QTest::newRow("200 newer") << 200 << newer << ""
                                   << "2.0.0" << fallback;
        QTest::newRow("200 same version") << 200 << QByteArray(R"({"version":"1.0.0"})") << ""
                                          << ""
                                          << "";
        QTest::newRow("dismissed") << 200 << newer << "2.0.0"
                                   << ""
                                   << "";
        QTest::newRow("204") << 204 << newer << ""
                             << ""
                             << "";
        QTest::newRow("304") << 304 << newer << ""
                             << ""
                             << "";
        QTest::newRow("500") << 500 << newer << ""
                             << ""
                             << "";
        QTest::newRow("not JSON") << 200 << QByteArray("<html>") << ""
                                  << ""
                                  << "";
        QTest::newRow("no version") << 200 << QByteArray(R"({"notes":"n"})") << ""
                                    << ""
                                    << "";
        QTest::newRow("linux link first")
            << 200
            << QByteArray("{\"version\":\"2.0.0\",\"mac\":\"https://a.test/m.zip\","
                          "\"linux\":\"https://a.test/l.deb\"}")
            << ""
            << "2.0.0"
            << "https://a.test/l.deb";
        QTest::newRow("mac when linux is not a link")
            << 200
            << QByteArray("{\"version\":\"2.0.0\",\"mac\":\"https://a.test/m.zip\","
                          "\"linux\":\"later\"}")
            << ""
            << "2.0.0"
            << "https://a.test/m.zip";
    }
    void evaluate()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, dismissed);
        QFETCH(QString, version);
        QFETCH(QString, downloadLink);
        const auto notice = UpdateCheck::evaluate(status, body, QStringLiteral("1.0.0"), dismissed,
                                                  QUrl(QStringLiteral("https://lofthaven.test")));
        QCOMPARE(notice.has_value(), !version.isEmpty());
        if (!notice)
            return;
        QCOMPARE(notice->info.version, version);
        QVERIFY2(notice->downloadLink.startsWith(downloadLink), qPrintable(notice->downloadLink));
        QVERIFY(notice->downloadLink.endsWith(QStringLiteral(".deb")) ||
                notice->downloadLink.endsWith(QStringLiteral(".zip")));
    }

    void fetchesTheServiceManifest()
    {
        QVERIFY(writeFile(m_service.dataDir() + QStringLiteral("/desktop.json"),
                          R"({"version":"99.1","notes":"Faster."})"));
        const auto notice = waitForTask(UpdateCheck::run(QStringLiteral("1.0.0"), {}));
        QVERIFY(notice);
        QCOMPARE(notice->info.version, QStringLiteral("99.1"));
        QCOMPARE(notice->downloadLink.left(m_service.origin().size() + 11),
                 m_service.origin() + QStringLiteral("/downloads/"));
        const QJsonArray sent =
            m_service.requests(QStringLiteral("GET"), QStringLiteral("/downloads/desktop.json"));
        QVERIFY(!sent.isEmpty());
        QVERIFY(!sent.last().toObject().value(QStringLiteral("authorization")).toBool());
    }

    void modelPublishesUntilDismissed()
    {
        QVERIFY(writeFile(m_service.dataDir() + QStringLiteral("/desktop.json"),
                          R"({"version":"98.0","notes":"Newer."})"));
        AppModel model;
        QSignalSpy changed(&model, &AppModel::updateChanged);
        waitForTask(model.checkForUpdateTask());
        QCOMPARE(changed.size(), 1);
        QCOMPARE(model.updateMap().value(QStringLiteral("version")).toString(),
                 QStringLiteral("98.0"));
        model.dismissUpdate();
        QCOMPARE(changed.size(), 2);
        QVERIFY(!model.update());
        QCOMPARE(stringPreference(Preference::DismissedUpdate), QStringLiteral("98.0"));
        waitForTask(model.checkForUpdateTask());
        QCOMPARE(changed.size(), 2);
        AppModel restarted;
        waitForTask(restarted.checkForUpdateTask());
        QVERIFY(!restarted.update());
    }

    void failuresAreSilent()
    {
        m_service.addFault({{"path", "/downloads/desktop.json"}, {"status", 503}});
        QVERIFY(!waitForTask(UpdateCheck::run(QStringLiteral("1.0.0"), {})));
        // Our own version from the build is never older than itself.
        QVERIFY(!waitForTask(UpdateCheck::run(QStringLiteral("99.1"), {})));
        QCOMPARE(UpdateCheck::currentVersion(), QStringLiteral(LOFTHAVEN_PROJECT_VERSION));
    }
};

LOFTHAVEN_ISOLATED_TEST_MAIN(TestUpdateCheck)
#include "tst_updatecheck.moc"
