#include "Core/file_descriptor.h"

#include <QDir>
#include <QVariant>
#include <QtTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using Core::FileDescriptor;

namespace {

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

bool isOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

} // namespace

class tst_FileDescriptor : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void defaultIsNone();
    void numberIsDuplicated();
    void duplicateIsNotInherited();
    void lastCopyCloses();
    void assignmentGivesUpWhatWasHeld();
    void vectorFitsInAVariant();
    void whatCannotBeDuplicatedIsNone_data();
    void whatCannotBeDuplicatedIsNone();
    void exhaustedTableGivesNone();

private:
    int m_descriptor = -1;
    int m_before = 0;
};

void tst_FileDescriptor::initTestCase()
{
    openDescriptors(); // Qt may open something the first time
}

void tst_FileDescriptor::init()
{
    m_before = openDescriptors();
    m_descriptor = open("/dev/null", O_RDWR);
    QVERIFY(m_descriptor >= 0);
}

void tst_FileDescriptor::cleanup()
{
    close(m_descriptor);
    QCOMPARE(openDescriptors(), m_before);
}

void tst_FileDescriptor::defaultIsNone()
{
    const FileDescriptor none;
    QVERIFY(!none.isValid());
    QCOMPARE(none.fileDescriptor(), -1);
}

void tst_FileDescriptor::numberIsDuplicated()
{
    const FileDescriptor descriptor(m_descriptor);
    QVERIFY(descriptor.isValid());
    QVERIFY(descriptor.fileDescriptor() != m_descriptor);
    struct stat one
    {
    };
    struct stat other
    {
    };
    QCOMPARE(fstat(m_descriptor, &one), 0);
    QCOMPARE(fstat(descriptor.fileDescriptor(), &other), 0);
    QCOMPARE(other.st_ino, one.st_ino);
    QCOMPARE(other.st_rdev, one.st_rdev);
}

void tst_FileDescriptor::duplicateIsNotInherited()
{
    const FileDescriptor descriptor(m_descriptor);
    QCOMPARE(fcntl(descriptor.fileDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

void tst_FileDescriptor::lastCopyCloses()
{
    auto first = std::make_unique<FileDescriptor>(m_descriptor);
    const int number = first->fileDescriptor();
    {
        const FileDescriptor second = *first;
        QCOMPARE(second.fileDescriptor(), number);
        first.reset();
        QVERIFY(isOpen(number));
    }
    QVERIFY(!isOpen(number));
    QVERIFY(isOpen(m_descriptor));
}

void tst_FileDescriptor::assignmentGivesUpWhatWasHeld()
{
    FileDescriptor descriptor(m_descriptor);
    const int number = descriptor.fileDescriptor();
    const FileDescriptor other(m_descriptor);
    descriptor = other;
    QVERIFY(!isOpen(number));
    QCOMPARE(descriptor.fileDescriptor(), other.fileDescriptor());
}

void tst_FileDescriptor::vectorFitsInAVariant()
{
    int number = -1;
    {
        QVariantMap hints;
        hints.insert(QStringLiteral("readFds"),
                     QVariant::fromValue(QVector<FileDescriptor> { FileDescriptor(m_descriptor) }));
        const QVariantMap copy = hints;
        hints.clear();
        const auto vector = copy.value(QStringLiteral("readFds")).value<QVector<FileDescriptor>>();
        QCOMPARE(vector.size(), 1);
        number = vector.first().fileDescriptor();
        QVERIFY(isOpen(number));
    }
    QVERIFY(!isOpen(number));
    // What is something else converts to none.
    QVERIFY(QVariant(QStringList { QStringLiteral("1") }).value<QVector<FileDescriptor>>().isEmpty());
}

void tst_FileDescriptor::whatCannotBeDuplicatedIsNone_data()
{
    QTest::addColumn<int>("number");
    QTest::newRow("none") << -1;
    QTest::newRow("closed") << 987654;
    QTest::newRow("smallest") << std::numeric_limits<int>::min();
}

void tst_FileDescriptor::whatCannotBeDuplicatedIsNone()
{
    QFETCH(int, number);
    const FileDescriptor descriptor(number);
    QVERIFY(!descriptor.isValid());
    QCOMPARE(descriptor.fileDescriptor(), -1);
}

void tst_FileDescriptor::exhaustedTableGivesNone()
{
    rlimit before {};
    QCOMPARE(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit full { static_cast<rlim_t>(m_descriptor) + 1, before.rlim_max };
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &full), 0);
    QVector<FileDescriptor> descriptors;
    for (int i = 0; i <= m_descriptor; ++i) { // also where there are gaps
        descriptors.append(FileDescriptor(m_descriptor));
    }
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &before), 0);
    QVERIFY(!descriptors.last().isValid());
}

QTEST_APPLESS_MAIN(tst_FileDescriptor)
#include "tst_file_descriptor.moc"
