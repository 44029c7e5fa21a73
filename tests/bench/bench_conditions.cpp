// What it costs when a condition of very many waiting tasks changes. One line of JSON per figure:
//
//   {"bench": "condition_change", "n": 1000, "ms": 0.35, "signals_ms": 0.03, "logged_ms": 2.1, "told": 0}
//
// condition_change  the network goes or comes, and each task waits for something else besides
// condition_turn    the same, and each task has all it waited for, or no longer
//
// ms          from the change of the source until all watchers have counted anew; median
// signals_ms  the same number of plain Qt connections, which is what nobody can save; median
// logged_ms   the same with the messages of it written, to nowhere; median
// told        watchers that turned with one change, each of which its task manager hears of
//
// Nothing is run: that is the price of a start, not of this.

#include "Core/condition_delay.h"
#include "Core/condition_internet.h"
#include "Core/condition_watcher.h"
#include "Core/connection_monitor.h"
#include "Core/network_source.h"

#include "measuring.h"

#include <QCoreApplication>

#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int tasks = 1000;
constexpr int runs = 200;
constexpr int longDelay = 1000000; // seconds; does not come to an end here

class Network : public Core::NetworkSource
{
public:
    bool isOnline() const override { return online; }
    int bearerType() const override { return 1; }

    bool online = false;
};

/// Does the work that a signal does when nothing is behind it.
class Receiver : public QObject
{
public:
    void onChange() { seen = !seen; }

    bool seen = false;
};

/// Median of the milliseconds that @p work takes.
double measure(const std::function<void()> &work)
{
    std::vector<double> values;
    values.reserve(runs);
    for (int i = 0; i < runs; ++i) {
        values.push_back(milliseconds(work));
    }
    return median(values);
}

/// The same with Qt's own output of messages, which goes nowhere.
double measureLogged(const std::function<void()> &work)
{
    const int output = ::dup(STDERR_FILENO);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    check(output != -1 && nowhere != -1, "no descriptors");
    ::dup2(nowhere, STDERR_FILENO);
    const QtMessageHandler silent = qInstallMessageHandler(nullptr);
    const double result = measure(work);
    qInstallMessageHandler(silent);
    ::dup2(output, STDERR_FILENO);
    ::close(output);
    ::close(nowhere);
    return result;
}

double plainSignals()
{
    QObject source;
    std::vector<std::unique_ptr<Receiver>> receivers;
    for (int i = 0; i < tasks; ++i) {
        receivers.push_back(std::make_unique<Receiver>());
        QObject::connect(&source, &QObject::objectNameChanged, receivers.back().get(), &Receiver::onChange);
    }
    bool other = false;
    return measure([&] {
        other = !other;
        source.setObjectName(other ? QStringLiteral("a") : QStringLiteral("b"));
    });
}

void conditions(const char *name, bool waitForMore)
{
    auto source = std::make_unique<Network>();
    Network *const network = source.get();
    Core::MonitorSingleton monitor(std::move(source));
    std::vector<std::unique_ptr<Core::ConditionWatcher>> watchers;
    int told = 0;
    for (int i = 0; i < tasks; ++i) {
        watchers.push_back(std::make_unique<Core::ConditionWatcher>());
        Core::ConditionWatcher *const watcher = watchers.back().get();
        watcher->addCondition(new Core::ConditionInternet(0, &monitor));
        if (waitForMore) {
            watcher->addCondition(new Core::ConditionDelay(longDelay));
        }
        QObject::connect(watcher, &Core::ConditionWatcher::allSatisfiedChanged, watcher, [&told] { ++told; });
    }
    QCoreApplication::processEvents();

    const auto change = [&] {
        network->online = !network->online;
        emit network->changed();
        QCoreApplication::processEvents();
        check(monitor.isOnline() == network->online, "the change was not seen");
    };
    told = 0;
    change();
    const int toldOnce = told;
    check(toldOnce == (waitForMore ? 0 : tasks), "the watchers have not counted");
    const double plainMs = measure(change);
    const double loggedMs = measureLogged(change);
    std::printf("{\"bench\": \"%s\", \"n\": %d, \"ms\": %.3f, \"signals_ms\": %.3f, \"logged_ms\": %.3f, "
                "\"told\": %d}\n",
                name, tasks, plainMs, plainSignals(), loggedMs, toldOnce);
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_FORCE_STDERR_LOGGING", "1");
    // Nobody keeps the device awake for this.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent");
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    conditions("condition_change", true);
    conditions("condition_turn", false);
}
