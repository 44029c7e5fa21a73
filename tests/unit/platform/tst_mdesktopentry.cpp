#include "support/log_capture.h"

#include <QTemporaryDir>
#include <QtTest>

#include <mdesktopentry.h>

#include <sys/stat.h>

using TestSupport::LogCapture;

class TestMDesktopEntry : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void standardKeysAreRead();
    void missingKeysAreEmpty();
    void stringsAreUnescaped_data();
    void stringsAreUnescaped();
    void listsAreSplit_data();
    void listsAreSplit();
    void translationOfTheSessionIsTaken();
    void nameAndOrganisationComeFromTheSandboxGroups_data();
    void nameAndOrganisationComeFromTheSandboxGroups();
    void mimeParentsAreABoolean_data();
    void mimeParentsAreABoolean();
    void groupsKeepTheirOrder();
    void malformedFileIsInvalidAndSaysWhy_data();
    void malformedFileIsInvalidAndSaysWhy();
    void whatIsNoFileIsInvalidAndDoesNotBlock();
    void hugeFileIsInvalid();
    void noTruncatedFileDoesHarm();

private:
    QString write(const QByteArray &content) const;

    QTemporaryDir m_dir;
};

void TestMDesktopEntry::initTestCase()
{
    qputenv("LANGUAGE", "de_AT:fr");
    qputenv("LC_ALL", "C");
}

QString TestMDesktopEntry::write(const QByteArray &content) const
{
    const QString path = m_dir.filePath(QStringLiteral("a.desktop"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write");
    }
    return path;
}

void TestMDesktopEntry::standardKeysAreRead()
{
    const QString path =
        write("# comment\n\n[Desktop Entry]\nType=Application\nName=Notes\nIcon=icon-notes\n"
              "Exec = notes %u\nX-Maemo-Service=org.example.notes\nMimeType=text/plain;text/html;\n"
              "X-Other=value\n[Group]\nKey=other\n");
    const MDesktopEntry entry(path);
    QVERIFY(entry.isValid());
    QCOMPARE(entry.fileName(), path);
    QCOMPARE(entry.name(), QStringLiteral("Notes"));
    QCOMPARE(entry.icon(), QStringLiteral("icon-notes"));
    QCOMPARE(entry.exec(), QStringLiteral("notes %u"));
    QCOMPARE(entry.xMaemoService(), QStringLiteral("org.example.notes"));
    QCOMPARE(entry.mimeType(), (QStringList { QStringLiteral("text/plain"), QStringLiteral("text/html") }));
    QCOMPARE(entry.value(QStringLiteral("X-Other")), QStringLiteral("value"));
    QCOMPARE(entry.value(QStringLiteral("Group"), QStringLiteral("Key")), QStringLiteral("other"));
}

void TestMDesktopEntry::missingKeysAreEmpty()
{
    const MDesktopEntry entry(write("[Desktop Entry]\n"));
    QVERIFY(entry.isValid());
    QCOMPARE(entry.name(), QString());
    QCOMPARE(entry.icon(), QString());
    QCOMPARE(entry.exec(), QString());
    QCOMPARE(entry.xMaemoService(), QString());
    QCOMPARE(entry.appName(), QString());
    QCOMPARE(entry.appOrgname(), QString());
    QVERIFY(entry.mimeType().isEmpty());
    QVERIFY(!entry.supportMimeParents());
    QCOMPARE(entry.value(QStringLiteral("X")), QString());
    QCOMPARE(entry.value(QString()), QString());
    QCOMPARE(entry.value(QStringLiteral("Nowhere"), QStringLiteral("X")), QString());
    QCOMPARE(entry.value(QString(), QStringLiteral("X")), QString());
    QVERIFY(entry.stringListValue(QStringLiteral("Nowhere"), QStringLiteral("X")).isEmpty());
}

void TestMDesktopEntry::stringsAreUnescaped_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<QString>("value");

    const auto row = [](const char *title, const QByteArray &raw, const char *value) {
        QTest::newRow(title) << raw << QString::fromUtf8(value);
    };
    row("plain", "a b", "a b");
    row("blanks around the value", "  a b  ", "a b  ");
    row("blank, line feed, tab, return, backslash", "a\\sb\\nc\\td\\re\\\\f", "a b\nc\td\re\\f");
    row("equals sign", "a=b", "a=b");
    row("UTF-8", "k\xc3\xa4se", "k\xc3\xa4se");
    row("semicolons", "a;b;", "a;b;");
    row("escaped semicolon is for lists only", "a\\;b", "a\\;b");
    row("unknown escape stays", "a\\qb", "a\\qb");
    row("backslash at the end", "a\\", "a");
    row("not UTF-8", "a\xff", "");
    row("empty", "", "");
}

