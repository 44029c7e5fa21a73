#include "backgroundactivity.h"

#include "support/log_capture.h"
#include "support/private_bus.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QProcess>
#include <QtTest>

#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using TestSupport::LogCapture;
using TestSupport::PrivateBus;

namespace {

const QString service = QStringLiteral("org.freedesktop.login1");
const QString path = QStringLiteral("/org/freedesktop/login1");

/// Descriptors of this process that refer to a file.
QList<int> descriptorsOf(const struct stat &file)
{
    QList<int> result;
    const QStringList open = QDir(QStringLiteral("/proc/self/fd"))
                                 .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &number : open) {
        struct stat other
        {
        };
        const int descriptor = number.toInt();
        if (fstat(descriptor, &other) == 0 && other.st_ino == file.st_ino && other.st_dev == file.st_dev) {
            result << descriptor;
        }
    }
    return result;
}

} // namespace

// In logind's place: each inhibitor is a pipe, and it holds until every copy of the write end is closed.
class FakeLogind : public QObject, public QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    enum Answer { AtOnce, Later, Refuse };

    ~FakeLogind() override
    {
        for (const int end : pipes) {
            close(end);
        }
    }

    int held() const
    {
        int count = 0;
        for (const int end : pipes) {
            pollfd ends { end, POLLIN, 0 };
            count += poll(&ends, 1, 0) == 0 ? 1 : 0;
        }
        return count;
    }

    bool hasWaiting() const { return waiting.type() == QDBusMessage::MethodCallMessage; }

    void answer()
    {
        QDBusConnection(connectionName).send(waiting.createReply(QVariant::fromValue(inhibitor())));
        waiting = QDBusMessage();
    }

    Answer mode = AtOnce;
    QList<QStringList> calls;
    std::vector<int> pipes; // read ends

public slots:
    QDBusUnixFileDescriptor Inhibit(const QString &what, const QString &who, const QString &why, // NOLINT
                                    const QString &how)
    {
        calls.append({ what, who, why, how });
        switch (mode) {
        case AtOnce:
            return inhibitor();
        case Later:
            setDelayedReply(true);
            waiting = message();
            connectionName = connection().name();
            break;
        case Refuse:
            sendErrorReply(QDBusError::AccessDenied, QStringLiteral("not now"));
            break;
        }
        return QDBusUnixFileDescriptor();
    }

private:
    QDBusUnixFileDescriptor inhibitor()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            qFatal("pipe2");
        }
        pipes.push_back(ends[0]);
        QDBusUnixFileDescriptor descriptor;
        descriptor.giveFileDescriptor(ends[1]);
        return descriptor;
    }

    QDBusMessage waiting;
    QString connectionName;
};

// Takes an inhibitor on the same connection as the activities do, but without them: its call comes behind
// theirs, and once its answer is there, so are the answers to theirs.
class Bystander
{
public:
    void run()
    {
        QDBusMessage call = QDBusMessage::createMethodCall(
            service, path, QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
        call << QString() << QString() << QString() << QString();
        reply = std::make_unique<QDBusPendingReply<QDBusUnixFileDescriptor>>(
            QDBusConnection::systemBus().asyncCall(call));
    }

    bool isAnswered() const { return reply->isFinished(); }

    void stop() { reply.reset(); }

private:
    std::unique_ptr<QDBusPendingReply<QDBusUnixFileDescriptor>> reply;
};

class tst_BackgroundActivity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void runTakesOneInhibitor();
    void runTwiceIsOnce();
    void stopReleases();
    void stopWithoutRunDoesNothing();
    void stopTwiceDoesNothing();
    void runAfterStopTakesAnother();
    void destructionReleases();
    void twoObjectsShareOneInhibitor();
    void childDoesNotInheritTheInhibitor();

    void runDoesNotBlock();
    void stopBeforeTheAnswerReleasesWhenItComes();
    void runAgainBeforeTheAnswerUsesIt();
    void destructionBeforeTheAnswerReleasesWhenItComes();

    void refusalWarnsOnce();
    void refusedIsAskedAgainAtTheNextRun();
    void withoutLogindWarnsOnce();
    void vanishedLogindWarns();
    void withRealisticLogind();
    void withoutABusWarns();

private:
    void startLogind();
    void stopLogind();

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<FakeLogind> m_logind;
    std::unique_ptr<QDBusConnection> m_connection; // logind's
};

void tst_BackgroundActivity::initTestCase()
{
    QCoreApplication::setApplicationName(QStringLiteral("procwarden"));
    m_bus = std::make_unique<PrivateBus>();
    m_bus->useAsSystemBus();
}

void tst_BackgroundActivity::init()
{
    startLogind();
}

void tst_BackgroundActivity::cleanup()
{
    stopLogind();
}

void tst_BackgroundActivity::startLogind()
{
    m_logind = std::make_unique<FakeLogind>();
    m_connection = std::make_unique<QDBusConnection>(m_bus->connect());
    QVERIFY(m_connection->registerObject(path, m_logind.get(), QDBusConnection::ExportAllSlots));
    QVERIFY(m_connection->registerService(service));
}

