#include "api/apperror.h"
#include "api/cancelled.h"
#include "receive/unzipinplace.h"
#include "testdata.h"

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
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace lofthaven;
using namespace lofthaven::testing;
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
            tree.insert(relative, readFile(path));
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
Tree referenceTree(const QString &archive)
{
    QTemporaryDir scratch;
    QProcess python;
    python.start(u"python3"_s, {u"-c"_s,
                                u"import sys, zipfile; "
                                "zipfile.ZipFile(sys.argv[1]).extractall(sys.argv[2])"_s,
                                archive, scratch.path()});
    if (!scratch.isValid() || !python.waitForFinished(60000) || python.exitCode() != 0)
        return {{u"<python failed>"_s, python.readAllStandardError()}};
    return treeOf(scratch.path());
}

} // namespace

class TestUnzipInPlace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void extracts_data();
    void extracts();
    void refusesHostile_data();
    void refusesHostile();
    void namesTheFolderUniquely();
    void concurrentUnzipsGetDistinctFolders();
    void stopsWhenCancelled();
    void fullDiskFailsAndKeepsTheArchive();
};

void TestUnzipInPlace::initTestCase()
{
    ::umask(022);
    // The C-locale run of this test only means something if we start without UTF-8.
    qInfo() << "LC_CTYPE codeset at start:" << nl_langinfo(CODESET);
}

// An empty expected tree stands for Python's extraction of the same archive.
void TestUnzipInPlace::extracts_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("archiveName");
    QTest::addColumn<QString>("folder");
    QTest::addColumn<Tree>("expected");
    QTest::addColumn<qint64>("budget");
    auto row = [](const char *tag, const QString &kind, const QString &archiveName,
                  const QString &folder, const Tree &expected, qint64 budget = kBigBudget) {
        QTest::newRow(tag) << kind << archiveName << folder << expected << budget;
    };
    const Tree stored{{u"a.txt"_s, "stored bytes\n"}, {u"sub"_s, kDir}, {u"sub/b.txt"_s, "more\n"}};

    row("nested deflated", u"nested"_s, u"Archive.zip"_s, u"Archive"_s, {});
    row("stored", u"stored"_s, u"Archive.zip"_s, u"Archive"_s, {});
    // beach.jpg 10240 + readme 6 + empty 0 + notes 800: the budget is inclusive.
    row("exact budget", u"nested"_s, u"Archive.zip"_s, u"Archive"_s, {}, 11046);
    row("non-ASCII names", u"unicode"_s, u"Archive.zip"_s, u"Archive"_s, {});
    row("doubled top folder collapsed", u"doubled"_s, u"Trip.zip"_s, u"Trip"_s,
        {{u"day1.txt"_s, "sunny\n"}, {u"maps"_s, kDir}, {u"maps/route.gpx"_s, "<gpx/>\n"}});
    row("different top folder kept", u"notdoubled"_s, u"Trip.zip"_s, u"Trip"_s,
        {{u"Other"_s, kDir}, {u"Other/x.txt"_s, "x\n"}});
    row("a lone file named like the archive stays in its folder", u"lonefile"_s, u"Trip.zip"_s,
        u"Trip"_s, {{u"Trip"_s, "just a file\n"}});
    row("macOS metadata skipped", u"macos"_s, u"Trip.zip"_s, u"Trip"_s, {{u"a.txt"_s, "a\n"}});
    row("last extension only", u"stored"_s, u"x.tar.zip"_s, u"x.tar"_s, stored);
    row("non-ASCII archive name", u"stored"_s, u"Été ✓.zip"_s, u"Été ✓"_s, stored);
    row("control and bidi characters dropped from names", u"controls"_s, u"Bill.zip"_s, u"Bill"_s,
        {{u"bill]0;pwnedtxt.exe"_s, "x\n"}});
    row("setuid and sticky bits dropped", u"setuid"_s, u"Modes.zip"_s, u"Modes"_s,
        {{u"tool"_s, "#!/bin/sh\n"}, {u"shared"_s, kDir}});
}

