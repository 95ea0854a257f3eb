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
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

class TestSendPlan : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void plan_data();
    void plan();
    void fileCountLimit();
    void archiveSizeLimit_data();
    void archiveSizeLimit();
    void sizeLimitMessageFromItems();
    void unreadableSubfolderAsAnotherUser();
};

namespace {

const QString kZip = u"application/zip"_s;
const QString kStamped = u"Lofthaven-\\d{8}-\\d{4}\\.zip"_s;
const QString kNothing = u"Nothing to send (empty folder?)."_s;
const QDateTime kWhen(QDate(2021, 3, 4), QTime(5, 6, 7, 500), Qt::UTC); // every file's mtime

// The message of the AppError that `planning` throws.
template<typename Planning>
QString refusal(Planning planning)
{
    try {
        (void)planning();
    } catch (const AppError &e) {
        return e.message();
    }
    return u"<accepted>"_s;
}

QStringList namesOf(const SendPlan &plan)
{
    QStringList names;
    for (const SendItem &item : plan.items)
        names.append(item.name);
    return names;
}

int chmodPath(const QString &path, mode_t mode)
{
    return ::chmod(QFile::encodeName(path).constData(), mode);
}

// tree: files "path:size" (zero-filled), links "path->target" (target relative to the link's
// folder or absolute), "dir:path" empty folders, "fifo:path" named pipes and "locked:path"
// folders made unreadable, created in this order. planName is a regular expression.
void zipped(const char *tag, const QStringList &tree, const QStringList &selection,
            const QStringList &names, const QString &planName = u"F\\.zip"_s)
{
    QTest::newRow(tag) << tree << selection << names << planName << kZip << QString();
}

// One loose file, sent as itself.
void loose(const char *tag, const QString &file, const QString &mime = {})
{
    const QString name = file.section(u':', 0, -2);
    QTest::newRow(tag) << QStringList{file} << QStringList{name} << QStringList{name}
                       << QRegularExpression::escape(name) << mime << QString();
}

void refused(const char *tag, const QStringList &tree, const QStringList &selection,
             const QString &error)
{
    QTest::newRow(tag) << tree << selection << QStringList{} << QString() << QString() << error;
}

} // namespace

