#include "session.h"
#include "words.h"

#include "top/source.h"
#include "top/terminal.h"
#include "top/view.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDateTime>

#include <algorithm>
#include <cmath>
#include <csignal>

#include <pthread.h>
#include <unistd.h>

namespace Ctl {

namespace {

constexpr double defaultDelay = 1; // seconds
constexpr double shortestDelay = 0.1;
constexpr double longestDelay = 3600;

struct TopOptions
{
    QStringList wanted; // ids; empty for all
    int delayMs = 0;
    uint count = 0; // 0: until it is ended
    Top::SortKey sortKey = Top::SortKey::Memory;
    bool isReversed = false;
    bool mustWatch = false;
};

std::optional<Top::Memory> memoryOf(const QVariantMap &map)
{
    if (map.isEmpty()) {
        return std::nullopt;
    }
    return Top::Memory { map.value(QStringLiteral("Level")).toInt(),
                         map.value(QStringLiteral("TotalKb")).toULongLong(),
                         map.value(QStringLiteral("AvailableKb")).toULongLong(),
                         map.value(QStringLiteral("Percent")).toDouble() };
}

template<typename Value>
void insertKnown(QVariantMap &map, const char *key, const std::optional<Value> &value)
{
    if (value) {
        map.insert(QLatin1String(key), QVariant::fromValue(*value));
    }
}

/// Samples that have become what the model shows.
class Feed
{
public:
    explicit Feed(const TopOptions &options)
        : m_wanted(options.wanted)
    {
        model.setSort(options.sortKey, options.isReversed);
        model.setWatch(options.mustWatch ? Top::Model::Watch::Everything : Top::Model::Watch::Nothing);
    }

    void take(const Top::Sample &sample)
    {
        m_sample = sample;
        if (sample.service == Top::Service::Answers || sample.service == Top::Service::Gone) {
            m_sample.processes.clear();
            for (const QVariant &process : sample.processes) {
                if (Top::isWanted(process.toMap().value(QStringLiteral("Id")).toString(), m_wanted)) {
                    m_sample.processes.append(process);
                }
            }
            // A service that has gone has ended all that ran.
            m_rows = m_sampler.take(m_sample.processes, sample.steadyMs, sample.timeMs);
        }
        if (sample.service == Top::Service::Answers) {
            model.update(m_rows, m_sampler.events(), memoryOf(sample.memory), sample.timeMs);
        } else {
            const Reply &failure = sample.failure;
            model.setService(sample.service, sample.timeMs,
                             QStringLiteral("%1: %2").arg(failure.errorName, failure.errorText));
        }
    }

    /// The last sample, with what has been found out by comparing it with those before.
    [[nodiscard]] QVariantMap toMap() const
    {
        QVariantMap map = { { QStringLiteral("Time"), m_sample.timeMs } };
        if (m_sample.service != Top::Service::Answers) {
            map.insert(QStringLiteral("Error"), m_sample.failure.errorName);
            map.insert(QStringLiteral("ErrorText"), m_sample.failure.errorText);
        }
        if (!m_sample.memory.isEmpty()) {
            map.insert(QStringLiteral("Memory"), m_sample.memory);
        }
        QVariantList running;
        const QVector<Top::Row> rows = shownRows();
        for (const Top::Row &row : rows) {
            QVariantMap process = processOf(row.id);
            insertKnown(process, "CpuPercent", row.cpuPercent);
            insertKnown(process, "FrozenChanged", row.frozenChangedMs);
            insertKnown(process, "HiddenSince", row.hiddenMs);
            insertKnown(process, "CpuHiddenMs", row.cpuHiddenMs);
            running.append(process);
        }
        map.insert(QStringLiteral("Running"), running);
        return map;
    }

    [[nodiscard]] const Top::Sample &last() const { return m_sample; }

    Top::Model model;

private:
    /// Those of an earlier sample may be gone.
    [[nodiscard]] QVector<Top::Row> shownRows() const
    {
        return m_sample.service == Top::Service::Answers ? model.rows() : QVector<Top::Row>();
    }

    [[nodiscard]] QVariantMap processOf(const QString &id) const
    {
        for (const QVariant &process : m_sample.processes) {
            const QVariantMap map = process.toMap();
            if (map.value(QStringLiteral("Id")).toString() == id) {
                return map;
            }
        }
        return {};
    }

