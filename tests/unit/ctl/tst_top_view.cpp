#include "text_width.h"
#include "top/view.h"

#include <QTest>

using namespace Ctl;
using Top::Line;
using Top::Model;
using Top::Row;
using Top::Service;
using Top::SortKey;

/// The order of rows, what keys do, and what the screen shows.
class TopViewTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void rowsAreSorted_data();
    void rowsAreSorted();
    void wordsMeanTheirInstancesAndTasks();
    void usualScreenShowsAll();
    void narrowScreenLeavesOutColumns();
    void everySizeIsKept();
    void longTableFollowsTheSelectedRow();
    void helpTakesTheTable();
    void textIsNotObeyed();
    void stopIsAskedFor();
    void questionIsAboutOneProcess();
    void selectionPassesToWhoComesInItsPlace();
    void headTellsOfTheService_data();
    void headTellsOfTheService();
    void plainTableHasNoMark();
};

namespace {

Row row(const QString &id, quint64 memoryKb, double percent, uint rank, uint state)
{
    Row result;
    result.id = id;
    result.pid = 100 + int(rank);
    result.state = state;
    result.frozen = state == 3;
    result.memoryKb = memoryKb;
    result.cpuPercent = percent;
    result.cpuMs = 1000 * rank;
    result.oomRank = rank;
    result.startedMs = 1000;
    return result;
}

QVector<Row> sampleRows()
{
    Row bare;
    bare.id = QStringLiteral("d");
    bare.pid = 9;
    return { row(QStringLiteral("a"), 2048, 1.5, 3, 1), row(QStringLiteral("b"), 4096, 0.5, 1, 3),
             row(QStringLiteral("c"), 2048, 50, 2, 2), bare };
}

void fill(Model &model, const QVector<Row> &rows = sampleRows())
{
    model.update(rows, {}, Top::Memory { 0, 1024 * 1024, 512 * 1024, 50 }, 61000);
}

QStringList textsOf(const QVector<Line> &lines)
{
    QStringList result;
    for (const Line &line : lines) {
        QString text;
        for (const Top::Span &span : line.spans) {
            text += span.text;
        }
        while (text.endsWith(QLatin1Char(' '))) {
            text.chop(1);
        }
        result.append(text);
    }
    return result;
}

QString idsOf(const Model &model)
{
    QString ids;
    for (const Row &row : model.rows()) {
        ids += row.id;
    }
    return ids;
}

} // namespace

void TopViewTest::initTestCase()
{
    qputenv("TZ", "UTC");
}

void TopViewTest::rowsAreSorted_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<bool>("isReversed");
    QTest::addColumn<QString>("ids");
    // Ties in the order of the ids; what is not known comes last either way.
    QTest::newRow("memory") << "memory" << false << "bacd";
    QTest::newRow("memory, reversed") << "memory" << true << "acbd";
    QTest::newRow("cpu") << "cpu" << false << "cabd";
    QTest::newRow("cpu, reversed") << "cpu" << true << "bacd";
    QTest::newRow("state") << "state" << false << "dacb";
    QTest::newRow("state, reversed") << "state" << true << "bcad";
    QTest::newRow("oom") << "oom" << false << "bcad";
    QTest::newRow("oom, reversed") << "oom" << true << "acbd";
    QTest::newRow("id") << "id" << false << "abcd";
    QTest::newRow("id, reversed") << "id" << true << "dcba";
}

void TopViewTest::rowsAreSorted()
{
    QFETCH(QString, word);
    QFETCH(bool, isReversed);
    const auto key = Top::sortKeyOf(word);
    QVERIFY(key);
    QCOMPARE(Top::sortKeyName(*key), word);
    Model model;
    model.setSort(*key, isReversed);
    fill(model);
    QTEST(idsOf(model), "ids");
    // And by the key of the same meaning.
    Model pressed;
    fill(pressed);
    (void)pressed.press(word.at(0).unicode());
    if (isReversed) {
        (void)pressed.press('r');
    }
    QTEST(idsOf(pressed), "ids");
}

