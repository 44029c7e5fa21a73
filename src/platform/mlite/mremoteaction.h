#pragma once

#include <QString>

/// A call that somebody else is to make, written as text: service, object path, interface, method and then
/// the arguments, each in base64, with blanks between them.
///
/// Stands in for the platform's class of the same name with the operations that are used here.
class MRemoteAction
{
public:
    explicit MRemoteAction(const QString &text);

    /// Empty if the text does not name a call, for which it needs the first four words; any of them but the
    /// first may be empty.
    QString serviceName() const;

private:
    QString m_serviceName;
};
