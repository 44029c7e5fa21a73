#include "Core/intent_files.h"

#include "Core/document_portal.h"
#include "Core/file_descriptor.h"
#include "Core/json_path.h"

#include <QDBusArgument>
#include <QDBusUnixFileDescriptor>
#include <QDebug>
#include <QIODevice>
#include <QUrl>
#include <QVector>

#include <memory>

namespace Core {
namespace IntentUtils {

namespace {

// A message can name each of its descriptors any number of times, in any number of hints. One more than can
// be passed on is enough for a hint to be refused, and there are two hints that can be.
constexpr int maximumPerHint = FileDescriptor::maximumPerMessage + 1;
constexpr int maximumOfAll = 2 * maximumPerHint;

// Takes what it reads from the budget.
QVector<FileDescriptor> readDescriptors(const QDBusArgument &argument, int &budget)
{
    QVector<FileDescriptor> descriptors;
    argument.beginArray();
    while (!argument.atEnd() && descriptors.size() < maximumPerHint && budget > 0) {
        --budget;
        QDBusUnixFileDescriptor descriptor;
        argument >> descriptor;
        descriptors.append(FileDescriptor(descriptor.fileDescriptor()));
    }
    argument.endArray();
    return descriptors;
}

// The text at a place where a file's name or URI stands, as a name.
QString nameAt(const QJsonObject &data, const QString &path)
{
    const QString text = JsonPath::value(data, path).toString();
    const QUrl url(text, QUrl::TolerantMode);
    if (url.isLocalFile()) {
        return url.toLocalFile();
    }
    return url.scheme().isEmpty() ? text : url.toString(); // what is no URL is a path
}

// One sharing of files. Begins with start() and ends with the completion, by itself.
class FileExporter
{
public:
    FileExporter(const QJsonObject &data, const QString &target, const ShareCompletion &completion)
        : m_data(data)
        , m_target(target)
        , m_completion(completion)
    {
    }

    void start(const QVariantMap &hints);

private:
    void shareFiles(const QStringList &jsonPaths, const QVector<FileDescriptor> &fds,
                    QIODevice::OpenMode mode);
    void finishBatch(const QStringList &places, const QStringList &documentPaths, const Error &error);
    void lower();

    std::unique_ptr<DocumentPortal> m_portal; ///< made when it is needed: most intents share nothing
    QJsonObject m_data; ///< rewritten in place
    const QString m_target;
    QStringList m_paths; ///< of all documents so far
    qint32 m_pending = 0; ///< steps that are still out
    const ShareCompletion m_completion;
    Error m_error; ///< the last failure
};

void FileExporter::start(const QVariantMap &hints)
{
    const auto descriptors = [&hints](const QString &key) {
        return hints.value(key).value<QVector<FileDescriptor>>();
    };
    const auto jsonPaths = [&hints](const QString &key) {
        return hints.value(key).toStringList();
    };
    ++m_pending; // holds the completion back until both batches are on their way
    shareFiles(jsonPaths(QStringLiteral("readFiles")), descriptors(QStringLiteral("readFds")),
               QIODevice::ReadOnly);
    shareFiles(jsonPaths(QStringLiteral("writeFiles")), descriptors(QStringLiteral("writeFds")),
               QIODevice::ReadWrite);
    lower();
}

void FileExporter::shareFiles(const QStringList &jsonPaths, const QVector<FileDescriptor> &fds,
                              QIODevice::OpenMode mode)
{
    if (fds.isEmpty()) {
        return;
    }
    QStringList places;
    for (const QString &path : jsonPaths) {
        places += JsonPath::expandPaths(m_data, path);
    }
    QStringList names;
    for (const QString &place : qAsConst(places)) {
        names.append(nameAt(m_data, place));
    }
    if (names.size() < fds.size()) {
        m_error = Error(Error::InvalidArgs, QStringLiteral("Not all file names where provided"));
        return;
    }
    if (!m_portal) {
        m_portal = std::make_unique<DocumentPortal>();
    }
    const auto batchCompletion = [this, places](const QStringList &documentPaths, const Error &error) {
        finishBatch(places, documentPaths, error);
    };
    ++m_pending;
    m_portal->shareFiles(names, fds, m_target, mode, batchCompletion);
}

void FileExporter::finishBatch(const QStringList &places, const QStringList &documentPaths,
                               const Error &error)
{
    if (error) {
        m_error = error;
    } else {
        m_paths += documentPaths;
        for (int i = 0; i < documentPaths.size(); ++i) {
            JsonPath::setValue(m_data, places.at(i), documentPaths.at(i));
        }
    }
    lower();
}

void FileExporter::lower()
{
    if (--m_pending == 0) {
        if (m_completion) {
            m_completion(m_data, m_paths, m_error);
        }
        delete this;
    }
}

} // namespace

QVariantMap cleanHints(const QVariantMap &hints)
{
    int budget = maximumOfAll;
    QVariantMap clean;
    for (auto it = hints.begin(); it != hints.end(); ++it) {
        if (it->userType() != qMetaTypeId<QDBusArgument>()) {
            clean.insert(it.key(), *it);
            continue;
        }
        const auto argument = it->value<QDBusArgument>();
        const QString signature = argument.currentSignature();
        if (signature == QLatin1String("as")) {
            clean.insert(it.key(), qdbus_cast<QStringList>(argument));
        } else if (signature == QLatin1String("ah")) {
            clean.insert(it.key(), QVariant::fromValue(readDescriptors(argument, budget)));
        } else {
            qWarning() << "Unexpected complex D-Bus type for hint" << it.key();
        }
    }
    return clean;
}

void shareFiles(const QJsonObject &data, const QVariantMap &hints, const QString &target,
                const ShareCompletion &completion)
{
    auto *exporter = new FileExporter(data, target, completion); // deletes itself
    exporter->start(hints);
}

} // namespace IntentUtils
} // namespace Core