void TopViewTest::wordsMeanTheirInstancesAndTasks()
{
    const QStringList wanted = { QStringLiteral("org.example.Notes") };
    QVERIFY(Top::isWanted(QStringLiteral("anything"), {}));
    QVERIFY(Top::isWanted(QStringLiteral("org.example.Notes"), wanted));
    QVERIFY(Top::isWanted(QStringLiteral("org.example.Notes.instance_2"), wanted));
    QVERIFY(Top::isWanted(QStringLiteral("org.example.Notes.task_sync"), wanted));
    QVERIFY(!Top::isWanted(QStringLiteral("org.example.Notes.Other"), wanted));
    QVERIFY(!Top::isWanted(QStringLiteral("org.example.Notesbook"), wanted));
}

void TopViewTest::usualScreenShowsAll()
{
    Model model;
    fill(model);
    QCOMPARE(
        textsOf(Top::draw(model, { 80, 10 })),
        QStringList({ QStringLiteral("4 run, 1 frozen  by memory  00:01:01"),
                      QStringLiteral("Memory normal, 512.0 MB of 1.0 GB available, 50.0 %"), QString(),
                      QStringLiteral(" ID  STATE     FROZEN  CPU%  CPU  MEMORY  OOM  PID  SINCE"),
                      QStringLiteral(">b   hidden    yes      0.5  1 s  4.0 MB    1  101  1 min"),
                      QStringLiteral(" a   active    no       1.5  3 s  2.0 MB    3  103  1 min"),
                      QStringLiteral(" c   inactive  no      50.0  2 s  2.0 MB    2  102  1 min"),
                      QStringLiteral(" d   launched                                    9"), QString(),
                      QStringLiteral("q quit  h help  x stop  f freezing  sort: m c s o i  r reverse") }));
}

void TopViewTest::narrowScreenLeavesOutColumns()
{
    Model model;
    fill(model);
    QCOMPARE(textsOf(Top::draw(model, { 20, 5 })),
             QStringList({ QStringLiteral("4 run, 1 frozen  by"), QStringLiteral("Memory normal, 512.0"),
                           QStringLiteral(" ID  CPU%  MEMORY"), QStringLiteral(">b    0.5  4.0 MB"),
                           QStringLiteral(" a    1.5  2.0 MB") }));
}

void TopViewTest::everySizeIsKept()
{
    Model model;
    model.setWatch(Model::Watch::Everything);
    QVector<Row> rows = sampleRows();
    rows.first().id = QString(300, QLatin1Char('x'));
    fill(model, rows);
    for (const int key : { 0, int('x'), int('n'), int('h') }) {
        (void)model.press(key);
        for (int width = 1; width < 90; width += 3) {
            for (int height = 1; height < 30; ++height) {
                const QVector<Line> lines = Top::draw(model, { width, height });
                QVERIFY2(lines.size() <= height, qPrintable(QString::number(height)));
                for (const QString &text : textsOf(lines)) {
                    QVERIFY2(columnsOf(text) <= width, qPrintable(text));
                }
                QVERIFY(Top::pageOf(model, height) >= 1);
            }
        }
    }
}

void TopViewTest::longTableFollowsTheSelectedRow()
{
    QVector<Row> rows;
    for (int i = 0; i < 50; ++i) {
        rows.append(row(QStringLiteral("id%1").arg(i, 2, 10, QLatin1Char('0')), 1, 0, uint(i), 1));
    }
    Model model;
    model.setSort(SortKey::Id, false);
    fill(model, rows);
    const auto selectedLine = [&model] {
        for (const Line &line : Top::draw(model, { 80, 12 })) {
            if (line.isSelected) {
                return textsOf({ line }).first().mid(1, 4);
            }
        }
        return QString();
    };
    model.setPage(Top::pageOf(model, 12));
    (void)model.press(Top::Home);
    QCOMPARE(selectedLine(), QStringLiteral("id00"));
    (void)model.press(Top::PageDown);
    QCOMPARE(selectedLine(), QStringLiteral("id%1").arg(Top::pageOf(model, 12), 2, 10, QLatin1Char('0')));
    (void)model.press(Top::End);
    QCOMPARE(selectedLine(), QStringLiteral("id49"));
    (void)model.press(Top::Down);
    QCOMPARE(selectedLine(), QStringLiteral("id49"));
}

