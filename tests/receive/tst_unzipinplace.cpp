#include "api/apperror.h"
#include "api/cancelled.h"
#include "receive/unzipinplace.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QtConcurrent>

#include <langinfo.h>
#include <sys/stat.h>

using namespace lofthaven;
using namespace Qt::StringLiterals;

namespace {

using Tree = QMap<QString, QByteArray>; // relative path -> bytes, "<dir>" for a folder

const QByteArray kDir = "<dir>";
constexpr qint64 kBigBudget = 64 * 1024 * 1024;

// Builds one test archive with the generator script (zipfile plus byte patching).
bool makeZip(const QString &kind, const QString &path, const QStringList &extra = {})
{
    QProcess python;
    python.start(
        u"python3"_s,
        QStringList{QStringLiteral(LOFTHAVEN_SOURCE_DIR "/tests/receive/make_zip.py"), kind, path} +
            extra);
    if (!python.waitForFinished(60000) || python.exitCode() != 0) {
        qWarning() << "make_zip.py failed:" << python.readAllStandardError();
        return false;
    }
    return QFile::exists(path);
}

Tree treeOf(const QString &folder)
{
    Tree tree;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        const QString relative = QDir(folder).relativeFilePath(path);
        if (info.isSymLink()) {
            tree.insert(relative, "<symlink>");
        } else if (info.isDir()) {
            tree.insert(relative, kDir);
        } else if (info.isFile()) {
            QFile file(path);
            tree.insert(relative, file.open(QIODevice::ReadOnly) ? file.readAll() : "<unreadable>");
        } else {
            tree.insert(relative, "<special>");
        }
    }
    return tree;
}

QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

// Python's zipfile extracts the same archive as an independent reference.
Tree referenceTree(const QString &archive, const QString &scratch)
{
    QProcess python;
    python.start(u"python3"_s, {u"-c"_s,
                                u"import sys, zipfile; "
                                "zipfile.ZipFile(sys.argv[1]).extractall(sys.argv[2])"_s,
                                archive, scratch});
    if (!python.waitForFinished(60000) || python.exitCode() != 0)
        return {{u"<python failed>"_s, python.readAllStandardError()}};
    return treeOf(scratch);
}

} // namespace

class TestUnzipInPlace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void matchesReference_data();
    void matchesReference();
    void expectedTree_data();
    void expectedTree();
    void refusesHostile_data();
    void refusesHostile();
    void namesTheFolderUniquely();
    void concurrentUnzipsGetDistinctFolders();
    void stopsWhenCancelled();
};

void TestUnzipInPlace::initTestCase()
{
    ::umask(022);
    // The C-locale run of this test only means something if we start without UTF-8.
    qInfo() << "LC_CTYPE codeset at start:" << nl_langinfo(CODESET);
}

void TestUnzipInPlace::matchesReference_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("folder");
    QTest::addColumn<qint64>("budget");

    QTest::newRow("nested deflated") << u"nested"_s << u"Archive"_s << kBigBudget;
    QTest::newRow("stored") << u"stored"_s << u"Archive"_s << kBigBudget;
    // beach.jpg 10240 + readme 6 + empty 0 + notes 800: the budget is inclusive.
    QTest::newRow("exact budget") << u"nested"_s << u"Archive"_s << qint64(11046);
    QTest::newRow("non-ASCII names") << u"unicode"_s << u"Archive"_s << kBigBudget;
}

// Normal archives come out byte-identical to Python's extraction, the archive is deleted and
// nothing else appears next to the folder.
void TestUnzipInPlace::matchesReference()
{
    QFETCH(QString, kind);
    QFETCH(QString, folder);
    QFETCH(qint64, budget);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(dir.mkdir(u"work"_s) && dir.mkdir(u"reference"_s));
    const QString archive = dir.filePath(u"work/Archive.zip"_s);
    QVERIFY(makeZip(kind, archive));
    const Tree expected = referenceTree(archive, dir.filePath(u"reference"_s));
    QVERIFY(!expected.isEmpty());

    const QString result = unzipInPlace(archive, budget);

    QCOMPARE(result, dir.filePath(u"work/"_s + folder));
    QCOMPARE(treeOf(result), expected);
    QCOMPARE(entries(dir.filePath(u"work"_s)), QStringList{folder});
}

