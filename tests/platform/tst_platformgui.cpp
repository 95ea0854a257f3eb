// The GUI side of the platform: QR images read back by an independent decoder (zbarimg), and
// files taken from clipboard contents in both of the formats file managers use.
#include "platform/clipboardfiles.h"
#include "platform/qrimage.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;

class TestPlatformGui : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;

private Q_SLOTS:
    void qrDecodesBack_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("scale");
        // 45 characters: version 4 at M, 33 modules, 41 with the quiet zone.
        const QString link = "https://lofthaven.app/r/482913?k=abcdefghijkl";
        QTest::newRow("link at 200 px") << link << 200 << 4;
        QTest::newRow("exact multiple") << link << 246 << 6;
        QTest::newRow("smaller than the code: scale 1") << link << 10 << 1;
        QTest::newRow("zero size") << link << 0 << 1;
        QTest::newRow("short code") << "482913" << 300 << 0;
        QTest::newRow("non-ASCII") << "https://lofthaven.app/d/Ångström✓" << 400 << 0;
    }
    void qrDecodesBack()
    {
        QFETCH(QString, text);
        QFETCH(int, size);
        QFETCH(int, scale);
        const QImage image = qrImage(text, size);
        QVERIFY(!image.isNull());
        QCOMPARE(image.width(), image.height());
        if (scale > 0)
            QCOMPARE(image.width(), 41 * scale);
        else
            QVERIFY(image.width() <= size);
        // Only pure black and white, the quiet zone white.
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const int gray = qGray(image.pixel(x, y));
                QVERIFY(gray == 0 || gray == 255);
            }
        }
        QCOMPARE(qGray(image.pixel(0, 0)), 255);
        QCOMPARE(qGray(image.pixel(image.width() - 1, image.height() - 1)), 255);

        const QString zbarimg = QStandardPaths::findExecutable("zbarimg");
        if (zbarimg.isEmpty())
            QSKIP("zbarimg (zbar-tools) is not installed");
        const QString png = m_dir.filePath("code.png");
        // The decoder misses one-pixel modules: enlarge those (nearest neighbour keeps them).
        const QImage readable =
            image.width() < 100
                ? image.scaled(image.size() * 4, Qt::KeepAspectRatio, Qt::FastTransformation)
                : image;
        QVERIFY(readable.save(png));
        QProcess decode;
        decode.start(zbarimg, {"--raw", "-q", "-Sbinary", png});
        QVERIFY(decode.waitForFinished());
        QByteArray decoded = decode.readAllStandardOutput();
        if (decoded.endsWith('\n'))
            decoded.chop(1);
        QCOMPARE(QString::fromUtf8(decoded), text);
    }

    void qrTooLongIsNothing() { QVERIFY(qrImage(QString(3000, 'x'), 200).isNull()); }

    void filesFromClipboardContents_data()
    {
        QTest::addColumn<QList<QUrl>>("uriList");
        QTest::addColumn<QByteArray>("gnome");
        QTest::addColumn<QStringList>("expected");
        const QUrl a = QUrl::fromLocalFile("/home/ada/a b.txt");
        const QUrl c = QUrl::fromLocalFile("/home/ada/Ünïcode");
        QTest::newRow("uri list") << QList<QUrl>{a, c} << QByteArray()
                                  << QStringList{"/home/ada/a b.txt", "/home/ada/Ünïcode"};
        QTest::newRow("legacy list only")
            << QList<QUrl>{}
            << QByteArray("copy\nfile:///home/ada/a%20b.txt\nfile:///home/ada/%C3%9Cn%C3%AFcode")
            << QStringList{"/home/ada/a b.txt", "/home/ada/Ünïcode"};
        QTest::newRow("cut counts too")
            << QList<QUrl>{} << QByteArray("cut\nfile:///tmp/x\n") << QStringList{"/tmp/x"};
        QTest::newRow("uri list first") << QList<QUrl>{c} << QByteArray("copy\nfile:///tmp/x")
                                        << QStringList{"/home/ada/Ünïcode"};
        QTest::newRow("web links are not files")
            << QList<QUrl>{QUrl("https://example.com/a")} << QByteArray("copy\nfile:///tmp/x")
            << QStringList{"/tmp/x"};
        QTest::newRow("nothing") << QList<QUrl>{} << QByteArray() << QStringList{};
    }
    void filesFromClipboardContents()
    {
        QFETCH(QList<QUrl>, uriList);
        QFETCH(QByteArray, gnome);
        QFETCH(QStringList, expected);
        auto *data = new QMimeData;
        if (!uriList.isEmpty())
            data->setUrls(uriList);
        if (!gnome.isEmpty())
            data->setData("x-special/gnome-copied-files", gnome);
        QStringList paths;
        for (const QUrl &url : fileUrls(data))
            paths << url.toLocalFile();
        QCOMPARE(paths, expected);
        // The same through the application's clipboard, which takes ownership.
        QGuiApplication::clipboard()->setMimeData(data);
        paths.clear();
        for (const QUrl &url : clipboardFileUrls())
            paths << url.toLocalFile();
        QCOMPARE(paths, expected);
    }
};

QTEST_MAIN(TestPlatformGui)
#include "tst_platformgui.moc"
