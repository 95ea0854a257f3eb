#include "api/apperror.h"
#include "receive/moveintoplace.h"
#include "receive/nooverwrite.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QtConcurrent>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

using namespace lofthaven;
using namespace Qt::StringLiterals;

namespace {

QByteArray randomBytes(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(QRandomGenerator::global()->bounded(256));
    return bytes;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

dev_t deviceOf(const QString &path)
{
    struct stat st;
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_dev : dev_t(-1);
}

} // namespace

class TestMoveIntoPlace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void moves_data();
    void moves();
    void acrossFileSystems_data();
    void acrossFileSystems();
    void failures();
    void renameNoReplaceRefusesExisting();
    void createsMissingFolder();
    void concurrentMovesNeverOverwrite();

private:
    void addRows();
    void check(const QString &partialFolder);
};

void TestMoveIntoPlace::addRows()
{
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");

    QTest::newRow("free name") << QStringList{} << u"photo.jpg"_s << u"photo.jpg"_s;
    QTest::newRow("collision") << QStringList{u"a_b_c.txt"_s} << u"a/b:c.txt"_s
                               << u"a_b_c (2).txt"_s;
    QTest::newRow("second collision")
        << QStringList{u"a_b_c.txt"_s, u"a_b_c (2).txt"_s} << u"a/b:c.txt"_s << u"a_b_c (3).txt"_s;
    QTest::newRow("no extension") << QStringList{u"Notes"_s} << u"Notes"_s << u"Notes (2)"_s;
    QTest::newRow("folder in the way")
        << QStringList{u"Trip.zip/"_s} << u"Trip.zip"_s << u"Trip (2).zip"_s;
    QTest::newRow("traversal") << QStringList{} << u"../x"_s << u"_._x"_s;
    QTest::newRow("absolute") << QStringList{} << u"/abs"_s << u"_abs"_s;
    QTest::newRow("NUL") << QStringList{} << QString(u"a"_s + QChar(0) + u"b"_s) << u"ab"_s;
    QTest::newRow("300 bytes") << QStringList{} << QString(300, u'n') << QString(200, u'n');
    QTest::newRow("only spaces") << QStringList{} << u"   "_s << u"download"_s;
    QTest::newRow("only spaces twice")
        << QStringList{u"download"_s} << u"   "_s << u"download (2)"_s;
    QTest::newRow(".profile") << QStringList{u".profile"_s} << u".profile"_s << u"_profile"_s;
}

// Moves a partial file with random bytes and checks: the bytes arrive under the expected name
// directly inside the folder, nothing existing changed, the partial file is gone and no
// temporary file is left.
void TestMoveIntoPlace::check(const QString &partialFolder)
{
    QFETCH(QStringList, existing);
    QFETCH(QString, name);
    QFETCH(QString, expected);

    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QString folder = QDir(root.path()).filePath(u"Downloads"_s);
    QVERIFY(QDir().mkpath(folder));
    QStringList before;
    for (const QString &entry : existing) {
        if (entry.endsWith(u'/')) {
            QVERIFY(QDir(folder).mkdir(entry.chopped(1)));
            before << entry.chopped(1);
        } else {
            QVERIFY(writeFile(QDir(folder).filePath(entry), "existing " + entry.toUtf8()));
            before << entry;
        }
    }

    const QString partial = QDir(partialFolder).filePath(u"transfer.part"_s);
    const QByteArray bytes = randomBytes(300 * 1024 + 7);
    QVERIFY(writeFile(partial, bytes));

    const QString result = moveIntoPlace(partial, name, folder);

    QCOMPARE(result, QDir(folder).filePath(expected));
    QCOMPARE(readFile(result), bytes);
    QVERIFY(!QFile::exists(partial));
    for (const QString &entry : existing) {
        if (!entry.endsWith(u'/'))
            QCOMPARE(readFile(QDir(folder).filePath(entry)), "existing " + entry.toUtf8());
    }
    QStringList after = before;
    after << expected;
    after.sort();
    QCOMPARE(entries(folder), after);
    QCOMPARE(entries(root.path()), QStringList{u"Downloads"_s});
}

void TestMoveIntoPlace::moves_data()
{
    addRows();
}

void TestMoveIntoPlace::moves()
{
    QTemporaryDir temp;
    QVERIFY(temp.isValid());
    check(temp.path());
}

void TestMoveIntoPlace::acrossFileSystems_data()
{
    addRows();
}

void TestMoveIntoPlace::acrossFileSystems()
{
    // The partial file lives on tmpfs, the destination on /tmp's file system.
    QTemporaryDir shm(u"/dev/shm/lofthaven-test-XXXXXX"_s);
    QTemporaryDir probe;
    if (!shm.isValid() || deviceOf(shm.path()) == deviceOf(probe.path()))
        QSKIP("/dev/shm and the temporary folder are on the same file system");
    check(shm.path());
    QCOMPARE(entries(shm.path()), QStringList{});
}