void TestUnzipInPlace::expectedTree_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("archiveName");
    QTest::addColumn<QString>("folder");
    QTest::addColumn<Tree>("expected");

    QTest::newRow("doubled top folder collapsed")
        << u"doubled"_s << u"Trip.zip"_s << u"Trip"_s
        << Tree{{u"day1.txt"_s, "sunny\n"}, {u"maps"_s, kDir}, {u"maps/route.gpx"_s, "<gpx/>\n"}};
    QTest::newRow("different top folder kept")
        << u"notdoubled"_s << u"Trip.zip"_s << u"Trip"_s
        << Tree{{u"Other"_s, kDir}, {u"Other/x.txt"_s, "x\n"}};
    QTest::newRow("macOS metadata skipped")
        << u"macos"_s << u"Trip.zip"_s << u"Trip"_s << Tree{{u"a.txt"_s, "a\n"}};
    QTest::newRow("last extension only")
        << u"stored"_s << u"x.tar.zip"_s << u"x.tar"_s
        << Tree{{u"a.txt"_s, "stored bytes\n"}, {u"sub"_s, kDir}, {u"sub/b.txt"_s, "more\n"}};
    QTest::newRow("non-ASCII archive name")
        << u"stored"_s << u"Été ✓.zip"_s << u"Été ✓"_s
        << Tree{{u"a.txt"_s, "stored bytes\n"}, {u"sub"_s, kDir}, {u"sub/b.txt"_s, "more\n"}};
    QTest::newRow("setuid and sticky bits dropped")
        << u"setuid"_s << u"Modes.zip"_s << u"Modes"_s
        << Tree{{u"tool"_s, "#!/bin/sh\n"}, {u"shared"_s, kDir}};
}

void TestUnzipInPlace::expectedTree()
{
    QFETCH(QString, kind);
    QFETCH(QString, archiveName);
    QFETCH(QString, folder);
    QFETCH(Tree, expected);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString archive = QDir(root.path()).filePath(archiveName);
    QVERIFY(makeZip(kind, archive));

    const QString result = unzipInPlace(archive, kBigBudget);

    QCOMPARE(result, QDir(root.path()).filePath(folder));
    QCOMPARE(treeOf(result), expected);
    QCOMPARE(entries(root.path()), QStringList{folder});

    // Only plain permission bits, and the umask (022) applies.
    QDirIterator it(result, QDir::AllEntries | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        struct stat st;
        QVERIFY(::lstat(QFile::encodeName(it.next()).constData(), &st) == 0);
        QVERIFY2((st.st_mode & 07022) == 0, qPrintable(it.filePath()));
        QVERIFY(st.st_mode & S_IRUSR);
    }
}

void TestUnzipInPlace::refusesHostile_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<qint64>("budget");
    QTest::addColumn<QString>("reason"); // what the warning log must say

    QTest::newRow("../x") << u"traversal"_s << kBigBudget << u"unsafe path \\.\\./x"_s;
    QTest::newRow("a/../../x") << u"traversal-inner"_s << kBigBudget
                               << u"unsafe path a/\\.\\./\\.\\./x"_s;
    QTest::newRow("absolute path") << u"absolute"_s << kBigBudget << u"absolute path /"_s;
    QTest::newRow("dot component") << u"dotdir"_s << kBigBudget << u"unsafe path a/\\./b"_s;
    QTest::newRow("symlink out of the folder")
        << u"symlink-out"_s << kBigBudget << u"not a regular file or folder: link"_s;
    QTest::newRow("absolute symlink")
        << u"symlink-abs"_s << kBigBudget << u"not a regular file or folder: link"_s;
    QTest::newRow("write through a symlink")
        << u"symlink-through"_s << kBigBudget << u"not a regular file or folder: dir"_s;
    QTest::newRow("fifo") << u"fifo"_s << kBigBudget << u"not a regular file or folder: pipe"_s;
    QTest::newRow("character device")
        << u"device"_s << kBigBudget << u"not a regular file or folder: tty"_s;
    QTest::newRow("socket") << u"socket"_s << kBigBudget << u"not a regular file or folder: sock"_s;
    QTest::newRow("NUL in a name") << u"nul-name"_s << kBigBudget << u"NUL in name nul$"_s;
    QTest::newRow("duplicate names")
        << u"duplicate"_s << kBigBudget << u"duplicate name same\\.txt"_s;
    QTest::newRow("file then folder of the same name")
        << u"file-then-folder"_s << kBigBudget << u"thing/inner\\.txt: "_s;
    QTest::newRow("bomb: 8 MiB of zeros, 1 MiB budget")
        << u"bomb"_s << qint64(1024 * 1024) << u"more bytes than the budget of 1048576"_s;
    QTest::newRow("bomb over many entries")
        << u"bomb-many"_s << qint64(1024 * 1024) << u"more bytes than the budget of 1048576"_s;
    QTest::newRow("budget one byte short")
        << u"nested"_s << qint64(11045) << u"more bytes than the budget of 11045"_s;
    QTest::newRow("300-byte name") << u"long-name"_s << kBigBudget << u"name too long"_s;
    QTest::newRow("not a zip") << u"not-a-zip"_s << kBigBudget << u"."_s;
    QTest::newRow("truncated") << u"truncated"_s << kBigBudget << u"."_s;
}