// The archive comes out as expected (or byte-identical to Python's extraction), the archive is
// deleted and nothing else appears next to the folder.
void TestUnzipInPlace::extracts()
{
    QFETCH(QString, kind);
    QFETCH(QString, archiveName);
    QFETCH(QString, folder);
    QFETCH(Tree, expected);
    QFETCH(qint64, budget);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString archive = root.filePath(archiveName);
    QVERIFY(makeZip(kind, archive));
    if (expected.isEmpty())
        expected = referenceTree(archive);
    QVERIFY(!expected.isEmpty());

    const QString result = unzipInPlace(archive, budget);

    QCOMPARE(result, root.filePath(folder));
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

    auto row = [](const char *tag, const QString &kind, const QString &reason,
                  qint64 budget = kBigBudget) { QTest::newRow(tag) << kind << budget << reason; };
    row("../x", u"traversal"_s, u"unsafe path \\.\\./x"_s);
    row("a/../../x", u"traversal-inner"_s, u"unsafe path a/\\.\\./\\.\\./x"_s);
    row("absolute path", u"absolute"_s, u"absolute path /"_s);
    row("dot component", u"dotdir"_s, u"unsafe path a/\\./b"_s);
    row("symlink out of the folder", u"symlink-out"_s, u"not a regular file or folder: link"_s);
    row("absolute symlink", u"symlink-abs"_s, u"not a regular file or folder: link"_s);
    row("write through a symlink", u"symlink-through"_s, u"not a regular file or folder: dir"_s);
    row("fifo", u"fifo"_s, u"not a regular file or folder: pipe"_s);
    row("character device", u"device"_s, u"not a regular file or folder: tty"_s);
    row("socket", u"socket"_s, u"not a regular file or folder: sock"_s);
    row("NUL in a name", u"nul-name"_s, u"NUL in name nul$"_s);
    row("duplicate names", u"duplicate"_s, u"duplicate name same\\.txt"_s);
    row("one name composed and decomposed", u"duplicate-composed"_s,
        u"duplicate name \u1E8E\\.txt"_s);
    row("file then folder of the same name", u"file-then-folder"_s, u"thing/inner\\.txt: "_s);
    row("bomb: 8 MiB of zeros, 1 MiB budget", u"bomb"_s, u"more bytes than the budget of 1048576"_s,
        1024 * 1024);
    row("bomb over many entries", u"bomb-many"_s, u"more bytes than the budget of 1048576"_s,
        1024 * 1024);
    row("budget one byte short", u"nested"_s, u"more bytes than the budget of 11045"_s, 11045);
    row("300-byte name", u"long-name"_s, u"name too long"_s);
    row("bytes changed after their CRC", u"bad-crc"_s, u"a\\.txt: "_s);
    row("entry declares 774 MB it does not hold", u"declared-size"_s, u"."_s);
    row("not a zip", u"not-a-zip"_s, u"."_s);
    row("truncated", u"truncated"_s, u"."_s);
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
    QVERIFY(QDir(root.path()).mkdir(u"work"_s));
    const QString archive = root.filePath(u"work/Hostile.zip"_s);
    const QString absoluteTarget = root.filePath(u"abs-escape"_s);
    QVERIFY(makeZip(kind, archive, {absoluteTarget}));
    const QByteArray archiveBytes = readFile(archive);

    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(u"^refused Hostile\\.zip - .*"_s + reason));
    try {
        const QString result = unzipInPlace(archive, budget);
        QFAIL(qPrintable(u"extracted to "_s + result));
    } catch (const AppError &error) {
        QCOMPARE(error.message(), u"Couldn't unzip Hostile.zip."_s);
    }

    QCOMPARE(entries(root.path()), QStringList{u"work"_s});
    QCOMPARE(entries(root.filePath(u"work"_s)), QStringList{u"Hostile.zip"_s});
    QCOMPARE(readFile(archive), archiveBytes);
    QVERIFY(!QFileInfo::exists(absoluteTarget));
}

