#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

// Runs the real lofthaven executable in its self-test modes, with the check tools swapped
// through LOFTHAVEN_UNZIP / LOFTHAVEN_BSDTAR where a failure has to be provoked.
class TestSelfTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void run_data();
    void run();
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
    return QDir(folder).entryList({u"lh-selftest-*"_s}, QDir::Dirs);
}

} // namespace

void TestSelfTest::run_data()
{
    QTest::addColumn<QStringList>("arguments"); // "@" stands for the work folder
    QTest::addColumn<QStringList>("environment");
    QTest::addColumn<QStringList>("expectedLines");
    QTest::addColumn<int>("exitCode");

    auto row = [](const char *tag, const QStringList &arguments, const QStringList &environment,
                  const QStringList &expectedLines, int exitCode) {
        QTest::newRow(tag) << arguments << environment << expectedLines << exitCode;
    };
    const QStringList offline{"--selftest-offline", "@"};
    const QStringList passes = kOfflineLines + QStringList{"SELFTEST OK"};
    row("offline passes", offline, {}, passes, 0);
    // No service answers at this origin: the online half starts, then fails with a sentence.
    const QStringList unreachable{"LOFTHAVEN_ORIGIN=http://127.0.0.1:9"};
    const QStringList onlineFails =
        kOfflineLines +
        QStringList{"Online: anonymous send → receive → delete (expiry 1 h)", "SELFTEST FAILED: …"};
    row("full run goes online after the offline checks", {"--selftest", "@"}, unreachable,
        onlineFails, 1);
    row("--selftest wins over --selftest-offline", {"--selftest-offline", "--selftest", "@"},
        unreachable, onlineFails, 1);
    row("unzip reports an error", offline, {"LOFTHAVEN_UNZIP=/bin/false"},
        kOfflineLines.mid(0, 3) +
            QStringList{"  ✗ unzip -t passes (CRC-32 + data descriptors)",
                        "SELFTEST FAILED: unzip -t passes (CRC-32 + data descriptors)"},
        1);
    row("extraction yields nothing", offline, {"LOFTHAVEN_BSDTAR=/bin/true"},
        kOfflineLines.mid(0, 4) + QStringList{"  ✗ bsdtar extracts identical bytes",
                                              "SELFTEST FAILED: bsdtar extracts identical bytes"},
        1);
    row("tool cannot be launched", offline, {"LOFTHAVEN_UNZIP=/nonexistent/unzip"},
        kOfflineLines.mid(0, 3) + QStringList{"SELFTEST FAILED: Can't run /nonexistent/unzip: …"},
        1);
    row("--origin and its value are not the folder",
        {"--selftest-offline", "--origin", "http://127.0.0.1:9", "@"}, {}, passes, 0);
    // Without a folder argument the root goes once the run is over.
    row("without a folder", {"--selftest-offline"}, {}, passes, 0);
    row("refused origin fails before any check", {"--selftest"},
        {"LOFTHAVEN_ORIGIN=http://example.com"}, {"SELFTEST FAILED: …"}, 1);
    // An unknown option is a usage error.
    row("switches are case-sensitive", {"--SELFTEST-offline", "@"}, {}, {}, 2);
    // No switch opens the window, which needs a display: without one it says so and stops.
    row("no switch and no display", {}, {"DISPLAY=", "WAYLAND_DISPLAY=", "QT_QPA_PLATFORM="}, {},
        2);
}

void TestSelfTest::run()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, environment);
    QFETCH(QStringList, expectedLines);
    QFETCH(int, exitCode);
    QTemporaryDir dir;
    const QString work = dir.filePath(u"not/yet/there"_s);
    arguments.replaceInStrings(u"@"_s, work);
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
    if (!arguments.contains(work)) {
        QCOMPARE(QDir(dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), {});
        return;
    }
    if (expectedLines.isEmpty())
        return;
    // With a folder argument the root stays, for inspection, whatever the outcome.
    const QStringList kept = roots(work);
    QCOMPARE(kept.size(), 1);
    QVERIFY(QFileInfo::exists(work + u'/' + kept.first() + u"/hello-lofthaven.txt"));
    QVERIFY(QFileInfo(work + u'/' + kept.first() + u"/Trip/Sub/bé ✓.bin").size() == 5123);
    QVERIFY(roots(dir.path()).isEmpty());
}

void TestSelfTest::twoRunsUseTwoRoots()
{
    QTemporaryDir dir;
    QCOMPARE(runLofthaven({u"--selftest-offline"_s, dir.path()}).exitCode, 0);
    QCOMPARE(runLofthaven({u"--selftest-offline"_s, dir.path()}).exitCode, 0);
    const QStringList kept = roots(dir.path());
    QCOMPARE(kept.size(), 2);
    QVERIFY(QDir(dir.filePath(kept.first())).entryList({u"lh-selftest-*"_s}, QDir::Dirs).isEmpty());
    for (const QString &root : kept)
        QVERIFY2(root.mid(12) == root.mid(12).toUpper() && root.size() == 12 + 36,
                 qPrintable(root));
}

QTEST_GUILESS_MAIN(TestSelfTest)
#include "tst_selftest.moc"