void TestSendPlan::plan_data()
{
    QTest::addColumn<QStringList>("tree");
    QTest::addColumn<QStringList>("selection");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QString>("planName");
    QTest::addColumn<QString>("mime");  // "" = none; a zip mime means a zipped plan
    QTest::addColumn<QString>("error"); // "@" stands for the temporary folder

    zipped("one folder, nested, UTF-8 name", {"Trip/a.txt:5", "Trip/Sub/bé ✓.bin:3"}, {"Trip"},
           {"Trip/a.txt", "Trip/Sub/bé ✓.bin"}, u"Trip\\.zip"_s);
    zipped("digit runs by value", {"F/file10:1", "F/file9:1", "F/file1:1", "F/file02:1"}, {"F"},
           {"F/file1", "F/file02", "F/file9", "F/file10"});
    zipped("case-insensitive", {"F/B:1", "F/a:1", "F/C:1"}, {"F"}, {"F/a", "F/B", "F/C"});
    zipped("collation ties broken case, then code point",
           {"F/file2:1", "F/File1:1", "F/file02:1", "F/file1:1"}, {"F"},
           {"F/file1", "F/File1", "F/file02", "F/file2"});
    zipped("subfolder names sort with files", {"F/b/x:1", "F/a.txt:1", "F/c:1"}, {"F"},
           {"F/a.txt", "F/b/x", "F/c"});
    refused("ignored names only", {"F/.DS_Store:10", "F/Sub/Thumbs.db:10"}, {"F"}, kNothing);
    zipped("ignored names are case-sensitive", {"F/.DS_Store:1", "F/thumbs.db:1", "F/.ds_store:1"},
           {"F"}, {"F/.ds_store", "F/thumbs.db"});
    zipped("hidden files included", {"F/.env:3", "F/.git/config:4"}, {"F"},
           {"F/.env", "F/.git/config"});
    zipped("selection with a trailing slash", {"F/a:5"}, {"F/"}, {"F/a"});
    zipped("empty file inside a folder", {"F/e:0"}, {"F"}, {"F/e"});
    refused("empty folders leave nothing", {"dir:F/a/b", "dir:F/c"}, {"F"}, kNothing);
    refused("missing selection fails the plan", {"a.txt:1"}, {"a.txt", "gone"},
            u"@/gone: No such file or directory"_s);
    refused("empty loose file", {"x.txt:0"}, {"x.txt"}, u"x.txt is empty."_s);
    loose("single file, known type", u"notes.txt:10"_s, u"text/plain"_s);
    loose("single file, no extension", u"README:4"_s);
    loose("single file, name known only as a whole", u"Makefile:4"_s);
    loose("single dot file has no extension", u".env:4"_s);
    loose("last extension counts", u"a.tar.gz:4"_s, u"application/gzip"_s);
    loose("single file, unknown extension", u"data.zzqx:4"_s);
    zipped("two loose files keep selection order", {"b.txt:1", "a.txt:2"}, {"b.txt", "a.txt"},
           {"b.txt", "a.txt"}, kStamped);
    zipped("file and folder: folder block at its place", {"z.txt:1", "F/y:1", "F/x:1", "w.txt:1"},
           {"z.txt", "F", "w.txt"}, {"z.txt", "F/x", "F/y", "w.txt"}, kStamped);
    zipped("folder with one file is still zipped", {"F/only.txt:3"}, {"F"}, {"F/only.txt"});
    zipped("two folders", {"A/1:1", "B/2:1"}, {"B", "A"}, {"B/2", "A/1"}, kStamped);
    zipped("duplicate names are kept", {"F/x:1"}, {"F", "F"}, {"F/x", "F/x"}, kStamped);
    zipped("symbolic links inside are skipped, never followed",
           {"F/real:3", "Outside/secret:9", "F/link->real", "F/dirlink->../Outside",
            "F/dangling->nowhere"},
           {"F"}, {"F/real"});
    refused("selected symbolic link is skipped", {"real.txt:3", "link.txt->real.txt"}, {"link.txt"},
            kNothing);
    zipped("selected link to a folder is skipped", {"F/a:3", "G/b:1", "L->F"}, {"L", "G"}, {"G/b"},
           kStamped);
    zipped("named pipe is skipped, never opened", {"F/a:1", "fifo:F/pipe"}, {"F"}, {"F/a"});
    zipped("unreadable subfolder is passed over",
           {"F/ok:1", "F/locked/secret:1", "locked:F/locked"}, {"F"}, {"F/ok"});
}

