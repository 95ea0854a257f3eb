#include "api/apperror.h"
#include "send/sendplan.h"
#include "send/zipstream.h"
#include "testdata.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace lofthaven;

class TestSendPlan : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void plan_data();
    void plan();
    void itemMetadata();
    void fileCountLimit();
    void archiveSizeLimit_data();
    void archiveSizeLimit();
    void sizeLimitMessageFromItems();
    void missingSelectionFails();
    void unreadableSubfolderAsAnotherUser();
};

// files: "path:size" (size in bytes, zero-filled); links: "path->target" (target relative to
// the link's folder or absolute); locked: folders made unreadable; fifos: named pipes.
void TestSendPlan::plan_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("links");
    QTest::addColumn<QStringList>("extras");
    QTest::addColumn<QStringList>("selection");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QString>("planName"); // regular expression
    QTest::addColumn<bool>("isZip");
    QTest::addColumn<QString>("mime"); // "" = none
    QTest::addColumn<QString>("error");

    const QString stamped = QStringLiteral("Lofthaven-\\d{8}-\\d{4}\\.zip");
    const QString zip = QStringLiteral("application/zip");

    QTest::newRow("one folder, nested, UTF-8 name")
        << QStringList{"Trip/a.txt:5", "Trip/Sub/bé ✓.bin:3"} << QStringList{} << QStringList{}
        << QStringList{"Trip"} << QStringList{"Trip/a.txt", "Trip/Sub/bé ✓.bin"} << "Trip\\.zip"
        << true << zip << "";
    QTest::newRow("digit runs by value")
        << QStringList{"F/file10:1", "F/file9:1", "F/file1:1", "F/file02:1"} << QStringList{}
        << QStringList{} << QStringList{"F"}
        << QStringList{"F/file1", "F/file02", "F/file9", "F/file10"} << "F\\.zip" << true << zip
        << "";
    QTest::newRow("case-insensitive")
        << QStringList{"F/B:1", "F/a:1", "F/C:1"} << QStringList{} << QStringList{}
        << QStringList{"F"} << QStringList{"F/a", "F/B", "F/C"} << "F\\.zip" << true << zip << "";
    QTest::newRow("collation ties broken case, then code point")
        << QStringList{"F/file2:1", "F/File1:1", "F/file02:1", "F/file1:1"} << QStringList{}
        << QStringList{} << QStringList{"F"}
        << QStringList{"F/file1", "F/File1", "F/file02", "F/file2"} << "F\\.zip" << true << zip
        << "";
    QTest::newRow("subfolder names sort with files")
        << QStringList{"F/b/x:1", "F/a.txt:1", "F/c:1"} << QStringList{} << QStringList{}
        << QStringList{"F"} << QStringList{"F/a.txt", "F/b/x", "F/c"} << "F\\.zip" << true << zip
        << "";
    QTest::newRow("ignored names only")
        << QStringList{"F/.DS_Store:10", "F/Sub/Thumbs.db:10"} << QStringList{} << QStringList{}
        << QStringList{"F"} << QStringList{} << "" << false << ""
        << "Nothing to send (empty folder?).";
    QTest::newRow("ignored names are case-sensitive")
        << QStringList{"F/.DS_Store:1", "F/thumbs.db:1", "F/.ds_store:1"} << QStringList{}
        << QStringList{} << QStringList{"F"} << QStringList{"F/.ds_store", "F/thumbs.db"}
        << "F\\.zip" << true << zip << "";
    QTest::newRow("hidden files included")
        << QStringList{"F/.env:3", "F/.git/config:4"} << QStringList{} << QStringList{}
        << QStringList{"F"} << QStringList{"F/.env", "F/.git/config"} << "F\\.zip" << true << zip
        << "";
    QTest::newRow("empty file inside a folder")
        << QStringList{"F/e:0"} << QStringList{} << QStringList{} << QStringList{"F"}
        << QStringList{"F/e"} << "F\\.zip" << true << zip << "";
    QTest::newRow("empty folders leave nothing")
        << QStringList{} << QStringList{} << QStringList{"dir:F/a/b", "dir:F/c"} << QStringList{"F"}
        << QStringList{} << "" << false << ""
        << "Nothing to send (empty folder?).";
    QTest::newRow("empty loose file") << QStringList{"x.txt:0"} << QStringList{} << QStringList{}
                                      << QStringList{"x.txt"} << QStringList{} << "" << false << ""
                                      << "x.txt is empty.";
    QTest::newRow("single file, known type")
        << QStringList{"notes.txt:10"} << QStringList{} << QStringList{} << QStringList{"notes.txt"}
        << QStringList{"notes.txt"} << "notes\\.txt" << false << "text/plain"
        << "";
    QTest::newRow("single file, no extension")
        << QStringList{"README:4"} << QStringList{} << QStringList{} << QStringList{"README"}
        << QStringList{"README"} << "README" << false << ""
        << "";
    QTest::newRow("single file, name known only as a whole")
        << QStringList{"Makefile:4"} << QStringList{} << QStringList{} << QStringList{"Makefile"}
        << QStringList{"Makefile"} << "Makefile" << false << ""
        << "";
    QTest::newRow("single dot file has no extension")
        << QStringList{".env:4"} << QStringList{} << QStringList{} << QStringList{".env"}
        << QStringList{".env"} << "\\.env" << false << ""
        << "";
    QTest::newRow("last extension counts")
        << QStringList{"a.tar.gz:4"} << QStringList{} << QStringList{} << QStringList{"a.tar.gz"}
        << QStringList{"a.tar.gz"} << "a\\.tar\\.gz" << false << "application/gzip"
        << "";
    QTest::newRow("single file, unknown extension")
        << QStringList{"data.zzqx:4"} << QStringList{} << QStringList{} << QStringList{"data.zzqx"}
        << QStringList{"data.zzqx"} << "data\\.zzqx" << false << ""
        << "";
    QTest::newRow("two loose files keep selection order")
        << QStringList{"b.txt:1", "a.txt:2"} << QStringList{} << QStringList{}
        << QStringList{"b.txt", "a.txt"} << QStringList{"b.txt", "a.txt"} << stamped << true << zip
        << "";
    QTest::newRow("file and folder: folder block at its place")
        << QStringList{"z.txt:1", "F/y:1", "F/x:1", "w.txt:1"} << QStringList{} << QStringList{}
        << QStringList{"z.txt", "F", "w.txt"} << QStringList{"z.txt", "F/x", "F/y", "w.txt"}
        << stamped << true << zip << "";
    QTest::newRow("folder with one file is still zipped")
        << QStringList{"F/only.txt:3"} << QStringList{} << QStringList{} << QStringList{"F"}
        << QStringList{"F/only.txt"} << "F\\.zip" << true << zip << "";
    QTest::newRow("two folders") << QStringList{"A/1:1", "B/2:1"} << QStringList{} << QStringList{}
                                 << QStringList{"B", "A"} << QStringList{"B/2", "A/1"} << stamped
                                 << true << zip << "";
    QTest::newRow("duplicate names are kept")
        << QStringList{"F/x:1"} << QStringList{} << QStringList{} << QStringList{"F", "F"}
        << QStringList{"F/x", "F/x"} << stamped << true << zip << "";
    QTest::newRow("symbolic links inside are skipped, never followed")
        << QStringList{"F/real:3", "Outside/secret:9"}
        << QStringList{"F/link->real", "F/dirlink->../Outside", "F/dangling->nowhere"}
        << QStringList{} << QStringList{"F"} << QStringList{"F/real"} << "F\\.zip" << true << zip
        << "";
    QTest::newRow("selected symbolic link is skipped")
        << QStringList{"real.txt:3"} << QStringList{"link.txt->real.txt"} << QStringList{}
        << QStringList{"link.txt"} << QStringList{} << "" << false << ""
        << "Nothing to send (empty folder?).";
    QTest::newRow("selected link to a folder is skipped")
        << QStringList{"F/a:3", "G/b:1"} << QStringList{"L->F"} << QStringList{}
        << QStringList{"L", "G"} << QStringList{"G/b"} << stamped << true << zip << "";
    QTest::newRow("named pipe is skipped, never opened")
        << QStringList{"F/a:1"} << QStringList{} << QStringList{"fifo:F/pipe"} << QStringList{"F"}
        << QStringList{"F/a"} << "F\\.zip" << true << zip << "";
    QTest::newRow("unreadable subfolder is passed over")
        << QStringList{"F/ok:1", "F/locked/secret:1"} << QStringList{}
        << QStringList{"locked:F/locked"} << QStringList{"F"} << QStringList{"F/ok"} << "F\\.zip"
        << true << zip << "";
}

