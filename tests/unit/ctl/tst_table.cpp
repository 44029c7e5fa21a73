#include "table.h"

#include <QTest>

using Ctl::Style;
using Ctl::Table;

/// Aligned columns.
class TableTest : public QObject
{
    Q_OBJECT

private slots:
    void columnsAreAsWideAsTheirWidestText();
    void emptyCellsLeaveTheirPlace();
    void missingCellsAreEmpty();
    void widestColumnThatMayShrinkIsCut();
    void columnsAreNotCutBeyondUse();
    void coloursDoNotCountAsWidth();
    void charactersCountAndNotCodeUnits();
    void wideCharactersTakeTwoColumns();
    void controlCharactersAreNotObeyed();
    void turnedTextIsNotObeyed();
};

namespace {

QString lines(const QStringList &texts)
{
    return texts.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

Table sample()
{
    Table table({ { QStringLiteral("ID"), Table::Align::Left, true },
                  { QStringLiteral("PID"), Table::Align::Right },
                  { QStringLiteral("GROUP"), Table::Align::Left, true } });
    table.addRow(
        { { QStringLiteral("org.example.Notes") }, { QStringLiteral("7") }, { QStringLiteral("a/b") } });
    table.addRow({ { QStringLiteral("x") }, { QStringLiteral("12345") }, { QStringLiteral("c") } });
    return table;
}

} // namespace

void TableTest::columnsAreAsWideAsTheirWidestText()
{
    QCOMPARE(sample().render(0, false),
             lines({ QStringLiteral("ID                   PID  GROUP"),
                     QStringLiteral("org.example.Notes      7  a/b"),
                     QStringLiteral("x                  12345  c") }));
}

void TableTest::emptyCellsLeaveTheirPlace()
{
    Table table(
        { { QStringLiteral("A") }, { QStringLiteral("B"), Table::Align::Right }, { QStringLiteral("C") } });
    table.addRow({ { QStringLiteral("1") }, {}, { QStringLiteral("3") } });
    table.addRow({ {}, { QStringLiteral("2") }, {} });
    QCOMPARE(table.render(0, false),
             lines({ QStringLiteral("A  B  C"), QStringLiteral("1     3"), QStringLiteral("   2") }));
}

void TableTest::missingCellsAreEmpty()
{
    Table table({ { QStringLiteral("A") }, { QStringLiteral("B") } });
    table.addRow({ { QStringLiteral("1") } });
    QCOMPARE(table.render(0, false), lines({ QStringLiteral("A  B"), QStringLiteral("1") }));
}

void TableTest::widestColumnThatMayShrinkIsCut()
{
    const QString ellipsis(QChar(0x2026));
    QCOMPARE(sample().render(26, false),
             lines({ QStringLiteral("ID              PID  GROUP"),
                     QStringLiteral("org.example") + ellipsis + QStringLiteral("      7  a/b"),
                     QStringLiteral("x             12345  c") }));
}

void TableTest::columnsAreNotCutBeyondUse()
{
    const QString rendered = sample().render(3, false);
    QVERIFY(rendered.contains(QStringLiteral("org.exa") + QChar(0x2026)));
    QVERIFY(rendered.contains(QStringLiteral("12345  c")));
}

void TableTest::coloursDoNotCountAsWidth()
{
    Table table({ { QStringLiteral("A") }, { QStringLiteral("B") } });
    table.addRow({ { QStringLiteral("bad"), Style::Bad }, { QStringLiteral("x") } });
    QCOMPARE(table.render(0, true),
             lines({ QStringLiteral("\033[1mA\033[0m    \033[1mB\033[0m"),
                     QStringLiteral("\033[31mbad\033[0m  x") }));
}

void TableTest::charactersCountAndNotCodeUnits()
{
    Table table({ { QStringLiteral("A") }, { QStringLiteral("B") } });
    table.addRow({ { QString::fromUtf8("\xf0\x9d\x84\x9e") }, { QStringLiteral("x") } });
    QCOMPARE(table.render(0, false), QString::fromUtf8("A  B\n\xf0\x9d\x84\x9e  x\n"));
}

void TableTest::wideCharactersTakeTwoColumns()
{
    Table table({ { QStringLiteral("A"), Table::Align::Left, true }, { QStringLiteral("B") } });
    table.addRow({ { QString::fromUtf8("\u6f22\u5b57") }, { QStringLiteral("x") } });
    table.addRow({ { QString::fromUtf8("e\u0301") }, { QStringLiteral("y") } });
    QCOMPARE(table.render(0, false), QString::fromUtf8("A     B\n\u6f22\u5b57  x\ne\u0301     y\n"));
    Table narrow({ { QStringLiteral("A"), Table::Align::Left, true } });
    narrow.addRow({ { QString::fromUtf8("\u6f22").repeated(10) } });
    QCOMPARE(narrow.render(8, false),
             QStringLiteral("A\n") + QString::fromUtf8("\u6f22").repeated(3) + QChar(0x2026)
                 + QLatin1Char('\n'));
}

void TableTest::turnedTextIsNotObeyed()
{
    QCOMPARE(Ctl::printable(QString::fromUtf8("a\u202eb\u2066c\u009b2Jd")), QStringLiteral("a?b?c?2Jd"));
    QCOMPARE(Ctl::printable(QString::fromUtf8("\u00e9\u200d")), QString::fromUtf8("\u00e9\u200d"));
}

void TableTest::controlCharactersAreNotObeyed()
{
    Table table({ { QStringLiteral("A") } });
    table.addRow({ { QStringLiteral("a\033[2Jb\nc") } });
    QCOMPARE(table.render(0, false), lines({ QStringLiteral("A"), QStringLiteral("a?[2Jb?c") }));
}

QTEST_APPLESS_MAIN(TableTest)

#include "tst_table.moc"
