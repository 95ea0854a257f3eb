#include "api/apperror.h"
#include "receive/moveintoplace.h"
#include "receive/nooverwrite.h"
#include "testdata.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QtConcurrent>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

namespace {

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

// The message of the AppError that moving `partial` throws.
QString refusal(const QString &partial, const QString &folder)
{
    try {
        moveIntoPlace(partial, u"x.txt"_s, folder);
    } catch (const AppError &error) {
        return error.message();
    }
    return u"<moved>"_s;
}

} // namespace

class TestMoveIntoPlace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void moves_data();
    void moves();
    void failures();
    void renameNoReplaceRefusesExisting();
    void createsMissingFolder();
    void concurrentMovesNeverOverwrite();
};

// Every row once with the partial file next to the destination and once with it on tmpfs, where
// the bytes have to be copied across file systems. Which names are safe and free is left to
// tst_filenames; these rows prove the name is made safe first, then free.
void TestMoveIntoPlace::moves_data()
{
    QTest::addColumn<bool>("acrossFileSystems");
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");

    for (const bool across : {false, true}) {
        auto row = [across](const char *tag, const QStringList &existing, const QString &name,
                            const QString &expected) {
            QTest::addRow("%s%s", across ? "across: " : "", tag)
                << across << existing << name << expected;
        };
        row("free name", {}, u"photo.jpg"_s, u"photo.jpg"_s);
        row("collision", {u"a_b_c.txt"_s}, u"a/b:c.txt"_s, u"a_b_c (2).txt"_s);
        row("traversal", {}, u"../x"_s, u"_._x"_s);
        row("only spaces twice", {u"download"_s}, u"   "_s, u"download (2)"_s);
    }
}

// Moves a partial file with random bytes and checks: the bytes arrive under the expected name
// directly inside the folder, nothing existing changed, the partial file is gone and no
// temporary file is left.
void TestMoveIntoPlace::moves()
{
    QFETCH(bool, acrossFileSystems);
    QFETCH(QStringList, existing);
    QFETCH(QString, name);
    QFETCH(QString, expected);

    QTemporaryDir root;
    QTemporaryDir partials(acrossFileSystems ? u"/dev/shm/lofthaven-test-XXXXXX"_s
                                             : QDir::tempPath() + u"/lofthaven-test-XXXXXX"_s);
    QVERIFY(root.isValid());
    const bool sameDevice = deviceOf(partials.path()) == deviceOf(root.path());
    if (acrossFileSystems && (!partials.isValid() || sameDevice))
        QSKIP("/dev/shm and the temporary folder are on the same file system");
    QVERIFY(partials.isValid());
    const QDir folder(root.filePath(u"Downloads"_s));
    QVERIFY(folder.mkpath(u"."_s));
    for (const QString &entry : existing)
        QVERIFY(writeFile(folder.filePath(entry), "existing " + entry.toUtf8()));
    const QString partial = partials.filePath(u"transfer.part"_s);
    const QByteArray bytes = randomBytes(300 * 1024 + 7);
    QVERIFY(writeFile(partial, bytes));

    const QString result = moveIntoPlace(partial, name, folder.path());

    QCOMPARE(result, folder.filePath(expected));
    QCOMPARE(readFile(result), bytes);
    QCOMPARE(entries(partials.path()), QStringList{});
    for (const QString &entry : existing)
        QCOMPARE(readFile(folder.filePath(entry)), "existing " + entry.toUtf8());
    QStringList after = existing + QStringList{expected};
    after.sort();
    QCOMPARE(entries(folder.path()), after);
    QCOMPARE(entries(root.path()), QStringList{u"Downloads"_s});
}