void TestSendPlan::plan()
{
    QFETCH(QStringList, files);
    QFETCH(QStringList, links);
    QFETCH(QStringList, extras);
    QFETCH(QStringList, selection);
    QFETCH(QStringList, names);
    QFETCH(QString, planName);
    QFETCH(bool, isZip);
    QFETCH(QString, mime);
    QFETCH(QString, error);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QHash<QString, qint64> sizes;
    for (const QString &entry : files) {
        const QString path = entry.section(u':', 0, -2);
        const qint64 size = entry.section(u':', -1).toLongLong();
        QVERIFY(lofthaven::testing::writeFile(dir.filePath(path), QByteArray(size, 'x')));
        sizes.insert(path, size);
    }
    for (const QString &entry : links) {
        const QString link = dir.filePath(entry.section(u"->"_qs, 0, 0));
        QVERIFY(QFile::link(entry.section(u"->"_qs, 1), link));
    }
    QStringList locked;
    for (const QString &entry : extras) {
        const QString kind = entry.section(u':', 0, 0);
        const QString path = dir.filePath(entry.section(u':', 1));
        if (kind == u"dir") {
            QVERIFY(QDir().mkpath(path));
        } else if (kind == u"fifo") {
            QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        } else if (kind == u"locked") {
            QCOMPARE(::chmod(QFile::encodeName(path).constData(), 0), 0);
            locked.append(path);
        }
    }
    auto unlock = qScopeGuard([&] {
        for (const QString &path : locked)
            ::chmod(QFile::encodeName(path).constData(), 0700);
    });
    for (const QString &path : locked) {
        // With CAP_DAC_OVERRIDE (root) a mode-000 folder stays readable; nothing to prove.
        if (DIR *probe = ::opendir(QFile::encodeName(path).constData())) {
            ::closedir(probe);
            QSKIP("running with permission to read mode-000 folders (root)");
        }
    }

    QStringList paths;
    for (const QString &s : selection)
        paths.append(dir.filePath(s));

    if (!error.isEmpty()) {
        try {
            SendPlan::make(paths);
            QFAIL("planning should have failed");
        } catch (const AppError &e) {
            QCOMPARE(e.message(), error);
        }
        return;
    }
    const SendPlan plan = SendPlan::make(paths);
    QStringList got;
    for (const SendItem &item : plan.items)
        got.append(item.name);
    QCOMPARE(got, names);
    QVERIFY2(QRegularExpression(u'^' + planName + u'$').match(plan.name).hasMatch(),
             qPrintable(plan.name));
    QCOMPARE(plan.isZip, isZip);
    QCOMPARE(plan.mime.value_or(QString()), mime);
    qint64 expectedSize = 0;
    for (const SendItem &item : plan.items) {
        // The item reads from the real file and carries its size.
        const QString rel = item.path.mid(dir.path().size() + 1);
        QVERIFY2(sizes.contains(rel), qPrintable(item.path));
        QCOMPARE(item.size, sizes.value(rel));
        expectedSize += item.size;
    }
    QCOMPARE(plan.size, isZip ? ZipStream::predictedSize(plan.items) : expectedSize);
}

