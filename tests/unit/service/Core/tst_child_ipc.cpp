#include "Core/child_ipc.h"

#include "child_fixture.h"

#include <QtTest>

#include <fcntl.h>
#include <sys/time.h>

using Core::ChildIPC;

namespace {

template<typename Number>
QByteArray raw(Number number)
{
    return QByteArray(reinterpret_cast<const char *>(&number), sizeof(number));
}

QByteArray byteString(const QByteArray &data)
{
    return raw<quint64>(data.size()) + data;
}

/// The bytes of a string with the NUL behind them.
QByteArray terminated(const QByteArray &text)
{
    return QByteArray(text.constData(), text.size() + 1);
}

/// The read end of a pipe that holds the given bytes and then its end.
class FilledPipe
{
public:
    explicit FilledPipe(const QByteArray &bytes)
    {
        int fds[2] = { -1, -1 };
        m_complete = ::pipe2(fds, O_CLOEXEC) == 0
            && ::write(fds[1], bytes.constData(), static_cast<size_t>(bytes.size())) == bytes.size();
        ::close(fds[1]);
        m_readEnd = fds[0];
    }
    ~FilledPipe() { ::close(m_readEnd); }
    FilledPipe(const FilledPipe &) = delete;
    FilledPipe &operator=(const FilledPipe &) = delete;

    bool isComplete() const { return m_complete; }
    int fd() const { return m_readEnd; }

private:
    bool m_complete = false;
    int m_readEnd = -1;
};

enum Read { Int, Bytes, List };

} // namespace

Q_DECLARE_METATYPE(Read)

class TestChildIPC : public QObject
{
    Q_OBJECT

private slots:
    void integersAreReadWithTheirSign();
    void byteStringMayFillTheBuffer();
    void emptyByteStringIsRead();
    void bytesAreReadAsTheyAre();
    void listPointsIntoTheBuffer();
    void emptyListIsClosed();
    void listMayFillArrayAndBuffer();
    void failedReadEndsTheChild_data();
    void failedReadEndsTheChild();
    void interruptedReadCountsAsFailed();
    void dieWritesItsTextAndSkipsExitHandlers();
};

void TestChildIPC::integersAreReadWithTheirSign()
{
    const FilledPipe pipe(raw<qint32>(7) + raw<qint32>(-1) + raw<qint32>(std::numeric_limits<qint32>::min()));
    QVERIFY(pipe.isComplete());
    ChildIPC ipc(pipe.fd());
    QCOMPARE(ipc.readInt(), 7);
    QCOMPARE(ipc.readInt(), -1);
    QCOMPARE(ipc.readInt(), std::numeric_limits<qint32>::min());
}

void TestChildIPC::byteStringMayFillTheBuffer()
{
    const FilledPipe pipe(byteString("12345678"));
    QVERIFY(pipe.isComplete());
    char buffer[8];
    QCOMPARE(ChildIPC(pipe.fd()).readBytes(buffer, sizeof(buffer)), size_t(8));
    QCOMPARE(QByteArray(buffer, 8), QByteArray("12345678"));
}

void TestChildIPC::emptyByteStringIsRead()
{
    const FilledPipe pipe(byteString(QByteArray()) + raw<qint32>(42));
    QVERIFY(pipe.isComplete());
    ChildIPC ipc(pipe.fd());
    char buffer[1] = { 'x' };
    QCOMPARE(ipc.readBytes(buffer, 0), size_t(0));
    QCOMPARE(buffer[0], 'x');
    QCOMPARE(ipc.readInt(), 42);
}

void TestChildIPC::bytesAreReadAsTheyAre()
{
    const QByteArray data("a\0\xff\n", 4);
    const FilledPipe pipe(byteString(data));
    QVERIFY(pipe.isComplete());
    char buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), 'x');
    QCOMPARE(ChildIPC(pipe.fd()).readBytes(buffer, sizeof(buffer)), size_t(4));
    // No NUL is added behind them.
    QCOMPARE(QByteArray(buffer, 5), data + 'x');
}

void TestChildIPC::listPointsIntoTheBuffer()
{
    const FilledPipe pipe(raw<qint32>(3) + byteString(terminated("first")) + byteString(terminated(""))
                          + byteString(terminated("third")));
    QVERIFY(pipe.isComplete());
    char *strings[8];
    char buffer[64];
    ChildIPC(pipe.fd()).readStringList(strings, 8, buffer, sizeof(buffer));
    QCOMPARE(strings[0], buffer);
    QCOMPARE(QByteArray(strings[0]), QByteArray("first"));
    QCOMPARE(strings[1], buffer + 6);
    QCOMPARE(QByteArray(strings[1]), QByteArray(""));
    QCOMPARE(strings[2], buffer + 7);
    QCOMPARE(QByteArray(strings[2]), QByteArray("third"));
    QCOMPARE(strings[3], nullptr);
}

void TestChildIPC::emptyListIsClosed()
{
    const FilledPipe pipe(raw<qint32>(0));
    QVERIFY(pipe.isComplete());
    char buffer[1];
    char *strings[1] = { buffer };
    ChildIPC(pipe.fd()).readStringList(strings, 1, buffer, sizeof(buffer));
    QCOMPARE(strings[0], nullptr);
}

