// What the screens show that is computed on the desktop side: expiry and download-limit
// wording, the code in two groups, and the theme decision.
#include "app/desktop/desktopbridge.h"
#include "app/desktop/themewatcher.h"

#include <QTest>

using namespace lofthaven;

class TestDesktopBridge : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void expiry_data()
    {
        QTest::addColumn<qint64>("seconds");
        QTest::addColumn<QString>("text");
        QTest::newRow("minutes") << qint64(1800) << "30 min";
        QTest::newRow("one hour") << qint64(3600) << "1 hour";
        QTest::newRow("one and a half hours") << qint64(5400) << "1 hour";
        QTest::newRow("two hours") << qint64(7200) << "2 hours";
        QTest::newRow("one day") << qint64(86400) << "1 day";
        QTest::newRow("a day and an hour") << qint64(90000) << "1 day";
        QTest::newRow("three days") << qint64(259200) << "3 days";
        QTest::newRow("seven days") << qint64(604800) << "7 days";
    }
    void expiry()
    {
        QFETCH(qint64, seconds);
        QFETCH(QString, text);
        QCOMPARE(DesktopBridge::formatExpiry(seconds), text);
    }

    void downloadLimits()
    {
        QStringList labels;
        for (const QVariant &count : DesktopBridge::downloadLimits())
            labels.append(DesktopBridge::downloadLimitLabel(count.toInt()));
        QCOMPARE(labels, QStringList({"Unlimited", "1 download", "5 downloads", "10 downloads",
                                      "50 downloads", "100 downloads"}));
    }

    void code_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("shown");
        QTest::newRow("six digits") << "123456"
                                    << "123 456";
        QTest::newRow("seven characters") << "1234567"
                                          << "1234567";
        QTest::newRow("empty") << ""
                               << "";
    }
    void code()
    {
        QFETCH(QString, code);
        QFETCH(QString, shown);
        QCOMPARE(DesktopBridge::formatCode(code), shown);
    }

    void theme_data()
    {
        QTest::addColumn<QString>("theme");
        QTest::addColumn<int>("system");
        QTest::addColumn<bool>("dark");
        QTest::newRow("system dark") << "system" << 1 << true;
        QTest::newRow("system light") << "system" << 2 << false;
        QTest::newRow("system no preference") << "system" << 0 << false;
        QTest::newRow("forced light on a dark desktop") << "light" << 1 << false;
        QTest::newRow("forced dark on a light desktop") << "dark" << 2 << true;
    }
    void theme()
    {
        QFETCH(QString, theme);
        QFETCH(int, system);
        QFETCH(bool, dark);
        QCOMPARE(ThemeWatcher::isDark(theme, ThemeWatcher::SystemScheme(system)), dark);
    }
};

QTEST_MAIN(TestDesktopBridge)
#include "tst_desktopbridge.moc"
