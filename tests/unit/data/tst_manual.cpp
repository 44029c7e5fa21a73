#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include "manual_page.h"

namespace {

const QDir manual(QStringLiteral(PROCWARDEN_MANUAL_DIR));

QString dataPath(const char *relative)
{
    return QStringLiteral(PROCWARDEN_DATA_DIR "/") + QLatin1String(relative);
}

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// Whether the page has @p key, as a whole word, in bold: an example alone does not explain it.
bool names(const QString &page, const QString &key)
{
    const QString text = ManualPage(page).source();
    const QRegularExpression expression(
        QStringLiteral("^\\.B.*(?<![\\w.-])%1(?![\\w-])").arg(QRegularExpression::escape(key)),
        QRegularExpression::MultilineOption);
    return expression.match(text).hasMatch();
}

/// Keys of a file with lines KEY=VALUE, also of those that are switched off by a semicolon.
QStringList keysOf(const QString &path)
{
    QStringList keys;
    const QRegularExpression line(QStringLiteral("^([A-Za-z0-9.]+)=.*$"),
                                  QRegularExpression::MultilineOption);
    for (auto matches = line.globalMatch(contentOf(path)); matches.hasNext();) {
        keys << matches.next().captured(1);
    }
    return keys;
}

QStringList membersOf(const QString &path)
{
    const QJsonObject object = QJsonDocument::fromJson(contentOf(path).toUtf8()).object();
    return object.keys() + object.value(QLatin1String("hints")).toObject().keys();
}

/// What a program says about a page; it should be nothing.
QString complaints(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    // The one of them that reports on its output does so with "-Tlint" alone.
    if (arguments.contains(QLatin1String("-Tlint"))) {
        process.setStandardOutputFile(QString());
        process.setProcessChannelMode(QProcess::MergedChannels);
    }
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        return QStringLiteral("does not end");
    }
    return QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
}

} // namespace

/// The man pages: whether they can be read, are installed, and name what there is.
class ManualTest : public QObject
{
    Q_OBJECT

private slots:
    void everyPageIsFormattedWithoutWarning_data() { addPages(); }
    void everyPageIsFormattedWithoutWarning();
    void everyPageIsCleanForAnotherFormatter_data() { addPages(); }
    void everyPageIsCleanForAnotherFormatter();
    void everyPageBearsItsName_data() { addPages(); }
    void everyPageBearsItsName();
    void everyOtherNameLeadsToItsPage();
    void everyReferenceLeadsToAPage_data() { addPages(); }
    void everyReferenceLeadsToAPage();
    void everyPageIsInstalled();
    void everyKeyOfTheSamplesIsInItsPage_data();
    void everyKeyOfTheSamplesIsInItsPage();

private:
    void addPages();
};

void ManualTest::addPages()
{
    QTest::addColumn<QString>("page");
    const QStringList all = ManualPage::names();
    QVERIFY(!all.isEmpty());
    for (const QString &page : all) {
        QTest::newRow(qUtf8Printable(page)) << page;
    }
}

void ManualTest::everyPageIsFormattedWithoutWarning()
{
    const QString groff = QStandardPaths::findExecutable(QStringLiteral("groff"));
    if (groff.isEmpty()) {
        QSKIP("needs groff");
    }
    QFETCH(QString, page);
    QCOMPARE(complaints(groff,
                        { QStringLiteral("-man"), QStringLiteral("-Tutf8"), QStringLiteral("-ww"),
                          manual.filePath(page) }),
             QString());
}

void ManualTest::everyPageIsCleanForAnotherFormatter()
{
    const QString mandoc = QStandardPaths::findExecutable(QStringLiteral("mandoc"));
    if (mandoc.isEmpty()) {
        QSKIP("needs mandoc");
    }
    QFETCH(QString, page);
    QCOMPARE(
        complaints(mandoc, { QStringLiteral("-Tlint"), QStringLiteral("-Wwarning"), manual.filePath(page) }),
        QString());
}

void ManualTest::everyPageBearsItsName()
{
    QFETCH(QString, page);
    const QString text = ManualPage(page).source();
    const QString name = page.left(page.size() - 2);
    QVERIFY(text.startsWith(QStringLiteral(".TH %1 %2 ").arg(name.toUpper(), page.right(1))));
    const QRegularExpression line(
        QStringLiteral("\n\\.SH NAME\n%1(?:, [\\w.-]+)* - ").arg(QRegularExpression::escape(name)));
    QVERIFY(line.match(text).hasMatch());
}

