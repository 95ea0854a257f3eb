// The history record and its file: JSON form, the loading that never reports or rewrites, the
// 300-entry cap and the file's mode.
#include "isolatedhome.h"
#include "model/historyentry.h"
#include "model/historyfile.h"
#include "testdata.h"

#include <QFile>
#include <QJsonDocument>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;

namespace {

HistoryEntry entry(int n)
{
    HistoryEntry e;
    e.id = QStringLiteral("id%1").arg(n);
    e.code = QStringLiteral("%1").arg(100000 + n);
    e.url = QStringLiteral("https://example.test/d/") + e.id;
    e.name = QStringLiteral("file%1.txt").arg(n);
    e.size = 5'000'000'000LL + n; // beyond 32 bits
    e.ownerToken = QStringLiteral("owner-%1").arg(n);
    e.expiresAt = 1'700'000'000'123.0 + n;
    e.createdAt = 1'699'000'000'000.0 + n;
    return e;
}

QFile::Permissions privateMode()
{
    return QFile::ReadOwner | QFile::WriteOwner;
}

QFile::Permissions modeOf(const QString &path)
{
    return QFile(path).permissions() & (QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                        QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup |
                                        QFile::ReadOther | QFile::WriteOther | QFile::ExeOther);
}

} // namespace

class TestHistory : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private Q_SLOTS:
    void jsonForm_data()
    {
        QTest::addColumn<HistoryEntry>("value");
        QTest::addColumn<QStringList>("keys");
        const QStringList required = {"id",   "code",       "url",       "name",
                                      "size", "ownerToken", "expiresAt", "createdAt"};
        QTest::newRow("optionals absent") << entry(1) << required;
        HistoryEntry full = entry(2);
        full.codeUrl = QStringLiteral("https://example.test/r/100002");
        full.fileCount = 3;
        full.toSelf = true;
        full.extended = false;
        QTest::newRow("optionals present")
            << full << required + QStringList{"codeUrl", "fileCount", "toSelf", "extended"};
    }
    void jsonForm()
    {
        QFETCH(HistoryEntry, value);
        QFETCH(QStringList, keys);
        const QJsonObject object = value.toJson();
        QStringList written = object.keys();
        written.sort();
        keys.sort();
        QCOMPARE(written, keys);
        QVERIFY(object.value(QStringLiteral("expiresAt")).isDouble());
        QCOMPARE(HistoryEntry::fromJson(object), value);
    }

    // A file an older version wrote, without "extended", reads as not extended.
    void olderFileReadsAsNotExtended()
    {
        const QString path = m_dir.filePath(QStringLiteral("old.json"));
        QVERIFY(writeFile(path, R"([{"id":"a","code":"123456","url":"u","name":"n","size":1,
            "ownerToken":"o","expiresAt":1.5e12,"createdAt":1.4e12,"fileCount":1}])"));
        const auto entries = HistoryFile::read(path);
        QVERIFY(entries);
        QCOMPARE(entries->size(), 1);
        QVERIFY(!entries->first().isExtended());
        QCOMPARE(entries->first().fileCount, std::optional<int>(1));
    }

    void badFilesReadAsNothingAndStay_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("not JSON") << QByteArray("[{\"id\":");
        QTest::newRow("an object") << QByteArray("{\"id\":\"a\"}");
        QTest::newRow("entry without ownerToken")
            << QByteArray(R"([{"id":"a","code":"1","url":"u","name":"n","size":1,
                             "expiresAt":1,"createdAt":1}])");
        QTest::newRow("size as text")
            << QByteArray(R"([{"id":"a","code":"1","url":"u","name":"n","size":"1",
                             "ownerToken":"o","expiresAt":1,"createdAt":1}])");
        QTest::newRow("not an entry") << QByteArray("[1]");
    }
    void badFilesReadAsNothingAndStay()
    {
        QFETCH(QByteArray, content);
        const QString path = m_dir.filePath(QStringLiteral("bad.json"));
        QVERIFY(writeFile(path, content));
        QVERIFY(!HistoryFile::read(path));
        QCOMPARE(readFile(path), content);
        QVERIFY(!HistoryFile::read(m_dir.filePath(QStringLiteral("missing.json"))));
    }

    void fileKeepsNewest300AtMode0600()
    {
        QList<HistoryEntry> entries;
        for (int n = 0; n < 305; ++n)
            entries.append(entry(n));
        const QString path = m_dir.filePath(QStringLiteral("history.json"));
        // A file that was readable by others before becomes private with the next save.
        QVERIFY(writeFile(path, "[]"));
        QFile::setPermissions(path, privateMode() | QFile::ReadOther | QFile::ReadGroup);
        QVERIFY(HistoryFile::write(path, entries));
        QCOMPARE(modeOf(path), privateMode());
        const auto back = HistoryFile::read(path);
        QVERIFY(back);
        QCOMPARE(back->size(), 300);
        QCOMPARE(back->first(), entries.first());
        QCOMPARE(back->last(), entries.at(299));
    }

    void writeIntoMissingFolderFails()
    {
        QVERIFY(!HistoryFile::write(m_dir.filePath(QStringLiteral("no/such/history.json")),
                                    {entry(1)}));
    }
};

LOFTHAVEN_ISOLATED_TEST_MAIN(TestHistory)
#include "tst_history.moc"