void TestSendPlan::itemMetadata()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("F/when.txt"));
    QVERIFY(lofthaven::testing::writeFile(path, "12345"));
    const QDateTime when = QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7, 500), Qt::UTC);
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(when, QFileDevice::FileModificationTime));
    }
    const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F/"))});
    QCOMPARE(plan.items.size(), 1);
    QCOMPARE(plan.items.first().mtime, when);
    QCOMPARE(plan.items.first().size, 5);
    QCOMPARE(plan.items.first().path, QFileInfo(path).absoluteFilePath());
    QCOMPARE(plan.name, QStringLiteral("F.zip"));
}

void TestSendPlan::fileCountLimit()
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("Many"));
    for (int sub = 0; sub < 100; ++sub)
        QVERIFY(QDir().mkpath(folder + u"/d" + QString::number(sub)));
    for (int i = 0; i < 65000; ++i) {
        QFile file(folder + u"/d" + QString::number(i % 100) + u"/f" + QString::number(i));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    const SendPlan plan = SendPlan::make({folder});
    QCOMPARE(plan.items.size(), 65000);
    QCOMPARE(plan.name, QStringLiteral("Many.zip"));
    QCOMPARE(plan.items.first().name, QStringLiteral("Many/d0/f0"));
    QCOMPARE(plan.items.at(1).name, QStringLiteral("Many/d0/f100"));

    QVERIFY(lofthaven::testing::writeFile(folder + u"/one-more", {}));
    try {
        SendPlan::make({folder});
        QFAIL("65001 files should be refused");
    } catch (const AppError &e) {
        QCOMPARE(e.message(), QStringLiteral("Too many files (65001). Zip the folder first."));
    }
}