void TestMDesktopEntry::stringsAreUnescaped()
{
    QFETCH(QByteArray, raw);
    const MDesktopEntry entry(write("[Desktop Entry]\nX-Key=" + raw + "\nExec=app\n"));
    QVERIFY(entry.isValid());
    QTEST(entry.value(QStringLiteral("X-Key")), "value");
    QCOMPARE(entry.exec(), QStringLiteral("app"));
}

void TestMDesktopEntry::listsAreSplit_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<QStringList>("list");

    const auto row = [](const char *title, const QByteArray &raw, std::initializer_list<const char *> list) {
        QStringList values;
        for (const char *value : list) {
            values.append(QString::fromUtf8(value));
        }
        QTest::newRow(title) << raw << values;
    };
    row("separator at the end", "a;b;", { "a", "b" });
    row("no separator at the end", "a;b", { "a", "b" });
    row("one", "a", { "a" });
    row("empty elements", ";a;;b;;", { "a", "b" });
    row("escaped separator", "a\\;b;c", { "a;b", "c" });
    row("escapes", "a\\sb;c\\\\d", { "a b", "c\\d" });
    row("blanks stay", "a; b", { "a", " b" });
    row("commas separate nothing", "a,b;c", { "a,b", "c" });
    row("empty", "", {});
    row("only separators", ";;;", {});
    row("not UTF-8", "a;\xff;b", {});
}

void TestMDesktopEntry::listsAreSplit()
{
    QFETCH(QByteArray, raw);
    const MDesktopEntry entry(write("[Desktop Entry]\nMimeType=" + raw + "\n[G]\nL=" + raw + "\n"));
    QVERIFY(entry.isValid());
    QTEST(entry.stringListValue(QStringLiteral("G"), QStringLiteral("L")), "list");
    QTEST(entry.mimeType(), "list");
}

void TestMDesktopEntry::translationOfTheSessionIsTaken()
{
    const MDesktopEntry entry(
        write("[Desktop Entry]\nName=Notes\nName[fr]=Cahier\nName[de]=Notizen\nName[fi]=X\n"
              "Icon=notes\nIcon[fr]=cahier\nExec=app\nExec[de]=other\n"));
    QCOMPARE(entry.name(), QStringLiteral("Notizen"));
    QCOMPARE(entry.icon(), QStringLiteral("cahier"));
    QCOMPARE(entry.exec(), QStringLiteral("app"));
    QCOMPARE(MDesktopEntry(write("[Desktop Entry]\nName=Notes\nName[fi]=X\n")).name(),
             QStringLiteral("Notes"));
    // The nearer language first, whatever the order of the file; one that cannot be read is passed over.
    QCOMPARE(MDesktopEntry(write("[Desktop Entry]\nName[fr]=F\nName[de]=D\nName[de_AT]=A\nName=N\n")).name(),
             QStringLiteral("A"));
    QCOMPARE(MDesktopEntry(write("[Desktop Entry]\nName[de]=\xff\nName[fr]=F\nName=N\n")).name(),
             QStringLiteral("F"));
    QCOMPARE(MDesktopEntry(write("[Desktop Entry]\nName[de]=D\n")).name(), QStringLiteral("D"));
}