    const QStringList m_wanted;
    Top::Sampler m_sampler;
    QVector<Top::Row> m_rows;
    Top::Sample m_sample;
};

QString textOf(const QVector<Top::Line> &lines, const Output &output)
{
    QString text;
    for (const Top::Line &line : lines) {
        QString whole;
        for (const Top::Span &span : line.spans) {
            whole += output.highlighted(span.text, span.style);
        }
        while (whole.endsWith(QLatin1Char(' '))) {
            whole.chop(1);
        }
        text += whole + QLatin1Char('\n');
    }
    return text;
}

/// Prints one table or one line of JSON for each sample. @returns the exit status.
int runBatch(const Session &session, const TopOptions &options)
{
    Feed feed(options);
    Top::Source source;
    uint printed = 0;
    QObject::connect(&source, &Top::Source::sampled, &source, [&](const Top::Sample &sample) {
        feed.take(sample);
        const Output &output = session.output;
        QString text;
        if (!output.isJson()) {
            text = textOf(Top::drawPlain(feed.model, output.width()), output);
            text.chop(printed + 1 == options.count ? 1 : 0); // no blank line behind the last one
        }
        output.event(output.isJson() ? feed.toMap() : QVariantMap(), text);
        if (++printed == options.count) {
            QCoreApplication::exit(sample.failure.failed() ? session.fail(sample.failure) : int(Done));
        }
    });
    QObject::connect(&source, &Top::Source::busGone, &source, [] {
        Output::error(QStringLiteral("The bus has gone"));
        QCoreApplication::exit(NotThere);
    });
    source.start(options.delayMs, false);
    return QCoreApplication::exec();
}

/// What became of a stop, for the screen. @p row: as it was when it was asked for.
QString stopText(const Top::Row &row, const Reply &reply)
{
    if (reply.failed()) {
        return reply.errorText.isEmpty() ? reply.errorName
                                         : QStringLiteral("%1: %2").arg(reply.errorName, reply.errorText);
    }
    return row.frozen.value_or(false)
        ? QStringLiteral("%1 is told to end; it does when it is thawed").arg(row.id)
        : QStringLiteral("%1 is told to end").arg(row.id);
}

/// The full screen. @returns the exit status.
int runScreen(const Session &session, const TopOptions &options)
{
    Feed feed(options);
    Top::Source source;
    int endSignal = 0;
    bool hasBusGone = false;
    int status = Done;
    {
        Top::Terminal terminal(session.output.isColoured());
        if (!terminal.open()) {
            return session.arguments.wrong(
                QStringLiteral("The terminal cannot show a screen: %1").arg(qEnvironmentVariable("TERM")));
        }
        const auto show = [&] {
            const QSize size = terminal.size();
            feed.model.setPage(Top::pageOf(feed.model, size.height()));
            terminal.show(Top::draw(feed.model, size));
        };
        QObject::connect(&source, &Top::Source::sampled, &terminal, [&](const Top::Sample &sample) {
            feed.take(sample);
            show();
        });
        QObject::connect(&source, &Top::Source::silent, &terminal, [&] {
            feed.model.setService(Top::Service::Silent, QDateTime::currentMSecsSinceEpoch());
            show();
        });
        QObject::connect(&source, &Top::Source::stopAnswered, &terminal,
                         [&](const Top::Row &row, const Reply &reply) {
                             feed.model.setMessage(stopText(row, reply), reply.failed());
                             show();
                         });
        QObject::connect(&source, &Top::Source::busGone, &terminal, [&] {
            hasBusGone = true;
            QCoreApplication::exit(NotThere);
        });
        QObject::connect(&terminal, &Top::Terminal::pressed, &terminal, [&](int key) {
            const Top::Model::Action action = feed.model.press(key);
            if (action.kind == Top::Model::Action::Quit) {
                terminal.ignoreKeys();
                QCoreApplication::exit(Done);
                return;
            }
            if (action.kind == Top::Model::Action::Stop) {
                source.stop(action.row);
            }
            show();
        });
        QObject::connect(&terminal, &Top::Terminal::resized, &terminal, show);
        QObject::connect(&terminal, &Top::Terminal::ended, &terminal, [&](int signal) {
            endSignal = signal;
            QCoreApplication::exit(Done);
        });
        show();
        source.start(options.delayMs, true);
        status = QCoreApplication::exec();
    }
    if (hasBusGone) {
        Output::error(QStringLiteral("The bus has gone"));
    }
    if (endSignal != 0) {
        (void)raise(endSignal); // nobody catches it any more
    }
    return status;
}

std::optional<int> readOptions(const Arguments &arguments, TopOptions &options)
{
    options.wanted = arguments.words();
    double delay = defaultDelay;
    if (arguments.isSet(QStringLiteral("delay"))) {
        const QString word = arguments.value(QStringLiteral("delay"));
        bool isNumber = false;
        delay = word.toDouble(&isNumber);
        if (!isNumber || !std::isfinite(delay)) {
            return arguments.wrong(QStringLiteral("Not a number: %1").arg(word));
        }
        if (delay < shortestDelay || delay > longestDelay) {
            return arguments.wrong(
                QStringLiteral("Not from %1 to %2: %3").arg(shortestDelay).arg(longestDelay).arg(word));
        }
    }
    options.delayMs = int(delay * 1000);
    if (arguments.isSet(QStringLiteral("iterations"))) {
        const auto count = arguments.number(QStringLiteral("iterations"));
        if (!count) {
            return WrongUsage;
        }
        if (*count == 0) {
            return arguments.wrong(QStringLiteral("No iteration: 0"));
        }
        options.count = *count;
    }
    if (arguments.isSet(QStringLiteral("sort"))) {
        const QString word = arguments.value(QStringLiteral("sort"));
        const auto key = Top::sortKeyOf(word);
        if (!key) {
            return arguments.wrong(QStringLiteral("None of memory, cpu, state, oom, id: %1").arg(word));
        }
        options.sortKey = *key;
    }
    options.isReversed = arguments.isSet(QStringLiteral("reverse"));
    options.mustWatch = arguments.isSet(QStringLiteral("freeze-watch"));
    return std::nullopt;
}

/// The thread that Qt makes for the bus inherits what is blocked, and takes no signals: this thread has to
/// know of those that have come before it goes on, in particular after it has been stopped.
QDBusConnection connectToBus()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    QDBusConnection bus = QDBusConnection::sessionBus();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return bus;
}

} // namespace