// Sparse files give real metadata sizes without writing gigabytes.
void TestSendPlan::archiveSizeLimit_data()
{
    QTest::addColumn<qint64>("archiveSize");
    QTest::addColumn<QString>("error");
    QTest::newRow("largest accepted") << qint64(4294967294) << "";
    QTest::newRow("0xFFFFFFFF refused")
        << qint64(4294967295)
        << "Zipped folders are limited to 4 GB (this one is 4 GB). Send the files one by one.";
    QTest::newRow("4.2 GB refused")
        << qint64(4509715661)
        << "Zipped folders are limited to 4 GB (this one is 4.2 GB). Send the files one by one.";
}

void TestSendPlan::archiveSizeLimit()
{
    QFETCH(qint64, archiveSize);
    QFETCH(QString, error);
    QTemporaryDir dir;
    // "Big/a" (5 bytes) + "Big/huge" (8 bytes): 22 + (92 + 10 + 5) + (92 + 16 + size)
    const qint64 hugeSize = archiveSize - 22 - 107 - 108;
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("Big/a")), "12345"));
    if (!lofthaven::testing::makeSparseFile(dir.filePath(QStringLiteral("Big/huge")), hugeSize))
        QSKIP("this file system cannot hold a sparse 4 GB file");
    const QString folder = dir.filePath(QStringLiteral("Big"));
    if (error.isEmpty()) {
        const SendPlan plan = SendPlan::make({folder});
        QCOMPARE(plan.size, archiveSize);
        return;
    }
    try {
        SendPlan::make({folder});
        QFAIL("the archive should be refused");
    } catch (const AppError &e) {
        QCOMPARE(e.message(), error);
    }
}

void TestSendPlan::sizeLimitMessageFromItems()
{
    // The same limit through the item seam, with a size no file system holds sparse cheaply.
    QList<SendItem> items{{"/nowhere/a", "F/a", qint64(1) << 40, QDateTime::currentDateTimeUtc()}};
    try {
        SendPlan::fromItems(items, 1);
        QFAIL("1 TB should be refused");
    } catch (const AppError &e) {
        QCOMPARE(e.message(), QStringLiteral("Zipped folders are limited to 4 GB (this one is "
                                             "1 TB). Send the files one by one."));
    }
    // A single loose file has no size limit.
    items.first().name = QStringLiteral("a");
    QCOMPARE(SendPlan::fromItems(items, 1).size, qint64(1) << 40);
}

void TestSendPlan::missingSelectionFails()
{
    QTemporaryDir dir;
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("a.txt")), "1"));
    try {
        SendPlan::make(
            {dir.filePath(QStringLiteral("a.txt")), dir.filePath(QStringLiteral("gone"))});
        QFAIL("a missing selection should fail the plan");
    } catch (const AppError &e) {
        QVERIFY2(e.message().contains(u"No such file or directory"), qPrintable(e.message()));
    }
}

// Root reads mode-000 folders, so the table row above skips there. As root, plan in a child
// process that has dropped to an unprivileged user, where the lock really bites.
void TestSendPlan::unreadableSubfolderAsAnotherUser()
{
    if (::geteuid() != 0)
        QSKIP("covered by the table row when not running as root");
    QTemporaryDir dir;
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/ok")), "1"));
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/locked/secret")), "2"));
    QVERIFY(lofthaven::testing::writeFile(dir.filePath(QStringLiteral("F/open/fine")), "3"));
    for (const char *path : {"", "/F", "/F/open"})
        QCOMPARE(::chmod(QFile::encodeName(dir.path() + QLatin1String(path)).constData(), 0755), 0);
    QCOMPARE(::chmod(QFile::encodeName(dir.filePath(QStringLiteral("F/locked"))).constData(), 0),
             0);
    const pid_t child = ::fork();
    QVERIFY(child >= 0);
    if (child == 0) {
        // 65534 is "nobody" on Debian. Exit codes: 0 right plan, 3 wrong plan, 4 threw.
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(5);
        try {
            const SendPlan plan = SendPlan::make({dir.filePath(QStringLiteral("F"))});
            QStringList names;
            for (const SendItem &item : plan.items)
                names.append(item.name);
            ::_exit(names == QStringList{"F/ok", "F/open/fine"} ? 0 : 3);
        } catch (...) {
            ::_exit(4);
        }
    }
    int status = 0;
    QCOMPARE(::waitpid(child, &status, 0), child);
    ::chmod(QFile::encodeName(dir.filePath(QStringLiteral("F/locked"))).constData(), 0700);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 0);
}

QTEST_GUILESS_MAIN(TestSendPlan)
#include "tst_sendplan.moc"
