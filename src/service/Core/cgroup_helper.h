#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

namespace Core {

class CGroupHelperPrivate;
class Error;

/// Client of the privileged helper on the system bus, which makes the control group subtrees of a user.
///
/// Main thread only. Its destruction ends the wait for an answer: the callback is then never called.
class CGroupHelper : public QObject
{
    Q_OBJECT

public:
    /// On success @p path is the subtree below each hierarchy, for example "/procwarden/user-1000", and the
    /// error is empty. On failure @p path is empty, and the error is AccessDenied, InvalidArgs or, for
    /// everything else (no bus, no helper, no answer in time), Failed, with the bus's own message.
    using CreateUserHierarchiesCb = std::function<void(const QString &path, const Error &error)>;

    explicit CGroupHelper(QObject *parent = nullptr);
    ~CGroupHelper() override;

    /// Asks the helper to make the subtrees of @p userId and to hand them over to that user.
    ///
    /// Returns at once: the call itself goes out from the event loop, so that @p callback never runs before
    /// this returns. It runs exactly once, unless this object is destroyed first.
    void createUserHierarchies(uint userId, CreateUserHierarchiesCb callback);

private:
    const std::unique_ptr<CGroupHelperPrivate> d;
};

} // namespace Core
