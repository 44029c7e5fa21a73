#include "Core/kernel_file.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <string>

#include <sys/stat.h>

using Core::KernelFile;
using Core::parseDecimal;

namespace {

constexpr int buffer = 8192;

QByteArray toBytes(std::string_view text)
{
    return QByteArray(text.data(), int(text.size()));
}

} // namespace

class tst_KernelFile : public QObject
{
    Q_OBJECT

private slots:
    void linesAreReadOneByOne_data();
    void linesAreReadOneByOne();
    void overlongLineIsCutAndItsRestLeftOut_data();
    void overlongLineIsCutAndItsRestLeftOut();
    void whatNeverEndsIsGivenUp();
    void whatCannotBeOpenedIsEmpty_data();
    void whatCannotBeOpenedIsEmpty();
    void whatOpensAndCannotBeReadIsEmpty();
    void nobodyIsWaitedFor();
    void filesOfTheKernelAreRead();
    void onlyADecimalIntegerIsANumber_data();
    void onlyADecimalIntegerIsANumber();
    void descriptorIsClosed();

private:
    QByteArray write(const QByteArray &content);
    static QList<QByteArray> linesOf(const QByteArray &path);

    QTemporaryDir m_directory;
};

QByteArray tst_KernelFile::write(const QByteArray &content)
{
    QFile file(m_directory.filePath(QStringLiteral("file")));
    if (!file.open(QFile::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write a file");
    }
    return QFile::encodeName(file.fileName());
}

QList<QByteArray> tst_KernelFile::linesOf(const QByteArray &path)
{
    KernelFile file(path);
    QList<QByteArray> lines;
    std::string_view line;
    while (file.readLine(&line)) {
        lines.append(toBytes(line));
    }
    return lines;
}

void tst_KernelFile::linesAreReadOneByOne_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QList<QByteArray>>("lines");

    using Lines = QList<QByteArray>;
    QTest::newRow("empty") << QByteArray() << Lines();
    QTest::newRow("one line") << QByteArray("one\n") << Lines { "one" };
    QTest::newRow("no final line feed") << QByteArray("one\ntwo") << Lines { "one", "two" };
    QTest::newRow("empty lines") << QByteArray("\n\none\n\n") << Lines { "", "", "one", "" };
    QTest::newRow("blanks are kept") << QByteArray(" one \r\n") << Lines { " one \r" };
    QTest::newRow("zeroes") << QByteArray("a\0b\n", 4) << Lines { QByteArray("a\0b", 3) };
    const QByteArray whole(buffer - 1, 'x');
    QTest::newRow("as long as the buffer") << whole + "\ny" << Lines { whole, "y" };
    const QByteArray most(buffer - 3, 'x');
    QTest::newRow("over the buffer's end") << most + "\n12345\n6\n" << Lines { most, "12345", "6" };

    QByteArray content;
    Lines many;
    for (int number = 0; number < 20000; ++number) {
        many.append(QByteArray::number(number));
        content += many.last() + '\n';
    }
    QTest::newRow("thousands") << content << many;
}

void tst_KernelFile::linesAreReadOneByOne()
{
    QFETCH(QByteArray, content);
    const QByteArray path = write(content);
    QVERIFY(KernelFile(path).isOpen());
    QTEST(linesOf(path), "lines");
}

void tst_KernelFile::overlongLineIsCutAndItsRestLeftOut_data()
{
    QTest::addColumn<int>("length");

    QTest::newRow("by one") << buffer + 1;
    QTest::newRow("by several buffers") << 5 * buffer + 17;
}

void tst_KernelFile::overlongLineIsCutAndItsRestLeftOut()
{
    QFETCH(int, length);
    // The end of the line must not be taken for a line, which would be a number here.
    const QByteArray overlong = QByteArray(length - 1, 'x') + '7';
    const QList<QByteArray> cut = { "1", QByteArray(buffer, 'x'), "2" };
    QCOMPARE(linesOf(write("1\n" + overlong + "\n2\n")), cut);
    QCOMPARE(linesOf(write("1\n" + overlong)), cut.mid(0, 2));
}

