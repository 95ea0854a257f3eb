#include "app/selftest.h"

#include "api/apperror.h"
#include "send/partproducer.h"
#include "send/sendplan.h"
#include "send/zipstream.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QUuid>

#include <cstdio>

namespace lofthaven {

namespace {

const QString kSubName = QStringLiteral("bé ✓.bin");

QByteArray randomBytes(qsizetype count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    QRandomGenerator *random = QRandomGenerator::system();
    for (qsizetype i = 0; i < count; ++i)
        bytes[i] = char(random->bounded(256));
    return bytes;
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(bytes) != bytes.size() || !file.flush())
        throw AppError(u"Can't write " + path + u": " + file.errorString());
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw AppError(u"Can't read " + path + u": " + file.errorString());
    return file.readAll();
}

// A missing extracted file is a failed comparison, not an error of the test itself.
std::optional<QByteArray> readIfPresent(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

void makePath(const QString &path)
{
    if (!QDir().mkpath(path))
        throw AppError(u"Can't create the folder " + path + u".");
}

QString toolFromEnvironment(const char *variable, const QString &fallback)
{
    const QString value = qEnvironmentVariable(variable);
    return value.isEmpty() ? fallback : value;
}

} // namespace

void printLine(const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

SelfTest::SelfTest(QString workFolder)
    : m_workFolder(std::move(workFolder))
{}

QString SelfTest::helloPath() const
{
    return m_root + u"/hello-lofthaven.txt";
}

QString SelfTest::tripPath() const
{
    return m_root + u"/Trip";
}

QString SelfTest::unzipTool()
{
    return toolFromEnvironment("LOFTHAVEN_UNZIP", QStringLiteral("/usr/bin/unzip"));
}

QString SelfTest::bsdtarTool()
{
    return toolFromEnvironment("LOFTHAVEN_BSDTAR", QStringLiteral("/usr/bin/bsdtar"));
}

int SelfTest::runTool(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForStarted(-1))
        throw AppError(u"Can't run " + program + u": " + process.errorString());
    process.waitForFinished(-1);
    if (process.exitStatus() != QProcess::NormalExit)
        throw AppError(program + u" stopped unexpectedly: " + process.errorString());
    return process.exitCode();
}

void SelfTest::section(const QString &header)
{
    printLine(header);
}

void SelfTest::check(const QString &label, bool passed)
{
    printLine((passed ? u"  ✓ " : u"  ✗ ") + label);
    if (!passed)
        throw AppError(label);
}

int SelfTest::run(bool online, bool keepRoot)
{
    try {
        prepare();
        runOffline();
        if (online) {
            if (!m_onlineStep)
                throw AppError(
                    QStringLiteral("The online self-test is not available in this build yet."));
            m_onlineStep(*this);
        }
    } catch (const AppError &error) {
        printLine(u"SELFTEST FAILED: " + error.message());
        return 1;
    } catch (const std::exception &error) {
        printLine(u"SELFTEST FAILED: " + QString::fromUtf8(error.what()));
        return 1;
    }
    if (!keepRoot)
        QDir(m_root).removeRecursively();
    printLine(QStringLiteral("SELFTEST OK"));
    return 0;
}

void SelfTest::prepare()
{
    m_root = QDir(m_workFolder)
                 .absoluteFilePath(u"lh-selftest-" +
                                   QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
    makePath(m_root);
    writeFile(helloPath(), (u"Hello from the Lofthaven Mac self-test " +
                            QDateTime::currentDateTime().toString() + u'\n')
                               .toUtf8());
    makePath(tripPath() + u"/Sub");
    m_aBytes = randomBytes(3000);
    m_subBytes = randomBytes(5123);
    writeFile(tripPath() + u"/a.bin", m_aBytes);
    writeFile(tripPath() + u"/Sub/" + kSubName, m_subBytes);
}

void SelfTest::runOffline()
{
    section(QStringLiteral("Offline: ZIP stream and part splitting"));
    const SendPlan plan = SendPlan::make({tripPath()});
    check(QStringLiteral("folder plan → Trip.zip with 2 entries"),
          plan.isZip && plan.name == u"Trip.zip" && plan.items.size() == 2);

    for (const qint64 partSize : {qint64(1000), qint64(4096), qint64(1048576)}) {
        const QString size = QString::number(partSize);
        PartProducer producer(plan, partSize, m_root + u"/spill-" + size);
        QByteArray archive;
        int parts = 0;
        while (std::optional<PartPayload> part = producer.next(parts + 1)) {
            if (!part->isSpilled())
                throw AppError(QStringLiteral("expected spilled part"));
            ++parts;
            archive += readFile(part->path);
            if (!QFile::remove(part->path))
                throw AppError(u"Can't remove " + part->path + u".");
        }
        const qint64 expectedParts = (plan.size + partSize - 1) / partSize;
        check(u"partSize " + size + u": " + QString::number(parts) + u" exact parts, " +
                  QString::number(archive.size()) + u" bytes = predicted",
              parts == expectedParts && archive.size() == ZipStream::predictedSize(plan.items) &&
                  producer.isFinished());

        const QString archivePath = m_root + u"/t-" + size + u".zip";
        writeFile(archivePath, archive);
        check(QStringLiteral("unzip -t passes (CRC-32 + data descriptors)"),
              runTool(unzipTool(), {QStringLiteral("-tq"), archivePath}) == 0);

        const QString extracted = m_root + u"/x-" + size;
        makePath(extracted);
        const int status = runTool(bsdtarTool(), {QStringLiteral("-x"), QStringLiteral("-f"),
                                                  archivePath, QStringLiteral("-C"), extracted});
        const auto a = readIfPresent(extracted + u"/Trip/a.bin");
        const auto sub = readIfPresent(extracted + u"/Trip/Sub/" + kSubName);
        check(QStringLiteral("bsdtar extracts identical bytes"),
              status == 0 && a == m_aBytes && sub == m_subBytes);
    }
}

} // namespace lofthaven