void TestMoveIntoPlace::failures()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());

    // A missing partial file.
    try {
        moveIntoPlace(dir.filePath(u"missing.part"_s), u"x.txt"_s, dir.filePath(u"out"_s));
        QFAIL("no error for a missing partial file");
    } catch (const AppError &error) {
        QCOMPARE(error.message(), u"Couldn't save x.txt: No such file or directory."_s);
    }
    QCOMPARE(entries(dir.filePath(u"out"_s)), QStringList{});

    // A file where the destination folder should be.
    QVERIFY(writeFile(dir.filePath(u"blocker"_s), "file"));
    QVERIFY(writeFile(dir.filePath(u"p.part"_s), "bytes"));
    try {
        moveIntoPlace(dir.filePath(u"p.part"_s), u"x.txt"_s, dir.filePath(u"blocker/sub"_s));
        QFAIL("no error for a folder that cannot be created");
    } catch (const AppError &error) {
        QVERIFY2(error.message().startsWith(u"Couldn't create the folder "_s +
                                            dir.filePath(u"blocker/sub"_s) + u": "_s),
                 qPrintable(error.message()));
    }
    QCOMPARE(readFile(dir.filePath(u"p.part"_s)), QByteArray("bytes"));

    // A destination folder we may not write to (root ignores permissions).
    if (::geteuid() != 0) {
        const QString locked = dir.filePath(u"locked"_s);
        QVERIFY(dir.mkdir(u"locked"_s));
        QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::ExeOwner));
        try {
            moveIntoPlace(dir.filePath(u"p.part"_s), u"x.txt"_s, locked);
            QFAIL("no error for a read-only folder");
        } catch (const AppError &error) {
            QCOMPARE(error.message(), u"Couldn't save x.txt: Permission denied."_s);
        }
        QVERIFY(
            QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QCOMPARE(readFile(dir.filePath(u"p.part"_s)), QByteArray("bytes"));
    }
}

// The primitive behind "never overwrite": a name that appears between the free-name check and
// the rename must make the rename fail, not be replaced.
void TestMoveIntoPlace::renameNoReplaceRefusesExisting()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(writeFile(dir.filePath(u"from"_s), "new"));
    QVERIFY(writeFile(dir.filePath(u"to"_s), "old"));
    QCOMPARE(renameNoReplace(dir.filePath(u"from"_s), dir.filePath(u"to"_s)), EEXIST);
    QCOMPARE(readFile(dir.filePath(u"to"_s)), QByteArray("old"));
    QCOMPARE(readFile(dir.filePath(u"from"_s)), QByteArray("new"));
    QCOMPARE(renameNoReplace(dir.filePath(u"from"_s), dir.filePath(u"free"_s)), 0);
    QCOMPARE(readFile(dir.filePath(u"free"_s)), QByteArray("new"));
    QVERIFY(!QFile::exists(dir.filePath(u"from"_s)));
}

void TestMoveIntoPlace::createsMissingFolder()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(writeFile(dir.filePath(u"p.part"_s), "abc"));
    const QString result =
        moveIntoPlace(dir.filePath(u"p.part"_s), u"f.txt"_s, dir.filePath(u"a/b/c"_s));
    QCOMPARE(result, dir.filePath(u"a/b/c/f.txt"_s));
    QCOMPARE(readFile(result), QByteArray("abc"));
}

// Several downloads of the same name finishing at once: each gets its own name, none is lost.
void TestMoveIntoPlace::concurrentMovesNeverOverwrite()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(dir.mkdir(u"parts"_s) && dir.mkdir(u"out"_s));
    constexpr int kCount = 8;
    QList<QByteArray> contents;
    for (int i = 0; i < kCount; ++i) {
        contents << randomBytes(4096) + QByteArray::number(i);
        QVERIFY(writeFile(dir.filePath(u"parts/%1.part"_s.arg(i)), contents.last()));
    }
    QList<QFuture<QString>> futures;
    for (int i = 0; i < kCount; ++i) {
        futures << QtConcurrent::run(
            [partial = dir.filePath(u"parts/%1.part"_s.arg(i)), folder = dir.filePath(u"out"_s)] {
                return moveIntoPlace(partial, u"same.bin"_s, folder);
            });
    }
    QSet<QByteArray> expected(contents.cbegin(), contents.cend());
    QSet<QString> paths;
    for (auto &future : futures) {
        const QString path = future.result();
        paths.insert(path);
        QVERIFY(expected.remove(readFile(path)));
    }
    QCOMPARE(paths.size(), kCount);
    QVERIFY(expected.isEmpty());
    QCOMPARE(entries(dir.filePath(u"out"_s)).size(), kCount);
    QCOMPARE(entries(dir.filePath(u"parts"_s)), QStringList{});
}

QTEST_GUILESS_MAIN(TestMoveIntoPlace)
#include "tst_moveintoplace.moc"
