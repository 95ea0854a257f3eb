#include "api/wirerecords.h"

#include <QJsonArray>
#include <QTest>

using namespace lofthaven;

namespace {

// Decodes as one record type; returns the DecodeError's "Record.field", or "" on success.
using DecodeProblem = QString (*)(const QByteArray &json);

template<class Record>
QString decodeProblem(const QByteArray &json)
{
    try {
        decode<Record>(json);
        return {};
    } catch (const DecodeError &error) {
        return error.field().isEmpty() ? error.record() : error.record() + u'.' + error.field();
    }
}

template<class Record>
void addRow(const char *name, const QByteArray &json, const QString &problem)
{
    QTest::newRow(name) << &decodeProblem<Record> << json << problem;
}

} // namespace

Q_DECLARE_METATYPE(DecodeProblem)

class TestWireRecords : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void strictDecoding_data()
    {
        QTest::addColumn<DecodeProblem>("decoder");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("problem"); // "" = decodes
        addRow<TransferMeta>("minimal meta", R"({"id":"a","name":"n","size":1})", "");
        addRow<TransferMeta>("unknown key ignored",
                             R"({"id":"a","name":"n","size":1,"shiny":[1,{}]})", "");
        addRow<TransferMeta>("nulls are absent optionals",
                             R"({"id":"a","name":"n","size":1,"mime":null,"files":null})", "");
        addRow<TransferMeta>("missing size", R"({"id":"a","name":"n"})", "TransferMeta.size");
        addRow<TransferMeta>("required null", R"({"id":null,"name":"n","size":1})",
                             "TransferMeta.id");
        addRow<TransferMeta>("size as string", R"({"id":"a","name":"n","size":"12"})",
                             "TransferMeta.size");
        addRow<TransferMeta>("size fractional", R"({"id":"a","name":"n","size":1.5})",
                             "TransferMeta.size");
        addRow<TransferMeta>("size beyond 64 bits",
                             R"({"id":"a","name":"n","size":99999999999999999999})",
                             "TransferMeta.size");
        // A negative announced size would turn the size checks off downstream.
        addRow<TransferMeta>("size zero", R"({"id":"a","name":"n","size":0})", "");
        addRow<TransferMeta>("size below zero", R"({"id":"a","name":"n","size":-1})",
                             "TransferMeta.size");
        addRow<TransferMeta>("file size below zero",
                             R"({"id":"a","name":"n","size":1,"files":[{"name":"x","size":-5}]})",
                             "FileEntry.size");
        addRow<TransferMeta>("optional count below zero",
                             R"({"id":"a","name":"n","size":1,"maxDownloads":-1})",
                             "TransferMeta.maxDownloads");
        addRow<CreatedTransfer>(
            "part size below zero",
            R"({"id":"a","code":"1","ownerToken":"o","partSize":-1,"partCount":1,"url":"u",)"
            R"("expiresAt":1})",
            "CreatedTransfer.partSize");
        addRow<CompletedTransfer>("completed size below zero",
                                  R"({"id":"a","code":"1","url":"u","expiresAt":1,"size":-9})",
                                  "CompletedTransfer.size");
        addRow<MeResponse>("limit below zero", R"({"limits":{"maxBytes":-1,"expiries":[]}})",
                           "Limits.maxBytes");
        addRow<TransferMeta>("fileCount beyond int",
                             R"({"id":"a","name":"n","size":1,"fileCount":4294967296})",
                             "TransferMeta.fileCount");
        addRow<TransferMeta>("isZip as number", R"({"id":"a","name":"n","size":1,"isZip":1})",
                             "TransferMeta.isZip");
        addRow<TransferMeta>("bad nested file entry",
                             R"({"id":"a","name":"n","size":1,"files":[{"name":"x"}]})",
                             "FileEntry.size");
        addRow<TransferMeta>("files not a list", R"({"id":"a","name":"n","size":1,"files":{}})",
                             "TransferMeta.files");
        addRow<TransferMeta>("top-level array", "[]", "TransferMeta");
        addRow<TransferMeta>("top-level string", "\"x\"", "TransferMeta");
        addRow<PartResponse>("not json", "<html>", "PartResponse");
        addRow<PartResponse>("empty body", {}, "PartResponse");
        addRow<CreatedTransfer>(
            "created without ownerToken",
            R"({"id":"a","code":"1","partSize":1,"partCount":1,"url":"u","expiresAt":1})",
            "CreatedTransfer.ownerToken");
        addRow<CompletedTransfer>("completed without expiresAt",
                                  R"({"id":"a","code":"1","url":"u"})",
                                  "CompletedTransfer.expiresAt");
        addRow<MeResponse>("plans must be strings", R"({"plans":{"pro":3}})",
                           "MeResponse.plans.pro");
        addRow<MeResponse>("limits expiries must be whole",
                           R"({"limits":{"maxBytes":1,"expiries":[3600,1.5]}})",
                           "Limits.expiries[1]");
        addRow<InboxResponse>("inbox items required", "{}", "InboxResponse.items");
        addRow<InboxResponse>("bad inbox item", R"({"items":[{"id":"a","name":"n"}]})",
                              "TransferMeta.size");
        addRow<DeviceLoginStart>("device login without verifyUrl",
                                 R"({"deviceCode":"d","userCode":"u"})",
                                 "DeviceLoginStart.verifyUrl");
        addRow<UpdateInfo>("update without version", R"({"mac":"x"})", "UpdateInfo.version");
    }
    void strictDecoding()
    {
        QFETCH(DecodeProblem, decoder);
        QFETCH(QByteArray, json);
        QFETCH(QString, problem);
        QCOMPARE(decoder(json), problem);
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

    void edgeValuesKept()
    {
        const TransferMeta meta = decode<TransferMeta>(
            R"({"id":"a","name":"bad\u0000name.txt","size":9223372036854775807})");
        QCOMPARE(meta.name.size(), 12);
        QCOMPARE(meta.name.at(3), QChar(0));
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
        QCOMPARE(complete.encode(),
                 R"({"parts":[{"etag":"e1","partNumber":1},{"etag":"e2","partNumber":2}]})");
        QCOMPARE(PasswordBody{QStringLiteral("pw")}.encode(), R"({"password":"pw"})");
        QCOMPARE(DeviceLoginBody{QStringLiteral("Lofthaven for Mac (x)")}.encode(),
                 R"j({"name":"Lofthaven for Mac (x)"})j");
        QCOMPARE(DevicePollBody{QStringLiteral("dc")}.encode(), R"({"deviceCode":"dc"})");
        QCOMPARE(OKResponse().toJson(), QJsonObject());
        QCOMPARE(ErrorBody().toJson(), QJsonObject());
    }
};

QTEST_GUILESS_MAIN(TestWireRecords)
#include "tst_wirerecords.moc"