void TestMDesktopEntry::nameAndOrganisationComeFromTheSandboxGroups_data()
{
    QTest::addColumn<QByteArray>("groups");
    QTest::addColumn<QString>("organisation");
    QTest::addColumn<QString>("name");

    const auto row = [](const char *title, const QByteArray &groups, const char *organisation,
                        const char *name) {
        QTest::newRow(title) << groups << QString::fromUtf8(organisation) << QString::fromUtf8(name);
    };
    row("X-Application", "[X-Application]\nOrganizationName=org.a\nApplicationName=A\n", "org.a", "A");
    row("X-Sailjail", "[X-Sailjail]\nOrganizationName=org.b\nApplicationName=B\n", "org.b", "B");
    row("Sailjail", "[Sailjail]\nOrganizationName=org.c\nApplicationName=C\n", "org.c", "C");
    row("order of the groups, not of the file",
        "[Sailjail]\nOrganizationName=org.c\nApplicationName=C\n[X-Sailjail]\nOrganizationName=org.b\n"
        "ApplicationName=B\n[X-Application]\nOrganizationName=org.a\nApplicationName=A\n",
        "org.a", "A");
    row("empty values are passed over",
        "[X-Application]\nOrganizationName=\n[X-Sailjail]\nOrganizationName=org.b\nApplicationName=\n["
        "Sailjail]\n"
        "ApplicationName=C\n",
        "org.b", "C");
    row("main group does not count", "OrganizationName=org.a\nApplicationName=A\n", "", "");
}

void TestMDesktopEntry::nameAndOrganisationComeFromTheSandboxGroups()
{
    QFETCH(QByteArray, groups);
    const MDesktopEntry entry(write("[Desktop Entry]\n" + groups));
    QVERIFY(entry.isValid());
    QTEST(entry.appOrgname(), "organisation");
    QTEST(entry.appName(), "name");
}

void TestMDesktopEntry::mimeParentsAreABoolean_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("support");

    QTest::newRow("true") << QByteArray("true") << true;
    QTest::newRow("false") << QByteArray("false") << false;
    QTest::newRow("yes") << QByteArray("yes") << false;
    QTest::newRow("capitals") << QByteArray("TRUE") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestMDesktopEntry::mimeParentsAreABoolean()
{
    QFETCH(QByteArray, value);
    const MDesktopEntry entry(write("[Desktop Entry]\nX-Solvane-Support-Mime-Parents=" + value + "\n"));
    QTEST(entry.supportMimeParents(), "support");
}

void TestMDesktopEntry::groupsKeepTheirOrder()
{
    const MDesktopEntry entry(
        write("[Desktop Entry]\nA=1\n[X-Task b]\n[X-Service a]\nA=2\n[X-Task b]\nB=3\n[X-Task ]\n"));
    QVERIFY(entry.isValid());
    QCOMPARE(entry.groups(),
             (QStringList { QStringLiteral("Desktop Entry"), QStringLiteral("X-Task b"),
                            QStringLiteral("X-Service a"), QStringLiteral("X-Task ") }));
    QCOMPARE(entry.value(QStringLiteral("X-Task b"), QStringLiteral("B")), QStringLiteral("3"));
}

void TestMDesktopEntry::malformedFileIsInvalidAndSaysWhy_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("no main group") << QByteArray("[Other]\nName=A\n");
    QTest::newRow("main group in other case") << QByteArray("[desktop entry]\nName=A\n");
    QTest::newRow("key before any group") << QByteArray("Name=A\n[Desktop Entry]\n");
    QTest::newRow("line without an equals sign") << QByteArray("[Desktop Entry]\nName\n");
    QTest::newRow("group not closed") << QByteArray("[Desktop Entry\nName=A\n");
    QTest::newRow("no key") << QByteArray("[Desktop Entry]\n=A\n");
    QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf[Desktop Entry]\nName=A\n");
    QTest::newRow("program") << QByteArray("\x7f"
                                           "ELF\x02\x01\x01\0\0\0\0\0\x03\0\x3e\0",
                                           16);
    QTest::newRow("zeros") << QByteArray(4096, '\0');
}