/// What a page calls itself besides has to be found under that name, too; whatis(1) looks there.
void ManualTest::everyOtherNameLeadsToItsPage()
{
    QStringList aliases, told;
    const QStringList files = manual.entryList({ QStringLiteral("*.[1-8]") }, QDir::Files, QDir::Name);
    for (const QString &file : files) {
        const QString target = ManualPage(file).aliasOf();
        if (!target.isEmpty()) {
            aliases << file + QLatin1Char(' ') + target;
        }
    }
    const QRegularExpression line(QStringLiteral("\n\\.SH NAME\n[^ ,]+, (.*) - "));
    for (const QString &page : ManualPage::names()) {
        const QString more = line.match(ManualPage(page).source()).captured(1);
        for (const QString &name : more.split(QStringLiteral(", "), Qt::SkipEmptyParts)) {
            told << QStringLiteral("%1.%2 man%2/%3").arg(name, page.right(1), page);
        }
    }
    told.sort();
    QCOMPARE(aliases, told);
    QVERIFY(aliases.contains(QLatin1String("oom.cfg.5 man5/procwarden-oom.cfg.5")));
    QVERIFY(aliases.contains(QLatin1String("tasks.cfg.5 man5/procwarden-tasks.cfg.5")));
}

void ManualTest::everyReferenceLeadsToAPage()
{
    QFETCH(QString, page);
    const QString text = ManualPage(page).source();
    const QRegularExpression reference(QStringLiteral("^\\.BR (procwarden\\S*) \\(([1-8])\\)"),
                                       QRegularExpression::MultilineOption);
    for (auto matches = reference.globalMatch(text); matches.hasNext();) {
        const QRegularExpressionMatch match = matches.next();
        const QString target = match.captured(1) + QLatin1Char('.') + match.captured(2);
        QVERIFY2(ManualPage::names().contains(target), qUtf8Printable(target));
    }
}

void ManualTest::everyPageIsInstalled()
{
    const QTemporaryDir prefix;
    QVERIFY(prefix.isValid());
    // Of this directory alone: nothing else has to be built. Below the prefix, whatever the build was given.
    qputenv("DESTDIR", prefix.path().toUtf8());
    QProcess installation;
    installation.start(
        QStringLiteral(PROCWARDEN_CMAKE),
        { QStringLiteral("-P"), QStringLiteral(PROCWARDEN_MANUAL_BUILD_DIR "/cmake_install.cmake") });
    qunsetenv("DESTDIR");
    QVERIFY(installation.waitForFinished(60000));
    QVERIFY2(installation.exitCode() == 0, installation.readAllStandardError().constData());
    QStringList installed;
    QDirIterator files(prefix.path(), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QFileInfo file(files.next());
        // The directory says the section as well.
        QCOMPARE(file.dir().dirName(), QLatin1String("man") + file.fileName().right(1));
        installed << file.fileName();
    }
    installed.sort();
    QStringList expected = manual.entryList({ QStringLiteral("*.[1-8]") }, QDir::Files);
#ifndef PROCWARDEN_HAS_EVENTD
    expected.removeAll(QStringLiteral("procwarden-eventd.8"));
#endif
    expected.sort();
    QCOMPARE(installed, expected);
}

void ManualTest::everyKeyOfTheSamplesIsInItsPage_data()
{
    QTest::addColumn<QString>("page");
    QTest::addColumn<QStringList>("keys");
    QTest::newRow("oom.cfg") << "procwarden-oom.cfg.5" << keysOf(dataPath("oom.cfg"));
    QTest::newRow("tasks.cfg") << "procwarden-tasks.cfg.5" << keysOf(dataPath("tasks.cfg"));
    for (const char *state : { "active", "background", "hidden", "inactive" }) {
        QTest::newRow(state) << "procwarden-states.5"
                             << keysOf(dataPath("states/") + QLatin1String(state) + QLatin1String(".config"))
                + QStringList(QLatin1String(state));
    }
    for (const char *intent : { "Edit", "OpenURI", "PickFile", "Share" }) {
        QTest::newRow(intent) << "procwarden-intents.5"
                              << membersOf(dataPath("intents/") + QLatin1String(intent)
                                           + QLatin1String(".intent"));
    }
}

void ManualTest::everyKeyOfTheSamplesIsInItsPage()
{
    QFETCH(QString, page);
    QFETCH(QStringList, keys);
    QVERIFY(!keys.isEmpty());
    for (const QString &key : qAsConst(keys)) {
        QVERIFY2(names(page, key), qUtf8Printable(key));
    }
}

QTEST_GUILESS_MAIN(ManualTest)

#include "tst_manual.moc"