// A hostile archive fails as a whole: the user's sentence, the archive kept byte for byte,
// nothing created inside or outside the work folder and no temporary folder left.
void TestUnzipInPlace::refusesHostile()
{
    QFETCH(QString, kind);
    QFETCH(qint64, budget);
    QFETCH(QString, reason);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(dir.mkdir(u"work"_s));
    const QString archive = dir.filePath(u"work/Hostile.zip"_s);
    const QString absoluteTarget = dir.filePath(u"abs-escape"_s);
    QVERIFY(makeZip(kind, archive, {absoluteTarget}));
    QFile archiveFile(archive);
    QVERIFY(archiveFile.open(QIODevice::ReadOnly));
    const QByteArray archiveBytes = archiveFile.readAll();
    archiveFile.close();

    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(u"^refused Hostile\\.zip - .*"_s + reason));
    try {
        const QString result = unzipInPlace(archive, budget);
        QFAIL(qPrintable(u"extracted to "_s + result));
    } catch (const AppError &error) {
        QCOMPARE(error.message(), u"Couldn't unzip Hostile.zip."_s);
    }

    QCOMPARE(entries(root.path()), QStringList{u"work"_s});
    QCOMPARE(entries(dir.filePath(u"work"_s)), QStringList{u"Hostile.zip"_s});
    QVERIFY(archiveFile.open(QIODevice::ReadOnly));
    QCOMPARE(archiveFile.readAll(), archiveBytes);
    QVERIFY(!QFileInfo::exists(absoluteTarget));
}

void TestUnzipInPlace::namesTheFolderUniquely()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(dir.mkdir(u"Trip"_s));
    QFile existing(dir.filePath(u"Trip/mine.txt"_s));
    QVERIFY(existing.open(QIODevice::WriteOnly) && existing.write("mine") == 4);
    existing.close();

    QVERIFY(makeZip(u"doubled"_s, dir.filePath(u"Trip.zip"_s)));
    const QString result = unzipInPlace(dir.filePath(u"Trip.zip"_s), kBigBudget);

    // "Trip (2)" does not equal the inner "Trip", so the inner level stays.
    QCOMPARE(result, dir.filePath(u"Trip (2)"_s));
    QCOMPARE(treeOf(result).value(u"Trip/day1.txt"_s), QByteArray("sunny\n"));
    QCOMPARE(treeOf(dir.filePath(u"Trip"_s)), (Tree{{u"mine.txt"_s, "mine"}}));
    QCOMPARE(entries(root.path()), (QStringList{u"Trip"_s, u"Trip (2)"_s}));
}

// Runs off the main thread in the app; several at once must not collide on the folder name.
void TestUnzipInPlace::concurrentUnzipsGetDistinctFolders()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    const QStringList archives = {u"Same.zip"_s, u"Same.ZIP"_s, u"Same.bin"_s, u"Same.dat"_s};
    for (const QString &name : archives)
        QVERIFY(makeZip(u"nested"_s, dir.filePath(name)));
    QVERIFY(dir.mkdir(u"reference"_s));
    const Tree expected =
        referenceTree(dir.filePath(archives.first()), dir.filePath(u"reference"_s));
    QVERIFY(dir.rmdir(u"reference"_s) || QDir(dir.filePath(u"reference"_s)).removeRecursively());

    QList<QFuture<QString>> futures;
    for (const QString &name : archives)
        futures << QtConcurrent::run(
            [path = dir.filePath(name)] { return unzipInPlace(path, kBigBudget); });
    QStringList results;
    for (auto &future : futures)
        results << future.result();
    results.sort();

    QCOMPARE(results, (QStringList{dir.filePath(u"Same"_s), dir.filePath(u"Same (2)"_s),
                                   dir.filePath(u"Same (3)"_s), dir.filePath(u"Same (4)"_s)}));
    for (const QString &result : results)
        QCOMPARE(treeOf(result), expected);
    QCOMPARE(entries(root.path()),
             (QStringList{u"Same"_s, u"Same (2)"_s, u"Same (3)"_s, u"Same (4)"_s}));
}

void TestUnzipInPlace::stopsWhenCancelled()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString archive = QDir(root.path()).filePath(u"Big.zip"_s);
    QVERIFY(makeZip(u"nested"_s, archive));
    std::stop_source stop;
    stop.request_stop();
    QVERIFY_THROWS_EXCEPTION(Cancelled, unzipInPlace(archive, kBigBudget, stop.get_token()));
    QCOMPARE(entries(root.path()), QStringList{u"Big.zip"_s});
}

QTEST_GUILESS_MAIN(TestUnzipInPlace)
#include "tst_unzipinplace.moc"
