#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class MDesktopEntryPrivate;

/// A desktop file in the format of the Desktop Entry Specification, read when the object is made.
///
/// Stands in for the platform's class of the same name with the operations that are used here. The main
/// group is `[Desktop Entry]`. A value that is missing or not UTF-8 reads as empty; an unknown escape stays
/// as it stands. An entry that is not valid reads as empty throughout, and a debug message has said what was
/// wrong.
///
/// Reading never waits and takes files up to 1 MiB: what is no regular file, a FIFO for example, is not
/// valid.
class MDesktopEntry
{
public:
    explicit MDesktopEntry(const QString &fileName);
    virtual ~MDesktopEntry();
    MDesktopEntry(const MDesktopEntry &) = delete;
    MDesktopEntry &operator=(const MDesktopEntry &) = delete;

    /// Whether the file could be read, keeps to the format and has a main group. No single key is required.
    bool isValid() const;
    /// The path that was given.
    QString fileName() const;

    /// The application's declared name and organisation: `ApplicationName` and `OrganizationName` of the
    /// groups X-Application, X-Sailjail and Sailjail, the first value that is not empty.
    QString appName() const;
    QString appOrgname() const;

    /// `Name` and `Icon` in the session's language.
    QString name() const;
    QString icon() const;
    QString exec() const;
    QString xMaemoService() const;
    QStringList mimeType() const;
    /// `X-Solvane-Support-Mime-Parents`, a boolean: the application takes the children of its MIME types
    /// too. False unless it is "true".
    bool supportMimeParents() const;

    /// A string of the main group, its escapes replaced.
    QString value(const QString &key) const;
    QString value(const QString &group, const QString &key) const;
    /// A list with ";" between its elements ("\;" within one), without the empty ones.
    QStringList stringListValue(const QString &group, const QString &key) const;
    /// Names of all groups, in the order of the file.
    QStringList groups() const;

private:
    const std::unique_ptr<MDesktopEntryPrivate> d;
};