void TestChildIPC::listMayFillArrayAndBuffer()
{
    const FilledPipe pipe(raw<qint32>(2) + byteString(terminated("ab")) + byteString(terminated("c")));
    QVERIFY(pipe.isComplete());
    char *strings[3];
    char buffer[5];
    ChildIPC(pipe.fd()).readStringList(strings, 3, buffer, sizeof(buffer));
    QCOMPARE(QByteArray(strings[0]), QByteArray("ab"));
    QCOMPARE(QByteArray(strings[1]), QByteArray("c"));
    QCOMPARE(strings[2], nullptr);
}

void TestChildIPC::failedReadEndsTheChild_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Read>("read");
    QTest::addColumn<QByteArray>("text");

    // The array of the test takes 3 strings and the null pointer, the buffers 8 bytes.
    const QByteArray shortInt("Coudn't read int value\n");
    QTest::newRow("integer: end of the pipe") << QByteArray() << Int << shortInt;
    QTest::newRow("integer: 3 of 4 bytes") << raw<qint32>(7).left(3) << Int << shortInt;

    const QByteArray shortLength("Coudn't read string length\n");
    const QByteArray tooSmall("Buffer too small\n");
    const QByteArray shortData("couldn't read string data");
    QTest::newRow("bytes: end of the pipe") << QByteArray() << Bytes << shortLength;
    QTest::newRow("bytes: 7 of the length's 8 bytes") << raw<quint64>(7).left(7) << Bytes << shortLength;
    QTest::newRow("bytes: one too many") << byteString("123456789") << Bytes << tooSmall;
    QTest::newRow("bytes: largest length") << raw(std::numeric_limits<quint64>::max()) << Bytes << tooSmall;
    QTest::newRow("bytes: data missing") << raw<quint64>(7) << Bytes << shortData;
    QTest::newRow("bytes: data short") << raw<quint64>(7) + "123456" << Bytes << shortData;

    const QByteArray shortCount("Coudn't read number of variables\n");
    const QByteArray tooMany("Buffer not large enough to read the variables\n");
    QTest::newRow("list: end of the pipe") << QByteArray() << List << shortCount;
    QTest::newRow("list: 2 of the count's 4 bytes") << raw<qint32>(1).left(2) << List << shortCount;
    QTest::newRow("list: one string too many") << raw<qint32>(4) << List << tooMany;
    QTest::newRow("list: largest count") << raw(std::numeric_limits<qint32>::max()) << List << tooMany;
    QTest::newRow("list: count -1") << raw<qint32>(-1) << List << tooMany;
    QTest::newRow("list: smallest count") << raw(std::numeric_limits<qint32>::min()) << List << tooMany;
    QTest::newRow("list: string missing")
        << raw<qint32>(2) + byteString(terminated("a")) << List << shortLength;
    QTest::newRow("list: bytes of both strings too many") << raw<qint32>(2) + byteString(terminated("1234"))
            + byteString(terminated("123")) << List << tooSmall;
}

void TestChildIPC::failedReadEndsTheChild()
{
    QFETCH(QByteArray, bytes);
    QFETCH(Read, read);
    QFETCH(QByteArray, text);
    const FilledPipe pipe(bytes);
    QVERIFY(pipe.isComplete());

    const Outcome outcome = runInFork([&] {
        ChildIPC ipc(pipe.fd());
        char *strings[4];
        char buffer[8];
        switch (read) {
        case Int:
            (void)ipc.readInt();
            break;
        case Bytes:
            ipc.readBytes(buffer, sizeof(buffer));
            break;
        case List:
            ipc.readStringList(strings, 4, buffer, sizeof(buffer));
            break;
        }
    });
    QCOMPARE(outcome.errors, text);
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
    QCOMPARE(outcome.output, QByteArray());
}

void TestChildIPC::interruptedReadCountsAsFailed()
{
    int fds[2];
    QCOMPARE(::pipe2(fds, O_CLOEXEC), 0);
    const Outcome outcome = runInFork([&fds] {
        const Disposition handler(SIGALRM, [](int) {});
        // Again and again, so that one of them finds the read begun.
        const itimerval every = { { 0, 10000 }, { 0, 10000 } };
        ::setitimer(ITIMER_REAL, &every, nullptr);
        (void)ChildIPC(fds[0]).readInt();
    });
    ::close(fds[0]);
    ::close(fds[1]);
    QCOMPARE(outcome.errors, QByteArray("Coudn't read int value\n"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

void TestChildIPC::dieWritesItsTextAndSkipsExitHandlers()
{
    const Outcome outcome = runInFork([] {
        ::atexit([] { [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, "handler", 7); });
        ChildIPC::die("text without a line feed");
    });
    QCOMPARE(outcome.errors, QByteArray("text without a line feed"));
    QCOMPARE(outcome.status, W_EXITCODE(1, 0));
}

QTEST_GUILESS_MAIN(TestChildIPC)

#include "tst_child_ipc.moc"
