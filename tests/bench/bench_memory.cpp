// What looking after the memory costs:
//
//   level  one reading of the memory's level: time, allocations
//   pass   who would be killed, over records of five processes each; against earlyoom's own search among the
//          same processes, timed inside it from the opening of /proc to its closing; and against doing
//          nothing but opening, reading and closing the files that have to be read, which is the kernel's
//          share
//
// usage: bench_memory level READINGS
//        unshare --pid --fork --kill-child --mount-proc bench_memory pass RECORDS GROUP STAMPS-LIBRARY
//
// The second needs root and a memory hierarchy of version 1, in which GROUP is an empty directory; its caller
// removes what is left there. In a process namespace of its own, there is nothing but the processes that it
// makes.

#include "Core/candidate.h"
#include "Core/oom_controller.h"

#include "measuring.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

long allocations = 0;

} // namespace

// Of everything in the process, Qt's too.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): glibc's names for what is replaced here
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void *malloc(size_t size)
{
    ++allocations;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    ++allocations;
    return __libc_calloc(count, size);
}

void *realloc(void *old, size_t size)
{
    ++allocations;
    return __libc_realloc(old, size);
}

} // extern "C"

namespace {

constexpr int processesOfRecord = 5;
constexpr int searchSeconds = 12; // after a kill that was none, earlyoom waits for about a second
std::string groups; // directory of those that are made

template<typename Function>
double timeOf(const Function &function)
{
    const auto begin = std::chrono::steady_clock::now();
    function();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

void measureLevel(int readings)
{
    const Core::OomController controller;
    controller.readMemoryLevel(); // makes the file object
    std::vector<double> times;
    times.reserve(readings);
    const long before = allocations;
    for (int i = 0; i < readings; ++i) {
        times.push_back(timeOf([&controller] { controller.readMemoryLevel(); }));
    }
    const long made = allocations - before;
    // What no reader of the file can do without.
    std::vector<double> plain;
    plain.reserve(readings);
    for (int i = 0; i < readings; ++i) {
        plain.push_back(timeOf([] {
            FILE *const file = std::fopen("/proc/meminfo", "re");
            char content[8192];
            if (!file || std::fread(content, 1, sizeof(content), file) == 0) {
                fail("no /proc/meminfo");
            }
            std::fclose(file);
        }));
    }
    std::printf("{\"bench\": \"memory level\", \"n\": %d, \"ours_ms\": %.4f, \"only_read_ms\": %.4f, "
                "\"allocations\": %.1f}\n",
                readings, median(times), median(plain), double(made) / readings);
}

std::string groupOf(int record)
{
    return groups + "/" + std::to_string(record);
}

struct Record
{
    std::vector<pid_t> processes; // the first is the record's
    QDateTime lastActive;
};

/// Processes that do nothing, five to a control group.
std::vector<Record> startRecords(int count)
{
    std::vector<Record> records(count);
    const QDateTime now = QDateTime::currentDateTime();
    for (int number = 0; number < count; ++number) {
        if (::mkdir(groupOf(number).c_str(), 0755) != 0) {
            fail("cannot make a control group");
        }
        Record &record = records[number];
        record.lastActive = now.addMSecs(number * 7919 % 100000); // in no order that is there already
        for (int i = 0; i < processesOfRecord; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (;;) {
                    ::pause();
                }
            }
            FILE *const members = std::fopen((groupOf(number) + "/cgroup.procs").c_str(), "we");
            if (pid < 0 || !members || std::fprintf(members, "%d", pid) < 0 || std::fclose(members) != 0) {
                fail("cannot fill a control group");
            }
            record.processes.push_back(pid);
        }
    }
    return records;
}

void endRecords(int records)
{
    ::signal(SIGTERM, SIG_IGN);
    for (int record = 0; record < records; ++record) {
        QFile members(QString::fromStdString(groupOf(record)) + QStringLiteral("/cgroup.procs"));
        if (members.open(QFile::ReadOnly)) {
            const QList<QByteArray> pids = members.readAll().split('\n');
            for (const QByteArray &pid : pids) {
                if (pid.toInt() > 1) {
                    ::kill(pid.toInt(), SIGKILL);
                }
            }
        }
    }
    while (::waitpid(-1, nullptr, 0) > 0) { }
    for (int record = 0; record < records; ++record) {
        ::rmdir(groupOf(record).c_str());
    }
}

/// One pass of the early out-of-memory killer, but for the killing.
pid_t search(const Core::OomController &controller, const std::vector<Record> &records)
{
    QVector<Core::Candidate> candidates;
    candidates.reserve(int(records.size()));
    for (const Record &record : records) {
        Core::Candidate candidate;
        if (!controller.readProcessScore(record.processes.front(), &candidate)) {
            fail("no scores");
        }
        candidate.isApplication = true;
        candidate.lastActive = record.lastActive;
        candidates.append(candidate);
    }
    return Core::victimOrder(candidates).first().killPid;
}

void read(const std::string &path)
{
    char content[8192];
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || ::read(file, content, sizeof(content)) <= 0) {
        fail("cannot read what is there");
    }
    ::close(file);
}

