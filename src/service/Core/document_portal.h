#pragma once

#include "Core/error.h"
#include "Core/file_descriptor.h"

#include <QIODevice>
#include <QObject>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>

namespace Core {

class DocumentPortalPrivate;

/// Client of the document portal on the session bus, through which an application in a sandbox reaches files
/// of others.
///
/// Owned by whoever waits for the answers: its end drops those that are still out, and their functions are
/// then never called. Main thread only; functions run from the event loop, never inside the call that was
/// given them, and may delete the portal. Empty functions are allowed. What was granted stays granted.
class DocumentPortal : public QObject
{
    Q_OBJECT

public:
    using FilesCompletion = std::function<void(const QStringList &paths, const Error &error)>;
    using FileCompletion = std::function<void(const QString &path, const Error &error)>;

    explicit DocumentPortal(QObject *parent = nullptr);
    ~DocumentPortal() override;

    /// Registers the open files @p fds for the application @p appId, for reading, writing or both by
    /// @p mode. @p names are the names of the files, of which the part behind the last separator counts.
    /// @p completion gets the paths under which the application reaches them, one for each, and no error; a
    /// path is the name itself where the application can do without the portal. Or it gets no paths and
    /// Error::Failed: with a text, or with an empty one if the portal did not answer with one document for
    /// each name.
    void shareFiles(const QStringList &names, const QVector<FileDescriptor> &fds, const QString &appId,
                    QIODevice::OpenMode mode, const FilesCompletion &completion);

    /// The same for one file.
    void shareFile(const QString &name, const FileDescriptor &fd, const QString &appId,
                   QIODevice::OpenMode mode, const FileCompletion &completion);

private:
    const std::unique_ptr<DocumentPortalPrivate> d;
};

} // namespace Core
