#pragma once

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>

namespace Core {

class UserSettingsPrivate;

/// A task that runs again after a restart, as it was asked for.
struct AutostartEntry
{
    QStringList params;
    QStringList environment; ///< "NAME=value" each
    QVariantMap hints; ///< see task_hints.h
    QVariantMap conditionData; ///< name of a condition -> its data; an invalid value if it has none

    friend bool operator==(const AutostartEntry &one, const AutostartEntry &other)
    {
        return one.params == other.params && one.environment == other.environment && one.hints == other.hints
            && one.conditionData == other.conditionData;
    }
    friend bool operator!=(const AutostartEntry &one, const AutostartEntry &other) { return !(one == other); }
};

/// What the service remembers for the user from one run to the next: `user-settings.json` in the
/// configuration directory.
///
/// Read once, at construction. A change is written when the event loop runs next, so that a burst of changes
/// makes one write, or at the latest by the destructor. The file is replaced as a whole or not at all; what
/// it holds besides the stored tasks is kept. A failure to read or to write is warned about and nothing more.
/// Main thread only.
class UserSettings
{
public:
    UserSettings();
    ~UserSettings();

    /// All stored tasks: whole text of the task's id -> entry.
    [[nodiscard]] QMap<QString, AutostartEntry> autostartEntries() const;

    /// Stores @p entry, in place of an earlier one of that id.
    void setAutostartEntry(const QString &id, const AutostartEntry &entry);

    /// Nothing is written if there is none.
    void removeAutostartEntry(const QString &id);

private:
    Q_DISABLE_COPY(UserSettings)

    const std::unique_ptr<UserSettingsPrivate> d;
};

} // namespace Core
