#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// Runs the real lofthaven executable in its self-test modes, with the check tools swapped
// through LOFTHAVEN_UNZIP / LOFTHAVEN_BSDTAR where a failure has to be provoked.
class TestSelfTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void run_data();
    void run();
    void refusedOriginFailsBeforeAnyCheck();
    void withoutFolderTheRootIsRemoved();
    void twoRunsUseTwoRoots();
};

namespace {

const QString kBinary = QStringLiteral(LOFTHAVEN_BIN_DIR "/lofthaven");

const QStringList kOfflineLines{
    "Offline: ZIP stream and part splitting",
    "  ✓ folder plan → Trip.zip with 2 entries",
    "  ✓ partSize 1000: 9 exact parts, 8389 bytes = predicted",
    "  ✓ unzip -t passes (CRC-32 + data descriptors)",
    "  ✓ bsdtar extracts identical bytes",
    "  ✓ partSize 4096: 3 exact parts, 8389 bytes = predicted",
    "  ✓ unzip -t passes (CRC-32 + data descriptors)",
    "  ✓ bsdtar extracts identical bytes",
    "  ✓ partSize 1048576: 1 exact parts, 8389 bytes = predicted",
    "  ✓ unzip -t passes (CRC-32 + data descriptors)",
    "  ✓ bsdtar extracts identical bytes",
};

struct Result
{
    int exitCode = -1;
    QStringList lines;
};

Result runLofthaven(const QStringList &arguments, const QStringList &environment = {},
                    const QString &tmpDir = {})
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString &pair : environment)
        env.insert(pair.section(u'=', 0, 0), pair.section(u'=', 1));
    if (!tmpDir.isEmpty())
        env.insert(QStringLiteral("TMPDIR"), tmpDir);
    // No display and no session bus: the self-test must not need them.
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    process.setProcessEnvironment(env);
    process.start(kBinary, arguments);
    if (!process.waitForFinished(120000))
        return {};
    Result result;
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    result.lines =
        QString::fromUtf8(process.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
    return result;
}

QStringList roots(const QString &folder)
{
    return QDir(folder).entryList({QStringLiteral("lh-selftest-*")}, QDir::Dirs);
}

} // namespace

void TestSelfTest::run_data()
{
    QTest::addColumn<QStringList>("arguments"); // "@" stands for the work folder
    QTest::addColumn<QStringList>("environment");
    QTest::addColumn<QStringList>("expectedLines");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("offline passes") << QStringList{"--selftest-offline", "@"} << QStringList{}
                                    << (kOfflineLines + QStringList{"SELFTEST OK"}) << 0;
    // No service answers at this origin: the online half starts, then fails with a sentence.
    const QStringList unreachable{"LOFTHAVEN_ORIGIN=http://127.0.0.1:9"};
    const QStringList onlineFails{"Online: anonymous send → receive → delete (expiry 1 h)",
                                  "SELFTEST FAILED: …"};
    QTest::newRow("full run goes online after the offline checks")
        << QStringList{"--selftest", "@"} << unreachable << (kOfflineLines + onlineFails) << 1;
    QTest::newRow("--selftest wins over --selftest-offline")
        << QStringList{"--selftest-offline", "--selftest", "@"} << unreachable
        << (kOfflineLines + onlineFails) << 1;
    QTest::newRow("unzip reports an error")
        << QStringList{"--selftest-offline", "@"} << QStringList{"LOFTHAVEN_UNZIP=/bin/false"}
        << QStringList{kOfflineLines.mid(0, 3) +
                       QStringList{"  ✗ unzip -t passes (CRC-32 + data descriptors)",
                                   "SELFTEST FAILED: unzip -t passes (CRC-32 + data descriptors)"}}
        << 1;
    QTest::newRow("extraction yields nothing")
        << QStringList{"--selftest-offline", "@"} << QStringList{"LOFTHAVEN_BSDTAR=/bin/true"}
        << QStringList{kOfflineLines.mid(0, 4) +
                       QStringList{"  ✗ bsdtar extracts identical bytes",
                                   "SELFTEST FAILED: bsdtar extracts identical bytes"}}
        << 1;
    QTest::newRow("tool cannot be launched")
        << QStringList{"--selftest-offline", "@"}
        << QStringList{"LOFTHAVEN_UNZIP=/nonexistent/unzip"}
        << QStringList{kOfflineLines.mid(0, 3) +
                       QStringList{"SELFTEST FAILED: Can't run /nonexistent/unzip: …"}}
        << 1;
    QTest::newRow("switches are case-sensitive")
        << QStringList{"--SELFTEST-offline", "@"} << QStringList{} << QStringList{} << 1;
    QTest::newRow("no switch: no desktop yet")
        << QStringList{} << QStringList{} << QStringList{} << 1;
}

