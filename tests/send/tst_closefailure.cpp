// Some file systems report a failed read or write only when the file is closed. This executable
// stands in for close() (passing through to the C library) and makes the close of one chosen
// file fail with EIO, so a test can show that the archive stream and the spilled parts refuse
// such a file instead of sending what they got.
#include "api/apperror.h"
#include "send/partproducer.h"
#include "send/sendplan.h"
#include "send/zipstream.h"
#include "testdata.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

using namespace lofthaven;
using namespace lofthaven::testing;
using namespace Qt::StringLiterals;

namespace {

// The file whose close fails (after it has really been closed); empty: every close passes.
QByteArray failingPath;
int failedCloses = 0;

bool isFailingFile(int fd)
{
    if (failingPath.isEmpty())
        return false;
    char target[4096];
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(fd);
    const ssize_t length = ::readlink(link.constData(), target, sizeof target);
    return length > 0 && QByteArray(target, length) == failingPath;
}

} // namespace

extern "C" int close(int fd)
{
    static const auto next = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "close"));
    const bool fail = isFailingFile(fd);
    const int result = next(fd);
    if (!fail)
        return result;
    ++failedCloses;
    errno = EIO;
    return -1;
}

class TestCloseFailure : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_folder;

    // The message of the AppError that `run` throws; "" when it throws none.
    template<typename F>
    static QString failure(F run)
    {
        try {
            run();
        } catch (const AppError &error) {
            return error.message();
        }
        return {};
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_folder = QFileInfo(m_dir.path()).canonicalFilePath() + u"/Trip"_s;
        QVERIFY(writeFile(m_folder + u"/a.txt"_s, "12345"));
        QVERIFY(writeFile(m_folder + u"/b.bin"_s, randomBytes(3000, 1)));
    }

    void cleanup()
    {
        failingPath.clear();
        failedCloses = 0;
    }

    void archiveMemberThatFailsToClose()
    {
        const SendPlan plan = SendPlan::make({m_folder});
        ZipStream stream(plan.items);
        failingPath = QFile::encodeName(m_folder + u"/a.txt"_s);
        const QString message = failure([&stream] {
            while (stream.next()) {
            }
        });
        QCOMPARE(failedCloses, 1);
        QCOMPARE(message, u"Can't read Trip/a.txt: "_s + QString::fromLocal8Bit(strerror(EIO)));
    }

    void spilledPartThatFailsToClose()
    {
        const QString spill = QFileInfo(m_dir.path()).canonicalFilePath() + u"/spill"_s;
        PartProducer producer(SendPlan::make({m_folder}), 1024, spill);
        failingPath = QFile::encodeName(spill + u"/part-1"_s);
        const QString message = failure([&producer] { producer.next(1); });
        QCOMPARE(failedCloses, 1);
        QCOMPARE(message, spill + u"/part-1: "_s + QString::fromLocal8Bit(strerror(EIO)));
    }
};

QTEST_GUILESS_MAIN(TestCloseFailure)
#include "tst_closefailure.moc"