int topCommand(Session &session)
{
    Arguments &arguments = session.arguments;
    arguments.addOption({ QStringLiteral("d"), QStringLiteral("delay") },
                        QStringLiteral("Look every SECONDS, 1 by default"), QStringLiteral("SECONDS"));
    arguments.addOption({ QStringLiteral("s"), QStringLiteral("sort") },
                        QStringLiteral("Sort by memory (default), cpu, state, oom or id"),
                        QStringLiteral("KEY"));
    arguments.addSwitch({ QStringLiteral("r"), QStringLiteral("reverse") },
                        QStringLiteral("Reverse the order"));
    arguments.addSwitch({ QStringLiteral("f"), QStringLiteral("freeze-watch") },
                        QStringLiteral("Show when what is frozen and thawed"));
    arguments.addSwitch({ QStringLiteral("b"), QStringLiteral("batch") },
                        QStringLiteral("Print plain tables, as where there is no terminal"));
    arguments.addOption({ QStringLiteral("n"), QStringLiteral("iterations") },
                        QStringLiteral("Print plain tables, COUNT times"), QStringLiteral("COUNT"));
    if (const auto end = session.begin(0, -1)) {
        return *end;
    }
    TopOptions options;
    if (const auto end = readOptions(arguments, options)) {
        return *end;
    }
    // The bus knows at once; a service that is there may take its time.
    const QDBusConnection bus = connectToBus();
    if (!bus.isConnected() || !bus.interface()->isServiceRegistered(Bus::sessionName).value()) {
        const Reply reply = session.bus.ask(QStringLiteral("Introspect1"), QStringLiteral("ListRunning"));
        if (reply.failed()) {
            return session.fail(reply);
        }
    }
    const bool isPlain = session.output.isJson() || options.count > 0
        || arguments.isSet(QStringLiteral("batch")) || isatty(STDOUT_FILENO) == 0
        || isatty(STDIN_FILENO) == 0;
    return isPlain ? runBatch(session, options) : runScreen(session, options);
}

} // namespace Ctl
