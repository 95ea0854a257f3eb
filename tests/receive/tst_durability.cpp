// The order of the steps that make a received file durable, and the lost rename races, made
// deterministic: this executable stands in for renameat2, fsync and fdatasync (passing through
// to the C library) so a test can log the calls and make a rename fail as a race would.
#include "api/apperror.h"
#include "receive/filesink.h"
#include "receive/moveintoplace.h"
#include "testdata.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstdio>
#include <dlfcn.h>
#include <unistd.h>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

namespace {

struct Calls
{
    bool recording = false;
    QStringList log;       // "fsync NAME", "fdatasync NAME", "rename FROM -> TO"
    int failRenames = 0;   // the next renames that fail with failWith
    int failWith = EEXIST; // EEXIST: someone took the name; EXDEV: another file system
};
Calls calls;

QString nameOfFd(int fd)
{
    return QFileInfo(QFile::symLinkTarget(u"/proc/self/fd/"_s + QString::number(fd))).fileName();
}

template<typename F>
F real(const char *name)
{
    return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int renameat2(int fromDir, const char *from, int toDir, const char *to,
                         unsigned int flags)
{
    if (calls.recording) {
        calls.log.append(u"rename "_s + QFileInfo(QFile::decodeName(from)).fileName() + u" -> " +
                         QFileInfo(QFile::decodeName(to)).fileName());
        if (calls.failRenames > 0) {
            --calls.failRenames;
            errno = calls.failWith;
            return -1;
        }
    }
    static const auto next =
        real<int (*)(int, const char *, int, const char *, unsigned)>("renameat2");
    return next(fromDir, from, toDir, to, flags);
}

extern "C" int fsync(int fd)
{
    if (calls.recording)
        calls.log.append(u"fsync "_s + nameOfFd(fd));
    static const auto next = real<int (*)(int)>("fsync");
    return next(fd);
}

extern "C" int fdatasync(int fd)
{
    if (calls.recording)
        calls.log.append(u"fdatasync "_s + nameOfFd(fd));
    static const auto next = real<int (*)(int)>("fdatasync");
    return next(fd);
}

class TestDurability : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { calls = {}; }
    void cleanup() { calls = {}; }

    // The download's bytes reach the disk before the answer counts as received.
    void downloadIsFlushed()
    {
        QTemporaryDir dir;
        const QString partial = dir.filePath(u"t.part"_s);
        calls.recording = true;
        FileSink sink(partial, 0, 3, {});
        QVERIFY(sink.begin(200, {}));
        QVERIFY(sink.write("abc", 3));
        sink.finish();
        calls.recording = false;
        QCOMPARE(calls.log, QStringList{u"fdatasync t.part"_s});
    }

    // Across file systems the copy is flushed before it takes the final name, so a crash
    // never leaves a named but empty file.
    void crossDeviceCopyIsFlushedBeforeItIsNamed()
    {
        QTemporaryDir dir;
        const QString partial = dir.filePath(u"t.part"_s);
        QVERIFY(writeFile(partial, "payload"));
        const QString folder = dir.filePath(u"Downloads"_s);
        calls.recording = true;
        calls.failRenames = 1;
        calls.failWith = EXDEV;
        const QString placed = moveIntoPlace(partial, u"report.pdf"_s, folder);
        calls.recording = false;

        QCOMPARE(calls.log.size(), 3);
        QCOMPARE(calls.log.at(0), u"rename t.part -> report.pdf"_s);
        const QString hidden = calls.log.at(1).mid(6);
        QVERIFY2(hidden.startsWith(u".lh-move-"_s), qPrintable(calls.log.at(1)));
        QCOMPARE(calls.log.at(1), u"fsync "_s + hidden);
        QCOMPARE(calls.log.at(2), u"rename "_s + hidden + u" -> report.pdf"_s);
        QCOMPARE(readFile(placed), QByteArray("payload"));
        QCOMPARE(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{u"report.pdf"_s});
        QVERIFY(!QFile::exists(partial));
    }

    // Each EEXIST is a name taken between the check and the rename: pick again, up to a limit.
    void lostRenameRaces_data()
    {
        QTest::addColumn<int>("races");
        QTest::addColumn<QString>("error");
        QTest::newRow("one race") << 1 << QString();
        QTest::newRow("the last race allowed") << 1000 << QString();
        QTest::newRow("one race too many") << 1001 << u"Couldn't save report.pdf: File exists."_s;
    }
    void lostRenameRaces()
    {
        QFETCH(int, races);
        QFETCH(QString, error);
        QTemporaryDir dir;
        const QString partial = dir.filePath(u"t.part"_s);
        QVERIFY(writeFile(partial, "payload"));
        const QString folder = dir.filePath(u"Downloads"_s);
        calls.recording = true;
        calls.failRenames = races;
        QString outcome;
        try {
            const QString placed = moveIntoPlace(partial, u"report.pdf"_s, folder);
            QCOMPARE(QFileInfo(placed).fileName(), u"report.pdf"_s);
            QCOMPARE(readFile(placed), QByteArray("payload"));
        } catch (const AppError &e) {
            outcome = e.message();
        }
        calls.recording = false;
        QCOMPARE(outcome, error);
        QCOMPARE(calls.log.size(), error.isEmpty() ? races + 1 : races);
        if (!error.isEmpty())
            QCOMPARE(readFile(partial), QByteArray("payload")); // nothing lost
    }
};

QTEST_GUILESS_MAIN(TestDurability)
#include "tst_durability.moc"