/// What no such search can do without: the group, its members, how each offers itself, the leader's score.
void readOnly(const std::vector<Record> &records)
{
    int number = 0;
    for (const Record &record : records) {
        const std::string leader = "/proc/" + std::to_string(record.processes.front());
        read(leader + "/cgroup");
        read(groupOf(number++) + "/cgroup.procs");
        for (const pid_t pid : record.processes) {
            read("/proc/" + std::to_string(pid) + "/oom_score_adj");
        }
        read(leader + "/oom_score");
    }
}

/// Milliseconds of each search that earlyoom made while it was let.
std::vector<double> searchesOfEarlyoom(const char *library)
{
    const QTemporaryDir directory;
    const QByteArray stamps = directory.filePath(QStringLiteral("stamps")).toLocal8Bit();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv("LD_PRELOAD", library, 1);
        ::setenv("BENCH_STAMPS", stamps.constData(), 1);
        if (std::freopen("/dev/null", "w", stdout) && std::freopen("/dev/null", "w", stderr)) {
            // Below these limits whatever is free: it searches at once, and again and again.
            ::execlp("earlyoom", "earlyoom", "--dryrun", "-m", "99,99", "-s", "100,100", "-r", "0", nullptr);
        }
        ::_exit(127);
    }
    ::sleep(searchSeconds);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);

    std::vector<double> times;
    QFile file(QString::fromLocal8Bit(stamps));
    if (!file.open(QFile::ReadOnly)) {
        fail("earlyoom cannot be run");
    }
    qint64 begin = 0;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const qint64 time = line.left(line.indexOf(' ')).toLongLong();
        if (line.endsWith("search")) {
            begin = time;
        } else if (line.endsWith("found")) {
            times.push_back(double(time - begin) / 1e6);
        }
    }
    return times;
}

void measurePass(int count, const char *library)
{
    const std::vector<Record> records = startRecords(count);
    const Core::OomController controller;
    std::vector<double> ours;
    std::vector<double> kernels;
    const auto measure = [&] {
        for (int i = 0; i < 20; ++i) {
            ours.push_back(timeOf([&] { search(controller, records); }));
            kernels.push_back(timeOf([&] { readOnly(records); }));
        }
    };
    // Before and after, so that whatever else the machine does falls on both.
    measure();
    const std::vector<double> theirs = searchesOfEarlyoom(library);
    measure();
    const long before = allocations;
    search(controller, records);
    const long made = allocations - before;
    std::printf("{\"bench\": \"choice of a victim\", \"n\": %d, \"processes\": %d, \"ours_ms\": %.3f, "
                "\"reading_alone_ms\": %.3f, \"earlyoom_ms\": %.3f, \"ratio\": %.3f, "
                "\"earlyoom_searches\": %d, \"allocations\": %ld}\n",
                count, count * processesOfRecord, median(ours), median(kernels), median(theirs),
                median(ours) / median(theirs), int(theirs.size()), made);
    std::fflush(stdout);
    endRecords(count);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string what = argc > 2 ? argv[1] : "";
    ::unsetenv("PROCWARDEN_ROOTFS");
    if (what == "level" && argc == 3) {
        measureLevel(std::atoi(argv[2]));
    } else if (what == "pass" && argc == 5) {
        groups = argv[3];
        measurePass(std::atoi(argv[2]), argv[4]);
    } else {
        fail("usage: see the head of the source");
    }
    return 0;
}