void tst_KernelFile::whatNeverEndsIsGivenUp()
{
    const QList<QByteArray> lines = linesOf("/dev/zero");
    QCOMPARE(lines, (QList<QByteArray> { QByteArray(buffer, '\0') }));
    QVERIFY(!KernelFile("/dev/zero").number());
}

void tst_KernelFile::whatCannotBeOpenedIsEmpty_data()
{
    QTest::addColumn<QByteArray>("path");

    QTest::newRow("no such file") << QByteArray("/proc/self/no-such-file");
    QTest::newRow("directory") << QByteArray("/proc");
    QTest::newRow("below a file") << QByteArray("/proc/self/status/x");
    QTest::newRow("too long") << QByteArray(5000, 'x');
    QTest::newRow("no path") << QByteArray();
}

void tst_KernelFile::whatCannotBeOpenedIsEmpty()
{
    QFETCH(QByteArray, path);
    const KernelFile file(path);
    QVERIFY(!file.isOpen());
    QVERIFY(!file.number());
    QCOMPARE(linesOf(path), QList<QByteArray>());
}

void tst_KernelFile::whatOpensAndCannotBeReadIsEmpty()
{
    // Nothing is mapped at its beginning.
    const QByteArray path = "/proc/self/mem";
    const KernelFile file(path);
    QVERIFY(file.isOpen());
    QVERIFY(!file.number());
    QCOMPARE(linesOf(path), QList<QByteArray>());
}

void tst_KernelFile::nobodyIsWaitedFor()
{
    const QByteArray path = QFile::encodeName(m_directory.filePath(QStringLiteral("fifo")));
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    QCOMPARE(linesOf(path), QList<QByteArray>());
}

void tst_KernelFile::filesOfTheKernelAreRead()
{
    QVERIFY(linesOf("/proc/self/status")
                .contains("Pid:\t" + QByteArray::number(QCoreApplication::applicationPid())));
    const auto score = KernelFile("/proc/self/oom_score").number();
    QVERIFY(score && *score >= 0);
}

void tst_KernelFile::onlyADecimalIntegerIsANumber_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QVariant>("number");

    const auto row = [](const char *name, const QByteArray &text, const QVariant &number = {}) {
        QTest::newRow(name) << text << number;
    };
    row("plain", "42", 42);
    row("line feed", "42\n", 42);
    row("blanks around", " \t42 \r\n\n", 42);
    row("negative", "-1000\n", -1000);
    row("greatest", "2147483647", 2147483647);
    row("least", "-2147483648", -2147483647 - 1);
    row("beyond", "2147483648");
    row("leading zeroes", "010", 10);
    row("empty", "");
    row("blanks", " \n");
    row("text", "many");
    row("text behind", "1x");
    row("two", "1 2");
    row("hexadecimal", "0x10");
    row("fraction", "1.0");
    row("only a sign", "-");
    row("two signs", "--1");
    row("zero byte behind", QByteArray("1\0", 2));
    row("zero byte before more", QByteArray("1\0002", 3));
}

void tst_KernelFile::onlyADecimalIntegerIsANumber()
{
    QFETCH(QByteArray, text);
    QFETCH(QVariant, number);
    const auto seen = [](const std::optional<int> &value) {
        return value ? QVariant(*value) : QVariant();
    };
    QCOMPARE(seen(parseDecimal(std::string_view(text.constData(), size_t(text.size())))), number);
    QCOMPARE(seen(KernelFile(write(text)).number()), number);
}

void tst_KernelFile::descriptorIsClosed()
{
    const auto open = [] {
        return QDir(QStringLiteral("/proc/self/fd"))
            .entryList(QDir::System | QDir::Files | QDir::Dirs)
            .size();
    };
    const int before = open();
    for (const char *path : { "/proc/self/status", "/proc", "/no/such/file" }) {
        QCOMPARE(linesOf(path).isEmpty(), qstrcmp(path, "/proc/self/status") != 0);
    }
    QCOMPARE(open(), before);
}

QTEST_APPLESS_MAIN(tst_KernelFile)
#include "tst_kernel_file.moc"