void tst_BackgroundActivity::stopLogind()
{
    if (m_connection) {
        m_connection->unregisterService(service);
        m_bus->disconnect(*m_connection);
    }
    m_connection.reset();
    m_logind.reset();
}

void tst_BackgroundActivity::runTakesOneInhibitor()
{
    BackgroundActivity activity;
    QCOMPARE(m_logind->calls.size(), 0);
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    QCOMPARE(m_logind->calls.size(), 1);
    const QStringList expected { QStringLiteral("sleep"), QStringLiteral("procwarden"),
                                 QStringLiteral("Background activity"), QStringLiteral("block") };
    QCOMPARE(m_logind->calls.first(), expected);
}

void tst_BackgroundActivity::runTwiceIsOnce()
{
    BackgroundActivity activity;
    activity.run();
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.run();
    // The other object's call comes behind whatever this one has sent.
    Bystander other;
    other.run();
    QTRY_COMPARE(m_logind->held(), 2);
    QCOMPARE(m_logind->calls.size(), 2);
    activity.stop();
    QTRY_COMPARE(m_logind->held(), 1);
}

void tst_BackgroundActivity::stopReleases()
{
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.stop();
    QTRY_COMPARE(m_logind->held(), 0);
}

void tst_BackgroundActivity::stopWithoutRunDoesNothing()
{
    const LogCapture log;
    BackgroundActivity activity;
    activity.stop();
    QCOMPARE(log.messages(), QStringList());
}

void tst_BackgroundActivity::stopTwiceDoesNothing()
{
    const LogCapture log;
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.stop();
    activity.stop();
    QTRY_COMPARE(m_logind->held(), 0);
    QCOMPARE(log.messages(), QStringList());
}

void tst_BackgroundActivity::runAfterStopTakesAnother()
{
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.stop();
    QTRY_COMPARE(m_logind->held(), 0);
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    QCOMPARE(m_logind->calls.size(), 2);
}

void tst_BackgroundActivity::destructionReleases()
{
    auto activity = std::make_unique<BackgroundActivity>();
    activity->run();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.reset();
    QTRY_COMPARE(m_logind->held(), 0);
}

void tst_BackgroundActivity::twoObjectsShareOneInhibitor()
{
    BackgroundActivity one;
    BackgroundActivity two;
    one.run();
    two.run();
    QTRY_COMPARE(m_logind->held(), 1);
    one.stop();
    Bystander other;
    other.run();
    QTRY_VERIFY(other.isAnswered());
    QCOMPARE(m_logind->calls.size(), 2); // the other one's among them
    other.stop();
    QTRY_COMPARE(m_logind->held(), 1);
    two.stop();
    QTRY_COMPARE(m_logind->held(), 0);
}

void tst_BackgroundActivity::childDoesNotInheritTheInhibitor()
{
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);

    struct stat inhibitor
    {
    };
    QCOMPARE(fstat(m_logind->pipes.front(), &inhibitor), 0);
    // The end that is kept for logind is one, the end that the answer brings is the other.
    QTRY_VERIFY(descriptorsOf(inhibitor).size() >= 2);
    const QList<int> open = descriptorsOf(inhibitor);
    for (const int descriptor : open) {
        QVERIFY(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
    }
}

void tst_BackgroundActivity::runDoesNotBlock()
{
    m_logind->mode = FakeLogind::Later;
    BackgroundActivity activity;
    activity.run(); // the answer can come only from this thread
    QTRY_VERIFY(m_logind->hasWaiting());
    QCOMPARE(m_logind->held(), 0);
    m_logind->answer();
    QCOMPARE(m_logind->held(), 1);

    // It is really kept, and is not only still under way: the answer to a later call has come.
    m_logind->mode = FakeLogind::AtOnce;
    Bystander other;
    other.run();
    QTRY_COMPARE(m_logind->held(), 2);
    other.stop();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.stop();
    QTRY_COMPARE(m_logind->held(), 0);
}

void tst_BackgroundActivity::stopBeforeTheAnswerReleasesWhenItComes()
{
    const LogCapture log;
    m_logind->mode = FakeLogind::Later;
    BackgroundActivity activity;
    activity.run();
    QTRY_VERIFY(m_logind->hasWaiting());
    activity.stop();
    m_logind->answer();
    QCOMPARE(m_logind->held(), 1);
    QTRY_COMPARE(m_logind->held(), 0);
    QCOMPARE(log.messages(), QStringList());

    // Nothing is left of it: the next run asks again.
    m_logind->mode = FakeLogind::AtOnce;
    activity.run();
    QTRY_COMPARE(m_logind->held(), 1);
    QCOMPARE(m_logind->calls.size(), 2);
}

void tst_BackgroundActivity::runAgainBeforeTheAnswerUsesIt()
{
    m_logind->mode = FakeLogind::Later;
    BackgroundActivity activity;
    activity.run();
    QTRY_VERIFY(m_logind->hasWaiting());
    activity.stop();
    activity.run();
    m_logind->answer();

    m_logind->mode = FakeLogind::AtOnce;
    Bystander other;
    other.run();
    QTRY_COMPARE(m_logind->held(), 2);
    QCOMPARE(m_logind->calls.size(), 2);
    other.stop();
    QTRY_COMPARE(m_logind->held(), 1);
    activity.stop();
    QTRY_COMPARE(m_logind->held(), 0);
}

