#include "api/apierror.h"
#include "api/apperror.h"
#include "api/cancelled.h"
#include "api/decodeerror.h"
#include "api/transporterror.h"
#include "api/usermessage.h"

#include <QTest>
#include <QUnhandledException>

using namespace lofthaven;

class TestAPIError : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QLocale::setDefault(QLocale::c()); }

    void description_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("text");
        const QString revoked =
            QStringLiteral("Your sign-in expired or was revoked. Sign in again.");
        const QString expired = QStringLiteral("This transfer has expired.");
        const QString tooMany = QStringLiteral("Too many requests. Wait a minute, then try again.");
        const auto row = [](const char *name, int status, const QByteArray &body,
                            const QString &text) { QTest::newRow(name) << status << body << text; };
        row("401 ignores message", 401,
            R"({"error":"bad_token","message":"Token revoked by admin"})", revoked);
        row("401 no body", 401, {}, revoked);
        row("404 keeps message", 404,
            R"({"error":"not_found","message":"No transfer with that code."})",
            "No transfer with that code.");
        row("404 other code keeps message", 404,
            R"({"error":"whatever","message":"Gone fishing."})", "Gone fishing.");
        row("404 empty message", 404, R"({"error":"not_found"})", "Not found.");
        row("410 limit reached ignores message", 410,
            R"({"error":"limit_reached","message":"Too popular"})",
            "This transfer reached its download limit.");
        row("410 other code never shows message", 410,
            R"({"error":"expired","message":"It is gone"})", expired);
        row("410 no body", 410, {}, expired);
        row("413 with 2 GiB limit", 413, R"({"error":"too_large","limit":2147483648})",
            "Too large: the limit is 2 GB per transfer.");
        row("413 with 500 MiB limit", 413,
            R"({"error":"too_large","limit":524288000,"message":"x"})",
            "Too large: the limit is 500 MB per transfer.");
        row("413 without limit", 413, R"({"error":"too_large","message":"Nope"})",
            "Too large for your plan.");
        row("429 quota with message", 429, R"({"error":"quota","message":"You sent 10 GB today."})",
            "You sent 10 GB today.");
        row("429 quota without message", 429, R"({"error":"quota"})", "Daily limit reached.");
        row("429 other code", 429, R"({"error":"rate","message":"slow down"})", tooMany);
        row("429 no body", 429, {}, tooMany);
        row("403 falls through with message", 403,
            R"({"error":"forbidden","message":"Wrong owner token."})", "Wrong owner token.");
        row("403 falls through without message", 403, R"({"error":"forbidden"})",
            "Request failed (HTTP 403).");
        row("502 html", 502, "<html><body>Bad gateway</body></html>", "Request failed (HTTP 502).");
        row("500 with message", 500, R"({"message":"Database is down."})", "Database is down.");
        row("302 empty", 302, {}, "Request failed (HTTP 302).");
        row("json array body", 500, "[1,2]", "Request failed (HTTP 500).");
    }
    void description()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, text);
        const APIError error = APIError::fromResponse(status, body);
        QCOMPARE(error.description(), text);
        QCOMPARE(QString::fromUtf8(error.what()), text);
        QCOMPARE(userMessage(error), text);
    }

    void fields_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        QTest::addColumn<qint64>("limit"); // -1 = absent
        QTest::newRow("html gives no fields")
            << 502 << QByteArray("<html>oops</html>") << "http_502" << QString() << qint64(-1);
        QTest::newRow("empty body") << 404 << QByteArray() << "http_404" << QString() << qint64(-1);
        QTest::newRow("all fields")
            << 413 << QByteArray(R"({"error":"too_large","message":"m","limit":9007199254740993})")
            << "too_large" << QString("m") << qint64(9007199254740993);
        QTest::newRow("wrongly typed body counts as none")
            << 400 << QByteArray(R"({"error":12,"message":"m"})") << "http_400" << QString()
            << qint64(-1);
    }
    void fields()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, code);
        QFETCH(QString, message);
        QFETCH(qint64, limit);
        const APIError error = APIError::fromResponse(status, body);
        QCOMPARE(error.status(), status);
        QCOMPARE(error.code(), code);
        QCOMPARE(error.message(), message);
        QCOMPARE(error.limit().value_or(-1), limit);
    }

    void userMessages()
    {
        QCOMPARE(userMessage(std::make_exception_ptr(AppError(QStringLiteral("Nothing to send.")))),
                 QStringLiteral("Nothing to send."));
        QCOMPARE(userMessage(std::make_exception_ptr(
                     TransportError(QStringLiteral("The request timed out."), true))),
                 QStringLiteral("The request timed out."));
        const DecodeError decode(QStringLiteral("TransferMeta"), QStringLiteral("size"),
                                 QStringLiteral("is missing"));
        QCOMPARE(userMessage(std::make_exception_ptr(decode)), decode.description());
        QVERIFY(decode.description().contains(u"TransferMeta.size"));
        // What QtConcurrent::run hands over for a foreign exception is unwrapped.
        const QUnhandledException wrapped(
            std::make_exception_ptr(APIError(404, QStringLiteral("not_found"), QString())));
        QCOMPARE(userMessage(std::make_exception_ptr(wrapped)), QStringLiteral("Not found."));
        QCOMPARE(userMessage(std::make_exception_ptr(std::runtime_error("plain"))),
                 QStringLiteral("plain"));
    }

    void errorsCloneIntact()
    {
        // QFuture stores exceptions through clone(); the subtype must survive.
        const APIError original(429, QStringLiteral("quota"), QString(), 5);
        std::unique_ptr<QException> copy(original.clone());
        try {
            copy->raise();
        } catch (const APIError &error) {
            QCOMPARE(error.description(), QStringLiteral("Daily limit reached."));
            QCOMPARE(error.limit().value_or(0), 5);
        }
        std::unique_ptr<QException> transport(
            TransportError(QStringLiteral("x"), true, 28).clone());
        QVERIFY_THROWS_EXCEPTION(TransportError, transport->raise());
    }
};

QTEST_GUILESS_MAIN(TestAPIError)
#include "tst_apierror.moc"
