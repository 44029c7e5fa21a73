#include "text_width.h"

#include <QTest>

#include <clocale>

using namespace Ctl;

/// How much room texts take on a terminal, and what is left of them where there is less.
class TextWidthTest : public QObject
{
    Q_OBJECT

private slots:
    void columnsAreThoseOfTheTerminal_data();
    void columnsAreThoseOfTheTerminal();
    void wideCharactersAreNotHalved();
    void whatIsMissingIsMarked_data();
    void whatIsMissingIsMarked();
    void paddingFillsTheColumns();
};

namespace {

QString wide()
{
    return QStringLiteral(u"\u6f22\u5b57\u6f22");
}

} // namespace

void TextWidthTest::columnsAreThoseOfTheTerminal_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("columns");
    QTest::newRow("nothing") << QString() << 0;
    QTest::newRow("letters") << QStringLiteral("abc") << 3;
    QTest::newRow("beyond ASCII") << QStringLiteral(u"\u00e9\u2026") << 2;
    QTest::newRow("combining") << QStringLiteral(u"e\u0301") << 1;
    QTest::newRow("wide") << wide() << 6;
    QTest::newRow("two code units") << QString::fromUtf8("\xf0\x9d\x84\x9e") << 1;
    QTest::newRow("two code units, wide") << QString::fromUtf8("\xf0\x9f\x8c\x8d") << 2;
}

void TextWidthTest::columnsAreThoseOfTheTerminal()
{
    QFETCH(QString, text);
    for (const char *locale : { "C", "C.UTF-8" }) {
        if (setlocale(LC_CTYPE, locale)) {
            QTEST(columnsOf(text), "columns");
        }
    }
    setlocale(LC_CTYPE, "C");
}

void TextWidthTest::wideCharactersAreNotHalved()
{
    QCOMPARE(clipped(wide(), 5), wide().left(2));
    QCOMPARE(cut(wide(), 5), wide().left(2) + QChar(0x2026));
    QCOMPARE(cut(wide(), 4), clipped(wide(), 3) + QChar(0x2026));
    QCOMPARE(columnsOf(shortened(wide(), 5)), 5);
}

void TextWidthTest::whatIsMissingIsMarked_data()
{
    QTest::addColumn<int>("columns");
    QTest::addColumn<QString>("atTheEnd");
    QTest::addColumn<QString>("inTheMiddle");
    QTest::newRow("nothing") << 6 << QStringLiteral("abcdef") << QStringLiteral("abcdef");
    QTest::newRow("two") << 5 << QStringLiteral(u"abcd\u2026") << QStringLiteral(u"ab\u2026ef");
    QTest::newRow("three") << 4 << QStringLiteral(u"abc\u2026") << QStringLiteral(u"a\u2026ef");
    QTest::newRow("all") << 1 << QStringLiteral(u"\u2026") << QStringLiteral(u"\u2026");
    QTest::newRow("no room for the mark") << 0 << QString() << QString();
}

void TextWidthTest::whatIsMissingIsMarked()
{
    QFETCH(int, columns);
    QTEST(cut(QStringLiteral("abcdef"), columns), "atTheEnd");
    QTEST(shortened(QStringLiteral("abcdef"), columns), "inTheMiddle");
}

void TextWidthTest::paddingFillsTheColumns()
{
    QCOMPARE(padded(QStringLiteral("ab"), 4), QStringLiteral("ab  "));
    QCOMPARE(padded(QStringLiteral("ab"), 1), QStringLiteral("ab"));
    QCOMPARE(padded(wide(), 8), wide() + QStringLiteral("  "));
}

QTEST_APPLESS_MAIN(TextWidthTest)

#include "tst_text_width.moc"