void tst_BackgroundActivity::destructionBeforeTheAnswerReleasesWhenItComes()
{
    m_logind->mode = FakeLogind::Later;
    auto activity = std::make_unique<BackgroundActivity>();
    activity->run();
    QTRY_VERIFY(m_logind->hasWaiting());
    activity.reset();
    m_logind->answer();
    QCOMPARE(m_logind->pipes.size(), size_t(1));
    QTRY_COMPARE(m_logind->held(), 0);
}

void tst_BackgroundActivity::refusalWarnsOnce()
{
    const LogCapture log;
    BackgroundActivity activity;
    for (int round = 1; round <= 3; ++round) {
        m_logind->mode = FakeLogind::Refuse;
        activity.run();
        QTRY_COMPARE(m_logind->calls.size(), 2 * round - 1);
        // The answer to the other object's call comes behind the refusal.
        m_logind->mode = FakeLogind::AtOnce;
        Bystander other;
        other.run();
        QTRY_COMPARE(m_logind->held(), 1);
        other.stop();
        QTRY_COMPARE(m_logind->held(), 0);
        activity.stop();
    }
    QCOMPARE(log.messages(),
             QStringList(QStringLiteral("Cannot keep the device from suspending: \"not now\"")));
}

void tst_BackgroundActivity::refusedIsAskedAgainAtTheNextRun()
{
    const LogCapture log;
    m_logind->mode = FakeLogind::Refuse;
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(log.warnings().size(), 1);
    m_logind->mode = FakeLogind::AtOnce;
    activity.run(); // no next one: it runs, although in vain
    Bystander other;
    other.run();
    QTRY_COMPARE(m_logind->held(), 1);
    QCOMPARE(m_logind->calls.size(), 2);

    activity.stop();
    activity.run();
    QTRY_COMPARE(m_logind->held(), 2);
}

void tst_BackgroundActivity::withoutLogindWarnsOnce()
{
    stopLogind();
    const LogCapture log;
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(log.warnings().size(), 1);
    QVERIFY(log.warnings().first().startsWith(QLatin1String("Cannot keep the device from suspending:")));
    activity.stop();
    activity.run();
    activity.stop();

    // What came of the second run is known when the answer to a later call is there.
    startLogind();
    Bystander other;
    other.run();
    QTRY_COMPARE(m_logind->held(), 1);
    other.stop();
    QTRY_COMPARE(m_logind->held(), 0);
    QCOMPARE(log.messages().size(), 1);
}

void tst_BackgroundActivity::vanishedLogindWarns()
{
    const LogCapture log;
    m_logind->mode = FakeLogind::Later;
    BackgroundActivity activity;
    activity.run();
    QTRY_VERIFY(m_logind->hasWaiting());
    stopLogind();
    QTRY_COMPARE(log.warnings().size(), 1);
}

void tst_BackgroundActivity::withRealisticLogind()
{
    stopLogind();
    if (!QFile::exists(QStringLiteral("/usr/lib/python3/dist-packages/dbusmock/templates/logind.py"))) {
        QSKIP("python3-dbusmock is not installed");
    }
    QProcess mock;
    mock.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    mock.start(QStringLiteral("/usr/bin/python3"),
               { QStringLiteral("-m"), QStringLiteral("dbusmock"), QStringLiteral("--template"),
                 QStringLiteral("logind") });
    QVERIFY(mock.waitForStarted());
    const QDBusConnection client = m_bus->connect();
    const auto inhibitors = [&client] {
        const QDBusMessage reply = client.call(
            QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.login1.Manager"),
                                           QStringLiteral("ListInhibitors")));
        if (reply.type() != QDBusMessage::ReplyMessage) {
            return -1; // not there yet
        }
        const auto list = reply.arguments().first().value<QDBusArgument>();
        int count = 0;
        list.beginArray();
        while (!list.atEnd()) {
            list.asVariant();
            ++count;
        }
        list.endArray();
        return count;
    };
    QTRY_COMPARE_WITH_TIMEOUT(inhibitors(), 0, 20000);

    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(inhibitors(), 1);
    activity.stop();
    QTRY_COMPARE(inhibitors(), 0);
    mock.terminate();
    QVERIFY(mock.waitForFinished());
}

void tst_BackgroundActivity::withoutABusWarns()
{
    // The last function: the connection to the system bus is lost for the whole process.
    stopLogind();
    m_bus->stop();
    QTRY_VERIFY(!QDBusConnection::systemBus().isConnected());
    const LogCapture log;
    BackgroundActivity activity;
    activity.run();
    QTRY_COMPARE(log.warnings().size(), 1);
    activity.stop();
}

QTEST_GUILESS_MAIN(tst_BackgroundActivity)
#include "tst_backgroundactivity.moc"