void TestSendPlan::plan()
{
    QFETCH(QStringList, tree);
    QFETCH(QStringList, selection);
    QFETCH(QStringList, names);
    QFETCH(QString, planName);
    QFETCH(QString, mime);
    QFETCH(QString, error);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QHash<QString, qint64> sizes;
    QStringList locked;
    auto unlock = qScopeGuard([&] {
        for (const QString &path : locked)
            chmodPath(path, 0700);
    });
    for (const QString &entry : tree) {
        const QString kind = entry.section(u':', 0, 0);
        const QString path = dir.filePath(entry.section(u':', 1));
        if (entry.contains(u"->")) {
            const QString link = dir.filePath(entry.section(u"->"_s, 0, 0));
            QVERIFY(QFile::link(entry.section(u"->"_s, 1), link));
        } else if (kind == u"dir") {
            QVERIFY(QDir().mkpath(path));
        } else if (kind == u"fifo") {
            QCOMPARE(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
        } else if (kind == u"locked") {
            QCOMPARE(chmodPath(path, 0), 0);
            locked.append(path);
            // With CAP_DAC_OVERRIDE (root) a mode-000 folder stays readable; nothing to prove.
            if (DIR *probe = ::opendir(QFile::encodeName(path).constData())) {
                ::closedir(probe);
                QSKIP("running with permission to read mode-000 folders (root)");
            }
        } else {
            const QString file = dir.filePath(entry.section(u':', 0, -2));
            const qint64 size = entry.section(u':', -1).toLongLong();
            QVERIFY(writeFile(file, QByteArray(size, 'x')));
            QFile opened(file);
            QVERIFY(opened.open(QIODevice::ReadWrite));
            QVERIFY(opened.setFileTime(kWhen, QFileDevice::FileModificationTime));
            sizes.insert(file, size);
        }
    }
    QStringList paths;
    for (const QString &s : selection)
        paths.append(dir.filePath(s));

    if (!error.isEmpty()) {
        QCOMPARE(refusal([&] { return SendPlan::make(paths); }), error.replace(u'@', dir.path()));
        return;
    }
    const SendPlan plan = SendPlan::make(paths);
    QCOMPARE(namesOf(plan), names);
    QVERIFY2(QRegularExpression(u'^' + planName + u'$').match(plan.name).hasMatch(),
             qPrintable(plan.name));
    QCOMPARE(plan.isZip, mime == kZip);
    QCOMPARE(plan.mime.value_or(QString()), mime);
    qint64 expectedSize = 0;
    for (const SendItem &item : plan.items) {
        // The item reads from the real file, by its absolute path, and carries its metadata.
        QVERIFY2(sizes.contains(item.path), qPrintable(item.path));
        QCOMPARE(item.size, sizes.value(item.path));
        QCOMPARE(item.mtime, kWhen);
        expectedSize += item.size;
    }
    QCOMPARE(plan.size, plan.isZip ? ZipStream::predictedSize(plan.items) : expectedSize);
}

void TestSendPlan::fileCountLimit()
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(u"Many"_s);
    for (int sub = 0; sub < 100; ++sub)
        QVERIFY(QDir().mkpath(folder + u"/d" + QString::number(sub)));
    for (int i = 0; i < 65000; ++i) {
        QFile file(folder + u"/d" + QString::number(i % 100) + u"/f" + QString::number(i));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    const SendPlan plan = SendPlan::make({folder});
    QCOMPARE(plan.items.size(), 65000);
    QCOMPARE(plan.name, u"Many.zip"_s);
    QCOMPARE(plan.items.first().name, u"Many/d0/f0"_s);
    QCOMPARE(plan.items.at(1).name, u"Many/d0/f100"_s);

    QVERIFY(writeFile(folder + u"/one-more", {}));
    QCOMPARE(refusal([&] { return SendPlan::make({folder}); }),
             u"Too many files (65001). Zip the folder first."_s);
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
    QVERIFY(writeFile(dir.filePath(u"Big/a"_s), "12345"));
    if (!makeSparseFile(dir.filePath(u"Big/huge"_s), hugeSize))
        QSKIP("this file system cannot hold a sparse 4 GB file");
    const QString folder = dir.filePath(u"Big"_s);
    if (error.isEmpty())
        QCOMPARE(SendPlan::make({folder}).size, archiveSize);
    else
        QCOMPARE(refusal([&] { return SendPlan::make({folder}); }), error);
}

void TestSendPlan::sizeLimitMessageFromItems()
{
    // The same limit through the item seam, with a size no file system holds sparse cheaply.
    QList<SendItem> items{{"/nowhere/a", "F/a", qint64(1) << 40, QDateTime::currentDateTimeUtc()}};
    QCOMPARE(
        refusal([&] { return SendPlan::fromItems(items, 1); }),
        u"Zipped folders are limited to 4 GB (this one is 1 TB). Send the files one by one."_s);
    // A single loose file has no size limit.
    items.first().name = u"a"_s;
    QCOMPARE(SendPlan::fromItems(items, 1).size, qint64(1) << 40);
}

// Root reads mode-000 folders, so the table row above skips there. As root, plan in a child
// process that has dropped to an unprivileged user, where the lock really bites.
void TestSendPlan::unreadableSubfolderAsAnotherUser()
{
    if (::geteuid() != 0)
        QSKIP("covered by the table row when not running as root");
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath(u"F/ok"_s), "1"));
    QVERIFY(writeFile(dir.filePath(u"F/locked/secret"_s), "2"));
    QVERIFY(writeFile(dir.filePath(u"F/open/fine"_s), "3"));
    for (const char *path : {"", "/F", "/F/open"})
        QCOMPARE(chmodPath(dir.path() + QLatin1String(path), 0755), 0);
    QCOMPARE(chmodPath(dir.filePath(u"F/locked"_s), 0), 0);
    const pid_t child = ::fork();
    QVERIFY(child >= 0);
    if (child == 0) {
        // 65534 is "nobody" on Debian. Exit codes: 0 right plan, 3 wrong plan, 4 threw.
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(5);
        try {
            const SendPlan plan = SendPlan::make({dir.filePath(u"F"_s)});
            ::_exit(namesOf(plan) == QStringList{"F/ok", "F/open/fine"} ? 0 : 3);
        } catch (...) {
            ::_exit(4);
        }
    }
    int status = 0;
    QCOMPARE(::waitpid(child, &status, 0), child);
    chmodPath(dir.filePath(u"F/locked"_s), 0700);
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), 0);
}

QTEST_GUILESS_MAIN(TestSendPlan)
#include "tst_sendplan.moc"
