#include "receive/receivetarget.h"

#include <QTest>

using namespace lofthaven;
using namespace Qt::StringLiterals;

class TestReceiveTarget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void normalizes_data();
    void normalizes();
};

void TestReceiveTarget::normalizes_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("kind"); // "code", "link" or "none"
    QTest::addColumn<QString>("value");

    auto code = [](const char *name, const QString &input, const char *value) {
        QTest::newRow(name) << input << QStringLiteral("code") << QString::fromUtf8(value);
    };
    auto link = [](const char *name, const QString &input, const char *value) {
        QTest::newRow(name) << input << QStringLiteral("link") << QString::fromUtf8(value);
    };
    auto none = [](const char *name, const QString &input) {
        QTest::newRow(name) << input << QStringLiteral("none") << QString();
    };

    code("plain code", u"123456"_s, "123456");
    code("spaces and newline", u"  123456 \n"_s, "123456");
    code("tabs and CRLF", u"\t123456\r\n"_s, "123456");
    code("typed with a space", u"123 456"_s, "123456");
    code("typed with a dash", u"123-456"_s, "123456");
    code("full-width digits", u"１２３４５６"_s, "123456");
    code("full-width with space", u"１２３ ４５６"_s, "123456");
    code("arabic-indic digits", u"١٢٣٤٥٦"_s, "123456");
    code("mathematical bold digits", u"𝟏𝟐𝟑𝟒𝟓𝟔"_s, "123456");
    code("twelve characters", u"12-34-56 abc"_s, "123456");
    none("thirteen characters", u"12-34-56 abcd"_s);
    none("sentence with six digits", u"My code is 123456, thanks!"_s);
    none("five digits", u"12345"_s);
    none("seven digits", u"1234567"_s);
    none("fraction counts as a number", u"12345½"_s);
    code("superscript is a digit", u"12345²"_s, "123452");
    none("empty", QString());
    none("only whitespace", u" \n\t "_s);
    none("letters", u"abcdef"_s);

    link("web link", u"https://lofthaven.example/d/Ab3dE9"_s, "Ab3dE9");
    link("link with query", u"https://lofthaven.example/d/Ab3dE9xY?x=1"_s, "Ab3dE9xY");
    link("sixteen characters", u"https://x.example/d/ABCDEFGHIJKLMNOP"_s, "ABCDEFGHIJKLMNOP");
    link("seventeen cut to sixteen", u"https://x.example/d/ABCDEFGHIJKLMNOPQ"_s,
         "ABCDEFGHIJKLMNOP");
    link("link inside a sentence", u"Get it at https://x.example/d/Zz9Zz9Zz here"_s, "Zz9Zz9Zz");
    link("long paste with link", QString(u"blah "_s.repeated(400) + u"/d/abcdef123"_s),
         "abcdef123");
    none("identifier too short", u"https://x.example/d/abc"_s);
    code("short identifier falls to digits", u"/d/ab 123456"_s, "123456");
    code("receive link", u"https://x.example/r/654321"_s, "654321");
    code("receive link longer digits", u"https://x.example/r/6543210"_s, "654321");
    link("link wins over code", u"https://x.example/r/654321/d/Ab3dE9"_s, "Ab3dE9");
    none("receive link five digits", u"https://x.example/r/65432"_s);

    link("scheme link", u"lofthaven://d/Ab3dE9"_s, "Ab3dE9");
    link("scheme short link", u"lofthaven://d/XYZ"_s, "XYZ");
    code("scheme receive", u"lofthaven://r/123456"_s, "123456");
    code("scheme other piece re-normalised", u"lofthaven://open/123 456"_s, "123456");
    none("scheme other piece not a code", u"lofthaven://open/abc"_s);
    link("scheme doubled slashes", u"lofthaven:////d//XYZ/"_s, "XYZ");
    none("scheme one piece is then too long", u"lofthaven://123456"_s);
    none("scheme one piece long", u"lofthaven://code/"_s);
    code("scheme without slashes", u"lofthaven:r/123456"_s, "123456");
    none("scheme is case-sensitive", u"LOFTHAVEN://d/XYZ"_s);
}

void TestReceiveTarget::normalizes()
{
    QFETCH(QString, input);
    QFETCH(QString, kind);
    QFETCH(QString, value);

    const std::optional<ReceiveTarget> target = normalizeReceiveInput(input);
    if (kind == u"none") {
        QVERIFY2(!target, qPrintable(target ? target->value : QString()));
        return;
    }
    QVERIFY(target);
    QCOMPARE(target->kind, kind == u"code" ? ReceiveTarget::Kind::Code : ReceiveTarget::Kind::Link);
    QCOMPARE(target->value, value);
}

QTEST_GUILESS_MAIN(TestReceiveTarget)
#include "tst_receivetarget.moc"
