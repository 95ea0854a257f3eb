#include "receive/filenames.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace lofthaven;
using namespace Qt::StringLiterals;

class TestFileNames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void safeFileName_data();
    void safeFileName();
    void safeFileNameFitsLinux();
    void uniquePath_data();
    void uniquePath();
};

void TestFileNames::safeFileName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");

    QTest::newRow("ordinary") << u"report.pdf"_s << u"report.pdf"_s;
    QTest::newRow("slash and colon") << u"a/b:c.txt"_s << u"a_b_c.txt"_s;
    QTest::newRow("parent traversal") << u"../x"_s << u"_._x"_s;
    QTest::newRow("deep traversal") << u"../../etc/passwd"_s << u"_._.._etc_passwd"_s;
    QTest::newRow("absolute") << u"/abs"_s << u"_abs"_s;
    QTest::newRow("dot") << u"."_s << u"_"_s;
    QTest::newRow("dot dot") << u".."_s << u"_."_s;
    QTest::newRow("hidden file") << u".profile"_s << u"_profile"_s;
    QTest::newRow("hidden after trim") << u"  .bashrc "_s << u"_bashrc"_s;
    QTest::newRow("NUL inside") << QString(u"evil"_s + QChar(0) + u".txt"_s) << u"evil.txt"_s;
    QTest::newRow("only NUL") << QString(QChar(0)) << u"download"_s;
    QTest::newRow("control characters") << u"a\u0007b\u001bc\u007f.txt"_s << u"abc.txt"_s;
    QTest::newRow("right-to-left override") << u"invoice\u202Efdp.exe"_s << u"invoicefdp.exe"_s;
    QTest::newRow("isolates and C1 controls")
        << u"\u2066a\u2069b\u0085c\u009b.txt"_s << u"abc.txt"_s;
    QTest::newRow("newline inside") << u"line1\nline2.txt"_s << u"line1line2.txt"_s;
    QTest::newRow("trailing newline") << u"name.txt\n"_s << u"name.txt"_s;
    QTest::newRow("only spaces") << u"     "_s << u"download"_s;
    QTest::newRow("empty") << QString() << u"download"_s;
    QTest::newRow("only slash") << u"/"_s << u"_"_s;
    QTest::newRow("300 ASCII bytes") << QString(300, u'a') << QString(200, u'a');
    QTest::newRow("200 exactly") << QString(200, u'b') << QString(200, u'b');
    QTest::newRow("cut before a space") << QString(199, u'c') + u" tail"_s << QString(199, u'c');
    QTest::newRow("byte cut before a space")
        << QString(119, QChar(0x00E9)) + u" é"_s << QString(119, QChar(0x00E9));
    QTest::newRow("control then dot") << u"\u0001.env"_s << u"_env"_s;
    QTest::newRow("unicode kept") << u"Résumé ✓.pdf"_s << u"Résumé ✓.pdf"_s;
    QTest::newRow("windows separators kept") << u"a\\b.txt"_s << u"a\\b.txt"_s;
}

void TestFileNames::safeFileName()
{
    QFETCH(QString, name);
    QFETCH(QString, expected);
    QCOMPARE(lofthaven::safeFileName(name), expected);
}

// 200 characters of a non-Latin script are far more than 255 bytes; the name must still be
// creatable, even with a " (n)" suffix, and no surrogate pair may be cut in half.
void TestFileNames::safeFileNameFitsLinux()
{
    const QStringList names = {QString(200, QChar(0x00E9)), u"日本語"_s.repeated(100),
                               u"😀"_s.repeated(150), u"a😀"_s.repeated(150)};
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    for (const QString &name : names) {
        const QString safe = lofthaven::safeFileName(name);
        QVERIFY(!safe.isEmpty());
        QVERIFY(safe.toUtf8().size() <= 240);
        QVERIFY(name.startsWith(safe));
        QVERIFY(!safe.back().isHighSurrogate());
        QFile file(QDir(dir.path()).filePath(safe + u" (99999)"_s));
        QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(file.errorString()));
    }
}

void TestFileNames::uniquePath_data()
{
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");

    QTest::newRow("free") << QStringList{} << u"a.txt"_s << u"a.txt"_s;
    QTest::newRow("second") << QStringList{u"a.txt"_s} << u"a.txt"_s << u"a (2).txt"_s;
    QTest::newRow("third") << QStringList{u"a.txt"_s, u"a (2).txt"_s} << u"a.txt"_s
                           << u"a (3).txt"_s;
    QTest::newRow("gap is reused")
        << QStringList{u"a.txt"_s, u"a (3).txt"_s} << u"a.txt"_s << u"a (2).txt"_s;
    QTest::newRow("no extension") << QStringList{u"Notes"_s} << u"Notes"_s << u"Notes (2)"_s;
    QTest::newRow("last extension only")
        << QStringList{u"x.tar.gz"_s} << u"x.tar.gz"_s << u"x.tar (2).gz"_s;
    QTest::newRow("folder counts") << QStringList{u"Trip/"_s} << u"Trip"_s << u"Trip (2)"_s;
    QTest::newRow("dangling symlink counts")
        << QStringList{u"link@"_s} << u"link"_s << u"link (2)"_s;
    QTest::newRow("hidden name") << QStringList{u".cfg"_s} << u".cfg"_s << u".cfg (2)"_s;
    QTest::newRow("trailing dot") << QStringList{u"odd."_s} << u"odd."_s << u"odd. (2)"_s;
    QTest::newRow("other name free") << QStringList{u"b.txt"_s} << u"a.txt"_s << u"a.txt"_s;
}

void TestFileNames::uniquePath()
{
    QFETCH(QStringList, existing);
    QFETCH(QString, name);
    QFETCH(QString, expected);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QDir folder(dir.path());
    for (QString entry : existing) {
        if (entry.endsWith(u'/')) {
            QVERIFY(folder.mkdir(entry.chopped(1)));
        } else if (entry.endsWith(u'@')) {
            QVERIFY(QFile::link(u"/nonexistent/target"_s, folder.filePath(entry.chopped(1))));
        } else {
            QFile file(folder.filePath(entry));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
    }
    QCOMPARE(lofthaven::uniquePath(dir.path(), name), folder.filePath(expected));
}

QTEST_GUILESS_MAIN(TestFileNames)
#include "tst_filenames.moc"