void TestMDesktopEntry::malformedFileIsInvalidAndSaysWhy()
{
    QFETCH(QByteArray, content);
    const QString path = write(content);
    const LogCapture log;
    const MDesktopEntry entry(path);
    QVERIFY(!entry.isValid());
    QCOMPARE(log.messages().size(), 1);
    QCOMPARE(log.messages(QtDebugMsg).size(), 1);
    const QString head = QStringLiteral("MDesktopEntry: not a valid desktop entry: \"%1\" \"").arg(path);
    QVERIFY2(log.messages().first().startsWith(head), qPrintable(log.messages().first()));
    QVERIFY(log.messages().first().length() > head.length() + 5);

    QCOMPARE(entry.fileName(), path);
    QCOMPARE(entry.name(), QString());
    QCOMPARE(entry.exec(), QString());
    QCOMPARE(entry.appName(), QString());
    QVERIFY(entry.mimeType().isEmpty());
    QVERIFY(!entry.supportMimeParents());
    QVERIFY(entry.groups().isEmpty());
}

void TestMDesktopEntry::whatIsNoFileIsInvalidAndDoesNotBlock()
{
    const QString fifo = m_dir.filePath(QStringLiteral("fifo.desktop"));
    QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QString directory = m_dir.filePath(QStringLiteral("directory.desktop"));
    QVERIFY(QDir().mkdir(directory));
    const QString link = m_dir.filePath(QStringLiteral("link.desktop"));
    QVERIFY(QFile::link(QStringLiteral("nowhere"), link));
    const QString loop = m_dir.filePath(QStringLiteral("loop.desktop"));
    QVERIFY(QFile::link(loop, loop));

    const LogCapture log;
    const QStringList paths { fifo,
                              directory,
                              link,
                              loop,
                              QStringLiteral("/dev/zero"),
                              QString(),
                              m_dir.filePath(QStringLiteral("missing.desktop")),
                              QStringLiteral("/") + QString(100000, QLatin1Char('x')) };
    for (const QString &path : paths) {
        QVERIFY2(!MDesktopEntry(path).isValid(), qPrintable(path));
    }
    QCOMPARE(log.messages(QtDebugMsg).size(), paths.size());
}

void TestMDesktopEntry::hugeFileIsInvalid()
{
    const QByteArray head("[Desktop Entry]\nName=A\n#");
    const LogCapture log;
    QVERIFY(MDesktopEntry(write(head + QByteArray(1024 * 1024 - head.size(), 'x'))).isValid());
    QVERIFY(!MDesktopEntry(write(head + QByteArray(1024 * 1024 - head.size() + 1, 'x'))).isValid());
    QCOMPARE(log.messages(QtDebugMsg).size(), 1);
}

void TestMDesktopEntry::noTruncatedFileDoesHarm()
{
    const QByteArray whole(
        "[Desktop Entry]\nType=Application\nName[de]=N\xc3\xb6tes\nExec=a \\\\b %u\nMimeType=a/b;c/d\\;;\n"
        "[X-Sailjail]\nOrganizationName=org.a\nApplicationName=A\n[X-Task s]\nPermissions=A;B\n");
    const LogCapture log;
    for (int length = 0; length < whole.size(); ++length) {
        const MDesktopEntry entry(write(whole.left(length)));
        entry.name();
        entry.exec();
        entry.mimeType();
        entry.appName();
        entry.stringListValue(QStringLiteral("X-Task s"), QStringLiteral("Permissions"));
        QCOMPARE(entry.isValid(), !entry.groups().isEmpty());
    }
}

QTEST_GUILESS_MAIN(TestMDesktopEntry)
#include "tst_mdesktopentry.moc"
