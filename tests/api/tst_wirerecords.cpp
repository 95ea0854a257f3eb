#include "api/wirerecords.h"

#include <QJsonArray>
#include <QTest>

using namespace lofthaven;

namespace {

// Decodes as the named record; returns the DecodeError's "Record.field" or "" on success.
QString decodeProblem(const QString &record, const QByteArray &json)
{
    try {
        if (record == u"TransferMeta")
            decode<TransferMeta>(json);
        else if (record == u"CreatedTransfer")
            decode<CreatedTransfer>(json);
        else if (record == u"CompletedTransfer")
            decode<CompletedTransfer>(json);
        else if (record == u"MeResponse")
            decode<MeResponse>(json);
        else if (record == u"InboxResponse")
            decode<InboxResponse>(json);
        else if (record == u"DeviceLoginStart")
            decode<DeviceLoginStart>(json);
        else if (record == u"UpdateInfo")
            decode<UpdateInfo>(json);
        else if (record == u"PartResponse")
            decode<PartResponse>(json);
        else
            qFatal("unknown record in table");
        return {};
    } catch (const DecodeError &error) {
        return error.field().isEmpty() ? error.record() : error.record() + u'.' + error.field();
    }
}

} // namespace

class TestWireRecords : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void strictDecoding_data()
    {
        QTest::addColumn<QString>("record");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("problem"); // "" = decodes
        QTest::newRow("minimal meta")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":1})") << "";
        QTest::newRow("unknown key ignored")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":1,"shiny":[1,{}]})")
            << "";
        QTest::newRow("nulls are absent optionals")
            << "TransferMeta"
            << QByteArray(R"({"id":"a","name":"n","size":1,"mime":null,"files":null})") << "";
        QTest::newRow("missing size")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n"})") << "TransferMeta.size";
        QTest::newRow("required null")
            << "TransferMeta" << QByteArray(R"({"id":null,"name":"n","size":1})")
            << "TransferMeta.id";
        QTest::newRow("size as string")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":"12"})")
            << "TransferMeta.size";
        QTest::newRow("size fractional")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":1.5})")
            << "TransferMeta.size";
        QTest::newRow("size beyond 64 bits")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":99999999999999999999})")
            << "TransferMeta.size";
        QTest::newRow("fileCount beyond int")
            << "TransferMeta"
            << QByteArray(R"({"id":"a","name":"n","size":1,"fileCount":4294967296})")
            << "TransferMeta.fileCount";
        QTest::newRow("isZip as number")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":1,"isZip":1})")
            << "TransferMeta.isZip";
        QTest::newRow("bad nested file entry")
            << "TransferMeta"
            << QByteArray(R"({"id":"a","name":"n","size":1,"files":[{"name":"x"}]})")
            << "FileEntry.size";
        QTest::newRow("files not a list")
            << "TransferMeta" << QByteArray(R"({"id":"a","name":"n","size":1,"files":{}})")
            << "TransferMeta.files";
        QTest::newRow("top-level array") << "TransferMeta" << QByteArray("[]") << "TransferMeta";
        QTest::newRow("top-level string")
            << "TransferMeta" << QByteArray("\"x\"") << "TransferMeta";
        QTest::newRow("not json") << "PartResponse" << QByteArray("<html>") << "PartResponse";
        QTest::newRow("empty body") << "PartResponse" << QByteArray() << "PartResponse";
        QTest::newRow("created without ownerToken")
            << "CreatedTransfer"
            << QByteArray(
                   R"({"id":"a","code":"1","partSize":1,"partCount":1,"url":"u","expiresAt":1})")
            << "CreatedTransfer.ownerToken";
        QTest::newRow("completed without expiresAt")
            << "CompletedTransfer" << QByteArray(R"({"id":"a","code":"1","url":"u"})")
            << "CompletedTransfer.expiresAt";
        QTest::newRow("plans must be strings")
            << "MeResponse" << QByteArray(R"({"plans":{"pro":3}})") << "MeResponse.plans.pro";
        QTest::newRow("limits expiries must be whole")
            << "MeResponse" << QByteArray(R"({"limits":{"maxBytes":1,"expiries":[3600,1.5]}})")
            << "Limits.expiries[1]";
        QTest::newRow("inbox items required")
            << "InboxResponse" << QByteArray("{}") << "InboxResponse.items";
        QTest::newRow("bad inbox item")
            << "InboxResponse" << QByteArray(R"({"items":[{"id":"a","name":"n"}]})")
            << "TransferMeta.size";
        QTest::newRow("device login without verifyUrl")
            << "DeviceLoginStart" << QByteArray(R"({"deviceCode":"d","userCode":"u"})")
            << "DeviceLoginStart.verifyUrl";
        QTest::newRow("update without version")
            << "UpdateInfo" << QByteArray(R"({"mac":"x"})") << "UpdateInfo.version";
    }
    void strictDecoding()
    {
        QFETCH(QString, record);
        QFETCH(QByteArray, json);
        QFETCH(QString, problem);
        QCOMPARE(decodeProblem(record, json), problem);
    }

    void fullTransferMeta()
    {
        const TransferMeta meta = decode<TransferMeta>(
            R"({"id":"T1","name":"Trip.zip","size":9007199254740993,"mime":"application/zip",)"
            R"("isZip":true,"fileCount":2,"files":[{"name":"a/b.txt","size":5},)"
            R"({"name":"c","size":0}],"title":"t","message":"hi","createdAt":1700000000000.5,)"
            R"("expiresAt":1700086400000,"downloads":3,"maxDownloads":10,"hasPassword":false,)"
            R"("code":"123456","url":"https://x/d/T1","status":"active","toSelf":true,)"
            R"("device":"Laptop"})");
        QCOMPARE(meta.size, qint64(9007199254740993)); // not rounded through double
        QCOMPARE(meta.files->size(), 2);
        QCOMPARE(meta.files->at(0).name, QStringLiteral("a/b.txt"));
        QCOMPARE(*meta.createdAt, 1700000000000.5);
        QCOMPARE(*meta.maxDownloads, 10);
        QCOMPARE(*meta.device, QStringLiteral("Laptop"));
        QVERIFY(!*meta.hasPassword);
        // Round trip through the encoder gives the same record.
        QCOMPARE(TransferMeta::fromJson(meta.toJson()), meta);
    }

    void nulInStringsIsKept()
    {
        const TransferMeta meta =
            decode<TransferMeta>(QByteArray(R"({"id":"a","name":"bad\u0000name.txt","size":1})"));
        QCOMPARE(meta.name.size(), 12);
        QCOMPARE(meta.name.at(3), QChar(0));
    }

    void largestSizes()
    {
        const TransferMeta meta =
            decode<TransferMeta>(R"({"id":"a","name":"n","size":9223372036854775807})");
        QCOMPARE(meta.size, std::numeric_limits<qint64>::max());
    }

    void plansAreAMap()
    {
        const MeResponse me = decode<MeResponse>(
            R"({"signedIn":true,"user":{"id":"u1","email":"a@b"},"plans":{"pro":"Pro: 200 GB",)"
            R"("free":"Free"},"limits":{"maxBytes":214748364800,"expiries":[86400,604800]}})");
        QCOMPARE(me.plans->value(QStringLiteral("pro")), QStringLiteral("Pro: 200 GB"));
        QCOMPARE(me.plans->size(), 2);
        QCOMPARE(me.limits->expiries, (QList<qint64>{86400, 604800}));
        QCOMPARE(me.user->email.value(), QStringLiteral("a@b"));
        QVERIFY(!me.user->name);
        QCOMPARE(MeResponse::fromJson(me.toJson()), me);
    }

    void createBodyEncoding_data()
    {
        QTest::addColumn<bool>("withOptionals");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("absent optionals left out")
            << false
            << QByteArray(R"({"name":"a.txt","size":5000000000,"files":[{"name":"a.txt",)"
                          R"("size":5000000000}],"expiresIn":86400,"maxDownloads":0,)"
                          R"("partSize":16777216,"source":"desktop"})");
        QTest::newRow("every key in order")
            << true
            << QByteArray(R"({"name":"a.txt","size":5000000000,"mime":"text/plain","files":)"
                          R"([{"name":"a.txt","size":5000000000}],"title":"T","message":"M",)"
                          R"("expiresIn":86400,"maxDownloads":0,"password":"p&=+ é","partSize":)"
                          R"(16777216,"source":"desktop","toSelf":true,"device":"Desk"})");
    }
    void createBodyEncoding()
    {
        QFETCH(bool, withOptionals);
        QFETCH(QByteArray, expected);
        CreateTransferBody body;
        body.name = QStringLiteral("a.txt");
        body.size = 5000000000;
        body.files = {{QStringLiteral("a.txt"), 5000000000}};
        body.expiresIn = 86400;
        body.maxDownloads = 0;
        body.partSize = 16777216;
        body.source = QStringLiteral("desktop");
        if (withOptionals) {
            body.mime = QStringLiteral("text/plain");
            body.title = QStringLiteral("T");
            body.message = QStringLiteral("M");
            body.password = QStringLiteral("p&=+ é");
            body.toSelf = true;
            body.device = QStringLiteral("Desk");
        }
        QCOMPARE(body.encode(), expected);
        QCOMPARE(decode<CreateTransferBody>(body.encode()), body);
    }

    void smallRequestBodies()
    {
        const CompleteBody complete{{{1, QStringLiteral("e1")}, {2, QStringLiteral("e2")}}};
        const QByteArray completeJson =
            R"({"parts":[{"etag":"e1","partNumber":1},{"etag":"e2","partNumber":2}]})";
        QCOMPARE(complete.encode(), completeJson);
        const PasswordBody password{QStringLiteral("pw")};
        QCOMPARE(password.encode(), QByteArray(R"({"password":"pw"})"));
        const DeviceLoginBody login{QStringLiteral("Lofthaven for Mac (x)")};
        QCOMPARE(login.encode(), QByteArray(R"j({"name":"Lofthaven for Mac (x)"})j"));
        const DevicePollBody poll{QStringLiteral("dc")};
        QCOMPARE(poll.encode(), QByteArray(R"({"deviceCode":"dc"})"));
        QCOMPARE(OKResponse().toJson(), QJsonObject());
        QCOMPARE(ErrorBody().toJson(), QJsonObject());
    }
};

QTEST_GUILESS_MAIN(TestWireRecords)
#include "tst_wirerecords.moc"