void TestSelfTest::run()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, environment);
    QFETCH(QStringList, expectedLines);
    QFETCH(int, exitCode);
    QTemporaryDir dir;
    const QString work = dir.filePath(QStringLiteral("not/yet/there"));
    arguments.replaceInStrings(QStringLiteral("@"), work);
    const Result result = runLofthaven(arguments, environment, dir.path());
    // A trailing "…" leaves the system's own wording open.
    QCOMPARE(result.lines.size(), expectedLines.size());
    for (qsizetype i = 0; i < expectedLines.size(); ++i) {
        const QString &expected = expectedLines.at(i);
        if (expected.endsWith(u'…'))
            QVERIFY2(result.lines.at(i).startsWith(expected.chopped(1)),
                     qPrintable(result.lines.at(i)));
        else
            QCOMPARE(result.lines.at(i), expected);
    }
    QCOMPARE(result.exitCode, exitCode);
    if (expectedLines.isEmpty())
        return;
    // With a folder argument the root stays, for inspection, whatever the outcome.
    const QStringList kept = roots(work);
    QCOMPARE(kept.size(), 1);
    QVERIFY(QFileInfo::exists(work + u'/' + kept.first() + u"/hello-lofthaven.txt"));
    QVERIFY(QFileInfo(work + u'/' + kept.first() + u"/Trip/Sub/bé ✓.bin").size() == 5123);
    QVERIFY(roots(dir.path()).isEmpty());
}

void TestSelfTest::refusedOriginFailsBeforeAnyCheck()
{
    QTemporaryDir tmp;
    const Result result = runLofthaven({QStringLiteral("--selftest")},
                                       {QStringLiteral("LOFTHAVEN_ORIGIN=http://example.com")},
                                       tmp.path());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.lines.size(), 1);
    QVERIFY2(result.lines.first().startsWith(u"SELFTEST FAILED: "), qPrintable(result.lines.first()));
}

void TestSelfTest::withoutFolderTheRootIsRemoved()
{
    QTemporaryDir tmp;
    const Result result = runLofthaven({QStringLiteral("--selftest-offline")}, {}, tmp.path());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.lines.last(), QStringLiteral("SELFTEST OK"));
    QCOMPARE(QDir(tmp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{});
}

void TestSelfTest::twoRunsUseTwoRoots()
{
    QTemporaryDir dir;
    QCOMPARE(runLofthaven({QStringLiteral("--selftest-offline"), dir.path()}).exitCode, 0);
    QCOMPARE(runLofthaven({QStringLiteral("--selftest-offline"), dir.path()}).exitCode, 0);
    const QStringList kept = roots(dir.path());
    QCOMPARE(kept.size(), 2);
    QVERIFY(QDir(dir.filePath(kept.first()))
                .entryList({QStringLiteral("lh-selftest-*")}, QDir::Dirs)
                .isEmpty());
    for (const QString &root : kept)
        QVERIFY2(root.mid(12) == root.mid(12).toUpper() && root.size() == 12 + 36,
                 qPrintable(root));
}

QTEST_GUILESS_MAIN(TestSelfTest)
#include "tst_selftest.moc"
