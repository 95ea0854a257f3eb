// The send-limit check and the code as notices show it.
#include "model/sendrules.h"

#include <QTest>

using namespace lofthaven;

namespace {

MeResponse account(qint64 maxBytes, QList<qint64> expiries = {3600, 604800})
{
    MeResponse me;
    me.signedIn = true;
    me.limits = Limits{maxBytes, std::move(expiries)};
    return me;
}

} // namespace

class TestSendRules : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void blocker_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<bool>("toSelf");
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<qint64>("accountMax"); // 0: no account record
        QTest::addColumn<QString>("expected");
        const qint64 anonymous = sendrules::kAnonymousMaxBytes;
        const QString over =
            QStringLiteral("big.bin is 500 MB; the limit is 500 MB per transfer without an "
                           "account. Sign in for free to send up to 2 GB.");
        QTest::newRow("exactly the maximum") << anonymous << false << false << 0LL << QString();
        QTest::newRow("one byte over") << anonymous + 1 << false << false << 0LL << over;
        QTest::newRow("to devices signed out, before the size")
            << anonymous + 1 << true << false << 0LL
            << QStringLiteral("Sign in to send files to your devices.");
        QTest::newRow("to devices signed in")
            << qint64(10) << true << true << qint64(2) * 1073741824 << QString();
        QTest::newRow("account limit, exactly")
            << qint64(2) * 1073741824 << false << true << qint64(2) * 1073741824 << QString();
        QTest::newRow("account limit, one over")
            << qint64(2) * 1073741824 + 1 << false << true << qint64(2) * 1073741824
            << QStringLiteral("big.bin is 2 GB; the limit is 2 GB per transfer on your plan.");
        QTest::newRow("signed in without limits uses 500 MB")
            << anonymous + 1 << false << true << 0LL
            << QStringLiteral("big.bin is 500 MB; the limit is 500 MB per transfer on your plan.");
    }
    void blocker()
    {
        QFETCH(qint64, size);
        QFETCH(bool, toSelf);
        QFETCH(bool, signedIn);
        QFETCH(qint64, accountMax);
        QFETCH(QString, expected);
        SendPlan plan;
        plan.name = QStringLiteral("big.bin");
        plan.size = size;
        std::optional<MeResponse> me;
        if (accountMax > 0)
            me = account(accountMax);
        else if (signedIn)
            me = MeResponse{true, {}, {}, {}};
        QCOMPARE(sendrules::sendBlocker(plan, toSelf, signedIn, me).value_or(QString()), expected);
    }

    void spacedCode_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("shown");
        QTest::newRow("six") << "123456"
                             << "123 456";
        QTest::newRow("five") << "12345"
                              << "12345";
        QTest::newRow("seven") << "1234567"
                               << "1234567";
    }
    void spacedCode()
    {
        QFETCH(QString, code);
        QFETCH(QString, shown);
        QCOMPARE(sendrules::spacedCode(code), shown);
    }

    void defaultExpiry_data()
    {
        QTest::addColumn<qint64>("preferred");
        QTest::addColumn<QList<qint64>>("allowed");
        QTest::addColumn<qint64>("chosen");
        const QList<qint64> anonymous = sendrules::kAnonymousExpiries;
        QTest::newRow("preferred allowed") << qint64(3600) << anonymous << qint64(3600);
        QTest::newRow("a week signed out") << qint64(604800) << anonymous << qint64(259200);
        QTest::newRow("three days not offered")
            << qint64(100) << QList<qint64>{3600, 604800} << qint64(604800);
    }
    void defaultExpiry()
    {
        QFETCH(qint64, preferred);
        QFETCH(QList<qint64>, allowed);
        QFETCH(qint64, chosen);
        QCOMPARE(sendrules::defaultExpiry(preferred, allowed), chosen);
    }
};

QTEST_GUILESS_MAIN(TestSendRules)
#include "tst_sendrules.moc"
