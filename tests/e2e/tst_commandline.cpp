// The lofthaven executable end to end against a real local service: send and receive from
// the command line, usage errors, limits, passwords, and the online self-test.
#include "localservice.h"
#include "testdata.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

using namespace lofthaven::testing;

namespace {

struct Outcome
{
    int status = -1;
    QByteArray out;
    QByteArray err;
    QJsonObject json() const { return QJsonDocument::fromJson(out).object(); }
};

} // namespace

class TestCommandLine : public QObject
{
    Q_OBJECT

    LocalService m_service;
    QTemporaryDir m_dir;

    Outcome lofthaven(const QStringList &arguments, const QByteArray &input = {},
                      int timeoutMs = 120000)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LOFTHAVEN_ORIGIN"), m_service.origin());
        environment.insert(QStringLiteral("XDG_CACHE_HOME"),
                           m_dir.path() + QStringLiteral("/cache"));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"),
                           m_dir.path() + QStringLiteral("/config"));
        environment.insert(QStringLiteral("XDG_DATA_HOME"), m_dir.path() + QStringLiteral("/data"));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(LOFTHAVEN_BIN_DIR "/lofthaven"), arguments);
        process.write(input);
        process.closeWriteChannel();
        Outcome outcome;
        if (!process.waitForFinished(timeoutMs)) {
            process.kill();
            process.waitForFinished();
            return outcome;
        }
        outcome.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
        outcome.out = process.readAllStandardOutput();
        outcome.err = process.readAllStandardError();
        return outcome;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(m_service.start(), qPrintable(m_service.error()));
    }

    void init() { m_service.clearFaults(); }

    void usage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("stderrHas");
        QTest::newRow("help") << QStringList{"--help"} << 0 << QString();
        QTest::newRow("send help") << QStringList{"send", "--help"} << 0 << QString();
        QTest::newRow("version") << QStringList{"--version"} << 0 << QString();
        QTest::newRow("send without paths") << QStringList{"send"} << 2 << "Usage:";
        QTest::newRow("unknown option") << QStringList{"send", "--bogus", "x"} << 2 << "Usage:";
        QTest::newRow("receive two codes")
            << QStringList{"receive", "123456", "654321"} << 2 << "one code or link";
        QTest::newRow("expiry not offered")
            << QStringList{"send", "--expires", "5", "x"} << 2 << "--expires";
        QTest::newRow("missing file") << QStringList{"send", "/nonexistent/x"} << 1 << "";
        QTest::newRow("unknown code") << QStringList{"receive", "000002"} << 1
                                      << "No active transfer uses that code or link.";
        QTest::newRow("not a code") << QStringList{"receive", "hello"} << 1
                                    << "Enter the 6-digit code or paste a 127.0.0.1 link.";
        QTest::newRow("non-loopback http origin")
            << QStringList{"receive", "--origin", "http://example.com", "123456"} << 2 << "https";
    }
    void usage()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, status);
        QFETCH(QString, stderrHas);
        const Outcome outcome = lofthaven(arguments);
        QCOMPARE(outcome.status, status);
        QVERIFY2(QString::fromUtf8(outcome.err).contains(stderrHas), outcome.err.constData());
    }

    void overTheAnonymousLimit()
    {
        const QString big = m_dir.path() + QStringLiteral("/big.iso");
        QFile file(big);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.resize(600LL * 1024 * 1024)); // sparse: nothing is written
        file.close();
        m_service.clearLog();
        const Outcome outcome = lofthaven({QStringLiteral("send"), big});
        QCOMPARE(outcome.status, 1);
        QCOMPARE(QString::fromUtf8(outcome.err).trimmed(),
                 "big.iso is 600 MB; the limit is 500 MB per transfer without an account. Sign "
                 "in for free to send up to 2 GB.");
        // Refused before anything reaches the service.
        for (const QJsonValue &entry : m_service.log())
            QVERIFY(!entry.toObject().value(QStringLiteral("path")).toString().startsWith(u"/api"));
    }

    // Send then receive, byte for byte, for a file and for a folder.
    void roundTrip_data()
    {
        QTest::addColumn<bool>("folder");
        QTest::addColumn<bool>("password");
        QTest::addColumn<qint64>("size");
        QTest::newRow("file") << false << false << qint64(3 << 20);
        QTest::newRow("file with password") << false << true << qint64(1000);
        QTest::newRow("folder") << true << false << qint64(200000);
        QTest::newRow("large file") << false << false << qint64(96 << 20);
    }
    void roundTrip()
    {
        QFETCH(bool, folder);
        QFETCH(bool, password);
        QFETCH(qint64, size);
        const QString root = m_dir.path() + QStringLiteral("/rt-") + QTest::currentDataTag();
        const QByteArray a = randomBytes(size);
        const QByteArray b = randomBytes(777);
        QVERIFY(writeFile(root + QStringLiteral("/Photos/a.bin"), a));
        QVERIFY(writeFile(root + QStringLiteral("/Photos/Ünïcode/b b.txt"), b));
        const QString path =
            folder ? root + QStringLiteral("/Photos") : root + QStringLiteral("/Photos/a.bin");

        QStringList sendArguments{QStringLiteral("send"), QStringLiteral("--json"),
                                  QStringLiteral("--expires"), QStringLiteral("3600")};
        if (password)
            sendArguments << QStringLiteral("--password-stdin");
        const Outcome sent = lofthaven(sendArguments << path, password ? "s3cret\n" : "");
        QVERIFY2(sent.status == 0, sent.err.constData());
        const QJsonObject created = sent.json();
        QCOMPARE(created.value(QStringLiteral("code")).toString().size(), 6);
        QVERIFY(created.value(QStringLiteral("url"))
                    .toString()
                    .contains(created.value(QStringLiteral("id")).toString()));

        const QString into = root + QStringLiteral("/received");
        QStringList receiveArguments{QStringLiteral("receive"), QStringLiteral("--json"),
                                     QStringLiteral("--to"), into};
        if (password) {
            const Outcome refused =
                lofthaven(QStringList(receiveArguments) << created.value("code").toString());
            QCOMPARE(refused.status, 1);
            QVERIFY(refused.err.contains("password protected"));
            receiveArguments << QStringLiteral("--password-stdin");
        }
        const Outcome received = lofthaven(receiveArguments << created.value("url").toString(),
                                           password ? "s3cret\n" : "");
        QVERIFY2(received.status == 0, received.err.constData());
        const QString saved = received.json().value(QStringLiteral("path")).toString();
        if (folder) {
            QCOMPARE(saved, into + QStringLiteral("/Photos"));
            QCOMPARE(readFile(saved + QStringLiteral("/a.bin")), a);
            QCOMPARE(readFile(saved + QStringLiteral("/Ünïcode/b b.txt")), b);
        } else {
            QCOMPARE(saved, into + QStringLiteral("/a.bin"));
            QCOMPARE(QCryptographicHash::hash(readFile(saved), QCryptographicHash::Sha256),
                     QCryptographicHash::hash(a, QCryptographicHash::Sha256));
        }
        // A second receive of the same transfer never overwrites the first.
        if (!folder && !password) {
            const Outcome again =
                lofthaven(QStringList{QStringLiteral("receive"), QStringLiteral("--to"), into,
                                      created.value("code").toString()});
            QCOMPARE(again.status, 0);
            QCOMPARE(QString::fromUtf8(again.out).trimmed(), into + QStringLiteral("/a (2).bin"));
        }
    }

    // Names come from the service and are not to be trusted: they land inside the folder.
    void hostileNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("saved");
        QTest::newRow("parent folder") << "../x"
                                       << "_._x";
        QTest::newRow("absolute") << "/abs"
                                  << "_abs";
        QTest::newRow("separators") << "a/b:c.txt"
                                    << "a_b_c.txt";
        QTest::newRow("only spaces") << "   "
                                     << "download";
        QTest::newRow("hidden file") << ".profile"
                                     << "_profile";
        QTest::newRow("control characters") << QStringLiteral("a\x01"
                                                              "b\nc")
                                            << "abc";
    }
    void hostileNames()
    {
        QFETCH(QString, name);
        QFETCH(QString, saved);
        const QByteArray body = QJsonDocument(QJsonObject{{"name", name},
                                                          {"size", 4},
                                                          {"files", QJsonArray()},
                                                          {"expiresIn", 3600},
                                                          {"maxDownloads", 0},
                                                          {"partSize", 4096},
                                                          {"source", "test"}})
                                    .toJson();
        const auto curl = [](const QStringList &arguments, const QByteArray &input = {}) {
            QProcess process;
            process.start(QStringLiteral("curl"), QStringList{QStringLiteral("-sf")} + arguments);
            process.write(input);
            process.closeWriteChannel();
            process.waitForFinished(20000);
            return QJsonDocument::fromJson(process.readAllStandardOutput()).object();
        };
        const QString api = m_service.origin() + QStringLiteral("/api/transfers");
        const QJsonObject created =
            curl({QStringLiteral("-H"), QStringLiteral("Content-Type: application/json"),
                  QStringLiteral("--data-binary"), QStringLiteral("@-"), api},
                 body);
        if (created.isEmpty())
            QSKIP("the service refuses this name");
        const QString id = created.value("id").toString();
        const QString owner =
            QStringLiteral("X-Owner-Token: ") + created.value("ownerToken").toString();
        const QJsonObject part = curl({QStringLiteral("-X"), QStringLiteral("PUT"),
                                       QStringLiteral("-H"), owner, QStringLiteral("--data-binary"),
                                       QStringLiteral("@-"), api + "/" + id + "/parts/1"},
                                      "evil");
        const QJsonObject parts{
            {"parts", QJsonArray{QJsonObject{{"partNumber", 1}, {"etag", part.value("etag")}}}}};
        curl({QStringLiteral("-H"), owner, QStringLiteral("-H"),
              QStringLiteral("Content-Type: application/json"), QStringLiteral("--data-binary"),
              QStringLiteral("@-"), api + "/" + id + "/complete"},
             QJsonDocument(parts).toJson());

        const QString into = m_dir.path() + QStringLiteral("/hostile/") + QTest::currentDataTag();
        const Outcome received = lofthaven({QStringLiteral("receive"), QStringLiteral("--to"), into,
                                            created.value("code").toString()});
        QVERIFY2(received.status == 0, received.err.constData());
        QCOMPARE(QString::fromUtf8(received.out).trimmed(), into + u'/' + saved);
        QCOMPARE(readFile(into + u'/' + saved), QByteArray("evil"));
        QCOMPARE(QDir(m_dir.path() + QStringLiteral("/hostile"))
                     .entryList(QDir::NoDotAndDotDot | QDir::AllEntries)
                     .size(),
                 QDir(m_dir.path() + QStringLiteral("/hostile"))
                     .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
                     .size());
    }

    // Ctrl-C during an upload: the created transfer is aborted and the run ends at once.
    void interruptedSend()
    {
        const QString file = m_dir.path() + QStringLiteral("/interrupted.bin");
        QVERIFY(writeFile(file, randomBytes(100000)));
        m_service.addFault({{"method", "PUT"},
                            {"path", "/api/transfers/*/parts/*"},
                            {"stallSeconds", 30},
                            {"count", 10}});
        m_service.clearLog();
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LOFTHAVEN_ORIGIN"), m_service.origin());
        environment.insert(QStringLiteral("XDG_CACHE_HOME"),
                           m_dir.path() + QStringLiteral("/cache"));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(LOFTHAVEN_BIN_DIR "/lofthaven"),
                      {QStringLiteral("send"), file});
        QVERIFY(process.waitForStarted());
        // The log shows a request once it is answered: wait for the create, then give the
        // stalled part uploads a moment to start.
        QTRY_VERIFY_WITH_TIMEOUT(
            !m_service.requests({}, QStringLiteral("/api/transfers")).isEmpty(), 10000);
        QTest::qWait(500);
        QElapsedTimer clock;
        clock.start();
        ::kill(pid_t(process.processId()), SIGINT);
        QVERIFY(process.waitForFinished(15000));
        QVERIFY2(clock.elapsed() < 12000, "an interrupt must not wait for stalled parts");
        QCOMPARE(process.exitCode(), 130);
        QCOMPARE(QString::fromUtf8(process.readAllStandardError()).trimmed().split(u'\n').last(),
                 "Cancelled.");
        QCOMPARE(m_service.requests({}, QStringLiteral("/abort")).size(), 1);
        m_service.clearFaults();
    }

    // A send from the terminal joins the history the app shows; extend, forget and delete work
    // on it by ID.
    void historyOfTheCommandLine()
    {
        const QString file = m_dir.filePath(QStringLiteral("history/listed.txt"));
        QVERIFY(writeFile(file, "listed"));
        const Outcome sent = lofthaven({"send", "--json", file});
        QCOMPARE(sent.status, 0);
        const QString id = sent.json().value(QStringLiteral("id")).toString();

        const Outcome listed = lofthaven({"history", "--json"});
        QCOMPARE(listed.status, 0);
        const QJsonObject first = QJsonDocument::fromJson(listed.out).array().first().toObject();
        QCOMPARE(first.value(QStringLiteral("id")).toString(), id);
        QCOMPARE(first.value(QStringLiteral("code")), sent.json().value(QStringLiteral("code")));
        QCOMPARE(first.value(QStringLiteral("url")), sent.json().value(QStringLiteral("url")));
        QCOMPARE(first.value(QStringLiteral("extended")).toBool(), false);
        QVERIFY(!first.contains(QStringLiteral("ownerToken")));
        QVERIFY(!listed.out.contains("owner"));

        const Outcome extended = lofthaven({"extend", id});
        QCOMPARE(extended.status, 0);
        QVERIFY(extended.out.startsWith("Extended by 3 days."));
        const Outcome again = lofthaven({"extend", id});
        QCOMPARE(again.status, 1);
        QCOMPARE(again.err.trimmed(), QByteArray("This transfer was already extended once."));
        const QJsonArray after =
            QJsonDocument::fromJson(lofthaven({"history", "--json"}).out).array();
        QVERIFY(after.first().toObject().value(QStringLiteral("extended")).toBool());

        QCOMPARE(lofthaven({"delete", "--yes", id}).status, 0);
        QCOMPARE(curlDownload(sent.json().value(QStringLiteral("url")).toString()), QByteArray());
        QCOMPARE(lofthaven({"forget", id}).status, 1); // gone from the history with the delete
        QCOMPARE(lofthaven({"inbox"}).status, 1);      // signed out
    }

    void onlineSelfTest()
    {
        const QString folder = m_dir.path() + QStringLiteral("/selftest");
        const Outcome outcome = lofthaven({QStringLiteral("--selftest"), folder});
        const QString out = QString::fromUtf8(outcome.out);
        QVERIFY2(outcome.status == 0, qPrintable(out + QString::fromUtf8(outcome.err)));
        QVERIFY(out.endsWith(QStringLiteral("SELFTEST OK\n")));
        for (const QString &label :
             {QStringLiteral("Online: anonymous send → receive → delete (expiry 1 h)"),
              QStringLiteral("  ✓ code resolves to"), QStringLiteral("  ✓ metadata matches ("),
              QStringLiteral("  ✓ downloaded bytes identical (resumed with Range from byte 10)"),
              QStringLiteral("  ✓ downloaded ZIP unzips to identical bytes")})
            QVERIFY2(out.contains(label), qPrintable(label));
        QVERIFY(!out.contains(QStringLiteral("✗")));
    }

    void onlineSelfTestFailsHonestly()
    {
        // No service at this origin: the online half fails with a sentence, exit 1.
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LOFTHAVEN_ORIGIN"),
                           QStringLiteral("http://127.0.0.1:9"));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(LOFTHAVEN_BIN_DIR "/lofthaven"),
                      {QStringLiteral("--selftest")});
        QVERIFY(process.waitForFinished(120000));
        QCOMPARE(process.exitCode(), 1);
        QVERIFY(process.readAllStandardOutput().contains("SELFTEST FAILED: "));
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
