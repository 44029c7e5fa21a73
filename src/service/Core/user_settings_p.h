#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

namespace Core {

/// The file, as the JSON object that it holds.
class UserSettingsPrivate : public QObject
{
    Q_OBJECT

public:
    UserSettingsPrivate();
    ~UserSettingsPrivate() override;

    void readFile();
    void writeFile() const;
    /// Has the file written when the event loop runs next.
    void markDirty();
    /// A failed write is not tried again before the next change.
    Q_INVOKABLE void saveIfDirty();

    const QString path;
    QJsonObject root;
    bool dirty = false;
};

} // namespace Core