void TopViewTest::helpTakesTheTable()
{
    Model model;
    fill(model);
    (void)model.press('h');
    const QString shown = textsOf(Top::draw(model, { 80, 24 })).join(QLatin1Char('\n'));
    QVERIFY(shown.contains(QLatin1String("stop the selected one; asks first")));
    QVERIFY(!shown.contains(QLatin1String("STATE")));
    QCOMPARE(model.press('q').kind, Model::Action::Redraw); // leaves the help only
    QCOMPARE(model.press('q').kind, Model::Action::Quit);
}

void TopViewTest::textIsNotObeyed()
{
    Model model;
    fill(model, { row(QStringLiteral("a\x1b[2J\nb"), 1, 0, 1, 1) });
    model.setMessage(QStringLiteral("bad\x1b]0;x\a"), true);
    for (const QString &text : textsOf(Top::draw(model, { 80, 10 }))) {
        for (const QChar character : text) {
            QVERIFY2(character.isPrint(), qPrintable(text));
        }
    }
}

void TopViewTest::stopIsAskedFor()
{
    Model model;
    model.setSort(SortKey::Id, false);
    fill(model);
    (void)model.press('g');
    QCOMPARE(model.press('x').kind, Model::Action::Redraw);
    QCOMPARE(model.question(), QStringLiteral("Stop a (pid 103)? (y/n)"));
    QCOMPARE(model.press('z').kind, Model::Action::Redraw);
    QVERIFY(!model.question().isEmpty());
    QCOMPARE(model.press('n').kind, Model::Action::Redraw);
    QVERIFY(model.question().isEmpty());
    (void)model.press(Top::Delete);
    const Model::Action action = model.press('y');
    QCOMPARE(action.kind, Model::Action::Stop);
    QCOMPARE(action.row.id, QStringLiteral("a"));
    QVERIFY(model.question().isEmpty());

    Model empty;
    (void)empty.press('x');
    QVERIFY(empty.question().isEmpty());
}

void TopViewTest::questionIsAboutOneProcess()
{
    Model model;
    model.setSort(SortKey::Id, false);
    QVector<Row> rows = sampleRows();
    fill(model, rows);
    (void)model.press('g');
    (void)model.press('x');
    rows.first().pid = 999; // it ended, and was started again
    fill(model, rows);
    QVERIFY(model.question().isEmpty());
    QCOMPARE(model.message(), QStringLiteral("It has ended"));
}

void TopViewTest::selectionPassesToWhoComesInItsPlace()
{
    Model model;
    model.setSort(SortKey::Id, false);
    QVector<Row> rows = sampleRows();
    fill(model, rows);
    (void)model.press('g');
    (void)model.press('j');
    QCOMPARE(model.rows().at(model.selected()).id, QStringLiteral("b"));
    rows.remove(1);
    fill(model, rows);
    QCOMPARE(model.rows().at(model.selected()).id, QStringLiteral("c"));
}

void TopViewTest::headTellsOfTheService_data()
{
    QTest::addColumn<int>("service");
    QTest::addColumn<QString>("head");
    QTest::addColumn<int>("rows");
    QTest::newRow("waited") << int(Service::Waited) << "Asking the service" << 4;
    QTest::newRow("gone") << int(Service::Gone) << "The service is not running, since 00:01:02" << 0;
    QTest::newRow("silent")
        << int(Service::Silent)
        << "The service does not answer, since 00:01:02  4 run, 1 frozen  by memory  00:01:01" << 4;
    QTest::newRow("refuses") << int(Service::Refuses)
                             << "no.such: thing  4 run, 1 frozen  by memory  00:01:01" << 4;
}

void TopViewTest::headTellsOfTheService()
{
    QFETCH(int, service);
    Model model;
    fill(model);
    model.setService(Service(service), 62000, QStringLiteral("no.such: thing"));
    QTEST(textsOf(Top::draw(model, { 100, 10 })).first(), "head");
    QTEST(model.rows().size(), "rows");
}

void TopViewTest::plainTableHasNoMark()
{
    Model model;
    fill(model);
    const QStringList lines = textsOf(Top::drawPlain(model, 0));
    QCOMPARE(lines.size(), 7);
    QCOMPARE(lines.at(3), QStringLiteral("b   hidden    yes      0.5  1 s  4.0 MB    1  101  1 min"));
}

QTEST_APPLESS_MAIN(TopViewTest)

#include "tst_top_view.moc"
