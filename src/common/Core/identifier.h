#pragma once

#include <QHash>
#include <QString>

#include <type_traits>

class QDebug;

namespace Core {

class ApplicationId;

/// What the textual identifiers of applications, tasks and instances share: the text as it was given, and
/// two indexes into it, so that the parts are available without parsing again.
///
/// Making an identifier never fails: a text that is none is kept, so that a message can quote it, and
/// isValid() is false. Who takes an identifier from outside tests isValid().
///
/// The indexes are 16 bits wide. An identifier whose application part does not fit into them, more than
/// 32767 characters, is not valid; its text is kept like that of any other invalid one.
class Identifier
{
public:
    [[nodiscard]] bool isEmpty() const { return m_text.isEmpty(); }
    [[nodiscard]] bool isValid() const { return !isEmpty() && m_organisationLength > 0; }

    /// The text before the separating dot; empty if there is none.
    [[nodiscard]] QString organisation() const;
    /// The application's name, without organisation, instance and task; empty if there is none.
    [[nodiscard]] QString name() const;

    /// The application part: the key under which the application is known everywhere, whether this
    /// identifies the application, one of its instances or one of its tasks. The whole text if there is
    /// no such part.
    [[nodiscard]] QString toString() const;
    /// The whole text, with the instance or the task.
    [[nodiscard]] QString text() const { return m_text; }
    /// The application part as an identifier of its own. Unlike ApplicationId(toString()), it keeps an
    /// organisation and a name that were given apart as they are.
    [[nodiscard]] ApplicationId applicationId() const;

    /// Number of characters of the organisation; 0 or below: not a valid identifier.
    [[nodiscard]] qint16 organisationLength() const { return m_organisationLength; }
    /// Index one past the application part.
    [[nodiscard]] qint16 applicationEnd() const { return m_applicationEnd; }

protected:
    Identifier() = default;
    /// Keeps @p text, not valid as yet, with the application part reaching to its end.
    explicit Identifier(const QString &text);
    Identifier(const Identifier &) = default;
    Identifier(Identifier &&) = default;
    Identifier &operator=(const Identifier &) = default;
    Identifier &operator=(Identifier &&) = default;
    ~Identifier() = default;

    /// Length of the organisation if all of @p text is `organisation.name`; 0 or -1 otherwise.
    static int parse(const QStringRef &text);
    /// Takes the part of the text before @p dot as the application if it is one.
    void parseBefore(int dot);
    /// Takes the whole text as the application if it is one.
    void parseWhole();

    QString m_text;
    qint16 m_organisationLength = 0;
    qint16 m_applicationEnd = 0;
};

/// Identifiers of one kind compare by their whole text; those of different kinds do not compare.
template<class Id, class = std::enable_if_t<std::is_base_of_v<Identifier, Id>>>
bool operator==(const Id &one, const Id &other)
{
    return one.text() == other.text();
}

template<class Id, class = std::enable_if_t<std::is_base_of_v<Identifier, Id>>>
bool operator!=(const Id &one, const Id &other)
{
    return !(one == other);
}

template<class Id, class = std::enable_if_t<std::is_base_of_v<Identifier, Id>>>
bool operator<(const Id &one, const Id &other)
{
    return one.text() < other.text();
}

inline uint qHash(const Identifier &id, uint seed = 0)
{
    return ::qHash(id.text(), seed);
}

/// Writes the whole text, as a string is written.
QDebug operator<<(QDebug debug, const Identifier &id);

} // namespace Core