void TestUnzipInPlace::namesTheFolderUniquely()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    QVERIFY(writeFile(root.filePath(u"Trip/mine.txt"_s), "mine"));

    QVERIFY(makeZip(u"doubled"_s, root.filePath(u"Trip.zip"_s)));
    const QString result = unzipInPlace(root.filePath(u"Trip.zip"_s), kBigBudget);

    // "Trip (2)" does not equal the inner "Trip", so the inner level stays.
    QCOMPARE(result, root.filePath(u"Trip (2)"_s));
    QCOMPARE(treeOf(result).value(u"Trip/day1.txt"_s), QByteArray("sunny\n"));
    QCOMPARE(treeOf(root.filePath(u"Trip"_s)), (Tree{{u"mine.txt"_s, "mine"}}));
    QCOMPARE(entries(root.path()), (QStringList{u"Trip"_s, u"Trip (2)"_s}));
}

// Runs off the main thread in the app; several at once must not collide on the folder name.
void TestUnzipInPlace::concurrentUnzipsGetDistinctFolders()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QStringList archives = {u"Same.zip"_s, u"Same.ZIP"_s, u"Same.bin"_s, u"Same.dat"_s};
    for (const QString &name : archives)
        QVERIFY(makeZip(u"nested"_s, root.filePath(name)));
    const Tree expected = referenceTree(root.filePath(archives.first()));

    QList<QFuture<QString>> futures;
    for (const QString &name : archives)
        futures << QtConcurrent::run(
            [path = root.filePath(name)] { return unzipInPlace(path, kBigBudget); });
    QStringList results;
    for (auto &future : futures)
        results << future.result();
    results.sort();

    QCOMPARE(results, (QStringList{root.filePath(u"Same"_s), root.filePath(u"Same (2)"_s),
                                   root.filePath(u"Same (3)"_s), root.filePath(u"Same (4)"_s)}));
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

// A full disk must not pass for success: libarchive reports a failed write as a warning and
// still gives the file its full length. The unzip runs in a child process with a small tmpfs
// of its own (a private mount namespace), where the archive fits and its contents do not.
void TestUnzipInPlace::fullDiskFailsAndKeepsTheArchive()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString source = root.filePath(u"Full.zip"_s);
    QVERIFY(makeZip(u"big-stored"_s, source));
    const QByteArray archiveBytes = readFile(source);
    const QString disk = root.filePath(u"disk"_s);
    QVERIFY(QDir().mkpath(disk));

    enum Outcome
    {
        Refused = 10,
        Extracted,
        OtherError,
        LeftSomething,
        NoNamespace
    };
    const pid_t child = ::fork();
    if (child == 0) {
        if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            ::_exit(NoNamespace);
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
        if (::mount("tmpfs", QFile::encodeName(disk).constData(), "tmpfs", 0, "size=384k") != 0)
            ::_exit(NoNamespace);
        const QString archive = disk + u"/Full.zip"_s;
        if (!writeFile(archive, archiveBytes))
            ::_exit(NoNamespace);
        int outcome = Extracted;
        try {
            unzipInPlace(archive, kBigBudget);
        } catch (const AppError &error) {
            outcome = error.message() == u"Couldn't unzip Full.zip."_s ? Refused : OtherError;
        } catch (...) {
            outcome = OtherError;
        }
        if (outcome == Refused &&
            (entries(disk) != QStringList{u"Full.zip"_s} || readFile(archive) != archiveBytes))
            outcome = LeftSomething;
        ::_exit(outcome);
    }
    int status = 0;
    QCOMPARE(::waitpid(child, &status, 0), child);
    QVERIFY(WIFEXITED(status));
    if (WEXITSTATUS(status) == NoNamespace)
        QSKIP("no private mount namespace for a small file system here");
    QCOMPARE(WEXITSTATUS(status), int(Refused));
}

QTEST_GUILESS_MAIN(TestUnzipInPlace)
#include "tst_unzipinplace.moc"