void TestMoveIntoPlace::failures()
{
    QTemporaryDir root;
    QVERIFY(root.isValid());

    // A missing partial file.
    QCOMPARE(refusal(root.filePath(u"missing.part"_s), root.filePath(u"out"_s)),
             u"Couldn't save x.txt: No such file or directory."_s);
    QCOMPARE(entries(root.filePath(u"out"_s)), QStringList{});

    // A file where the destination folder should be.
    QVERIFY(writeFile(root.filePath(u"blocker"_s), "file"));
    QVERIFY(writeFile(root.filePath(u"p.part"_s), "bytes"));
    const QString message = refusal(root.filePath(u"p.part"_s), root.filePath(u"blocker/sub"_s));
    QVERIFY2(message.startsWith(u"Couldn't create the folder "_s + root.filePath(u"blocker/sub"_s) +
                                u": "_s),
             qPrintable(message));
    QCOMPARE(readFile(root.filePath(u"p.part"_s)), QByteArray("bytes"));

    // A destination folder we may not write to (root ignores permissions).
    if (::geteuid() != 0) {
        const QString locked = root.filePath(u"locked"_s);
        QVERIFY(QDir(root.path()).mkdir(u"locked"_s));
        QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::ExeOwner));
        QCOMPARE(refusal(root.filePath(u"p.part"_s), locked),
                 u"Couldn't save x.txt: Permission denied."_s);
        QVERIFY(
            QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QCOMPARE(readFile(root.filePath(u"p.part"_s)), QByteArray("bytes"));
    }
}

// The primitive behind "never overwrite": a name that appears between the free-name check and
// the rename must make the rename fail, not be replaced.
void TestMoveIntoPlace::renameNoReplaceRefusesExisting()
{
    QTemporaryDir root;
    QVERIFY(writeFile(root.filePath(u"from"_s), "new"));
    QVERIFY(writeFile(root.filePath(u"to"_s), "old"));
    QCOMPARE(renameNoReplace(root.filePath(u"from"_s), root.filePath(u"to"_s)), EEXIST);
    QCOMPARE(readFile(root.filePath(u"to"_s)), QByteArray("old"));
    QCOMPARE(readFile(root.filePath(u"from"_s)), QByteArray("new"));
    QCOMPARE(renameNoReplace(root.filePath(u"from"_s), root.filePath(u"free"_s)), 0);
    QCOMPARE(readFile(root.filePath(u"free"_s)), QByteArray("new"));
    QVERIFY(!QFile::exists(root.filePath(u"from"_s)));
}

void TestMoveIntoPlace::createsMissingFolder()
{
    QTemporaryDir root;
    QVERIFY(writeFile(root.filePath(u"p.part"_s), "abc"));
    const QString result =
        moveIntoPlace(root.filePath(u"p.part"_s), u"f.txt"_s, root.filePath(u"a/b/c"_s));
    QCOMPARE(result, root.filePath(u"a/b/c/f.txt"_s));
    QCOMPARE(readFile(result), QByteArray("abc"));
}

// Several downloads of the same name finishing at once: each gets its own name, none is lost.
void TestMoveIntoPlace::concurrentMovesNeverOverwrite()
{
    QTemporaryDir root;
    QVERIFY(QDir(root.path()).mkdir(u"parts"_s) && QDir(root.path()).mkdir(u"out"_s));
    constexpr int kCount = 8;
    QList<QByteArray> contents;
    for (int i = 0; i < kCount; ++i) {
        contents << randomBytes(4096) + QByteArray::number(i);
        QVERIFY(writeFile(root.filePath(u"parts/%1.part"_s.arg(i)), contents.last()));
    }
    QList<QFuture<QString>> futures;
    for (int i = 0; i < kCount; ++i) {
        futures << QtConcurrent::run(
            [partial = root.filePath(u"parts/%1.part"_s.arg(i)), folder = root.filePath(u"out"_s)] {
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
    QCOMPARE(entries(root.filePath(u"out"_s)).size(), kCount);
    QCOMPARE(entries(root.filePath(u"parts"_s)), QStringList{});
}

QTEST_GUILESS_MAIN(TestMoveIntoPlace)
#include "tst_moveintoplace.moc"
