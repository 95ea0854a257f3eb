// The client and the local service over https, with a CA and certificates made here: a send
// and a receive arrive byte for byte; a certificate for another host or from an unknown CA
// fails with the sentence for it and not one request reaches the service.

#include "localservice.h"
#include "testdata.h"

#include "api/apiclient.h"
#include "api/httptransport.h"
#include "api/serviceorigin.h"
#include "api/usermessage.h"
#include "platform/waitfortask.h"
#include "receive/downloadtopartial.h"
#include "receive/lookup.h"
#include "send/sendplan.h"
#include "send/uploader.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

class TestTls : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QString path(const QString &name) const { return m_dir.filePath(name); }

    bool openssl(const QStringList &arguments)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(u"openssl"_s, arguments);
        if (!process.waitForFinished(60000) || process.exitCode() != 0) {
            qWarning().noquote() << "openssl" << arguments.join(u' ') << process.readAll();
            return false;
        }
        return true;
    }

    bool makeCa(const QString &name)
    {
        return openssl({u"req"_s, u"-x509"_s, u"-newkey"_s, u"rsa:2048"_s, u"-nodes"_s, u"-days"_s,
                        u"2"_s, u"-subj"_s, u"/CN=Lofthaven test CA "_s + name, u"-keyout"_s,
                        path(name + u".key"_s), u"-out"_s, path(name + u".pem"_s)});
    }

    // A server certificate for `altNames` (e.g. "IP:127.0.0.1") signed by CA `ca`.
    bool makeServerCertificate(const QString &name, const QString &ca, const QString &altNames)
    {
        QFile extensions(path(name + u".ext"_s));
        if (!extensions.open(QIODevice::WriteOnly) ||
            extensions.write("subjectAltName=" + altNames.toUtf8() + '\n') < 0)
            return false;
        extensions.close();
        return openssl({u"req"_s, u"-newkey"_s, u"rsa:2048"_s, u"-nodes"_s, u"-subj"_s,
                        u"/CN="_s + name, u"-keyout"_s, path(name + u".key"_s), u"-out"_s,
                        path(name + u".csr"_s)}) &&
               openssl({u"x509"_s, u"-req"_s, u"-in"_s, path(name + u".csr"_s), u"-CA"_s,
                        path(ca + u".pem"_s), u"-CAkey"_s, path(ca + u".key"_s),
                        u"-CAcreateserial"_s, u"-days"_s, u"2"_s, u"-extfile"_s,
                        path(name + u".ext"_s), u"-out"_s, path(name + u".pem"_s)});
    }

    LocalService::Options withCertificate(const QString &name) const
    {
        LocalService::Options options;
        options.extraArguments = {u"--tls-cert"_s, path(name + u".pem"_s), u"--tls-key"_s,
                                  path(name + u".key"_s)};
        return options;
    }

    // The service's own request log, fetched with curl trusting exactly `ca` and reaching
    // 127.0.0.1 under `host`: an independent client, so our refusal cannot hide a request.
    QJsonArray requestLog(const LocalService &service, const QString &ca, const QString &host)
    {
        const int port = QUrl(service.origin()).port();
        QProcess curl;
        curl.start(u"curl"_s, {u"-sS"_s, u"-f"_s, u"--cacert"_s, path(ca + u".pem"_s),
                               u"--resolve"_s, u"%1:%2:127.0.0.1"_s.arg(host).arg(port),
                               u"https://%1:%2/__test/log"_s.arg(host).arg(port)});
        curl.waitForFinished(30000);
        const QJsonDocument document = QJsonDocument::fromJson(curl.readAllStandardOutput());
        if (document.isArray())
            return document.array();
        for (const QJsonValue &value : document.object())
            if (value.isArray())
                return value.toArray();
        return {{u"<unreadable log>"_s}};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(makeCa(u"ca"_s));
        QVERIFY(makeCa(u"strangers"_s));
        QVERIFY(makeServerCertificate(u"good"_s, u"ca"_s, u"IP:127.0.0.1,DNS:localhost"_s));
        QVERIFY(makeServerCertificate(u"otherhost"_s, u"ca"_s, u"DNS:other.example"_s));
        QVERIFY(makeServerCertificate(u"unknownca"_s, u"strangers"_s, u"IP:127.0.0.1"_s));
        HttpTransport::instance().setExtraCaFile(path(u"ca.pem"_s));
    }

    void cleanupTestCase() { HttpTransport::instance().shutdown(); }

    void sendAndReceiveOverHttps()
    {
        LocalService service(withCertificate(u"good"_s));
        QVERIFY2(service.start(), qPrintable(service.error()));
        QVERIFY2(service.origin().startsWith(u"https://"_s), qPrintable(service.origin()));
        ServiceOrigin::configure({u"lofthaven"_s, u"--origin"_s, service.origin()});

        const QByteArray bytes = randomBytes(200 * 1024 + 3);
        QVERIFY(writeFile(path(u"source.bin"_s), bytes));
        SendOptions options;
        options.expiresIn = 3600;
        Uploader uploader(APIClient(), SendPlan::make({path(u"source.bin"_s)}), options,
                          path(u"spill"_s), std::make_shared<ProgressCounter>());
        uploader.setWantedPartSize(64 * 1024);
        auto uploading = uploader.run();
        const UploadResult sent = waitForTask(std::move(uploading));
        QVERIFY(!sent.created.code.isEmpty());

        auto looking = lookupTransfer(APIClient(), sent.created.code, u"127.0.0.1"_s);
        const TransferMeta meta = waitForTask(std::move(looking));
        const QString partial = partialPathFor(path(u"cache"_s), meta.id);
        auto fetching = downloadToPartial(APIClient(), meta.id, std::nullopt, meta.size, false,
                                          partial, std::make_shared<ProgressCounter>());
        waitForTask(std::move(fetching));
        QCOMPARE(readFile(partial), bytes);
        // The log reader sees requests when there are some.
        QVERIFY(!requestLog(service, u"ca"_s, u"127.0.0.1"_s).isEmpty());
    }

    void refusesCertificatesItCannotTrust_data()
    {
        QTest::addColumn<QString>("certificate");
        QTest::addColumn<QString>("ca");
        QTest::addColumn<QString>("logHost"); // the name the certificate is valid for
        QTest::newRow("another host's certificate")
            << u"otherhost"_s << u"ca"_s << u"other.example"_s;
        QTest::newRow("signed by an unknown CA")
            << u"unknownca"_s << u"strangers"_s << u"127.0.0.1"_s;
    }

    void refusesCertificatesItCannotTrust()
    {
        QFETCH(QString, certificate);
        QFETCH(QString, ca);
        QFETCH(QString, logHost);
        LocalService service(withCertificate(certificate));
        QVERIFY2(service.start(), qPrintable(service.error()));
        ServiceOrigin::configure({u"lofthaven"_s, u"--origin"_s, service.origin()});

        QString message;
        try {
            auto looking = lookupTransfer(APIClient(), u"123456"_s, u"127.0.0.1"_s);
            waitForTask(std::move(looking));
        } catch (...) {
            message = userMessage(std::current_exception());
        }
        QCOMPARE(message, u"The certificate of the server 127.0.0.1 is not valid, so the "
                          "connection was refused."_s);
        QCOMPARE(requestLog(service, ca, logHost), QJsonArray());
    }
};

QTEST_GUILESS_MAIN(TestTls)
#include "tst_tls.moc"
