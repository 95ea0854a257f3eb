#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace lofthaven::testing {

// A real lofthaven-service on a free loopback port with its test hooks on, for the duration
// of one test object. Control calls go through the same transfer thread as the client.
class LocalService
{
public:
    struct Options
    {
        qint64 minPartSize = 1024;
        QStringList extraArguments;
    };

    LocalService();
    explicit LocalService(Options options);
    ~LocalService();

    bool start(); // false (with the reason in error()) when the service did not come up
    void stop();
    void kill(); // SIGKILL, as a crash would
    bool restart();

    QString origin() const { return m_origin; }
    QString dataDir() const { return m_data.path(); }
    QString error() const { return m_error; }

    // POST /__test/faults with one rule, e.g. {"method":"PUT","path":"/api/transfers/*/parts/*",
    // "count":3,"status":503}. False when the service refused the rule.
    bool addFault(const QJsonObject &rule);
    void clearFaults();
    // The recent request log, one object per request.
    QJsonArray log();
    // The logged requests whose path contains `pathPart`, made with `method` (empty: any).
    QJsonArray requests(const QString &method, const QString &pathPart);
    void clearLog();
    QJsonObject control(const QByteArray &method, const QString &path,
                        const QJsonObject &body = {});

private:
    Options m_options;
    QTemporaryDir m_data;
    std::unique_ptr<QProcess> m_process;
    QString m_origin;
    QString m_listen = QStringLiteral("127.0.0.1:0");
    QString m_error;
};

} // namespace lofthaven::testing
