#pragma once

#include "Core/error.h"

#include <QByteArrayList>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
#include <utility>

namespace Core {

class FirejailPrivate;

/// Composes the command line that runs a program in a firejail(1) sandbox.
///
/// All that decides what a sandboxed application may see is in this composition. Filled with the facts
/// about one application or task, asked once, dropped; it starts nothing. Every file is looked for below
/// the root prefix (Types::rootFs()) as it was at construction.
class Firejail
{
public:
    Firejail();
    ~Firejail();
    Firejail(const Firejail &) = delete;
    Firejail &operator=(const Firejail &) = delete;

    /// Additional profiles: an absolute path each, or a name to look up as a .profile file. An entry that
    /// is not found makes computeArgv() fail.
    void setProfiles(const QStringList &profiles);

    /// The two halves of the application id. Without an organisation nothing is shared or owned.
    void setOrganizationName(const QString &organizationName);
    void setApplicationName(const QString &applicationName);

    /// Id of the certificate that signed the package; empty if none. Applications of one organisation
    /// share files only under the same certificate.
    void setCertificateId(const QString &certificateId);

    /// The program whose file is checked, if it is not the first argument (a wrapper); empty: it is.
    void setBinaryPath(const QByteArray &binaryPath);

    /// Path of the application's desktop file.
    void setDesktopFile(const QString &desktopFile);

    /// Options of firejail that are passed on unchanged.
    void setFirejailParams(const QStringList &firejailParams);

    /// Descriptors that stay open in the sandbox.
    void setKeepFds(const QList<int> &keepFds);

    /// Name of the directory below /usr/share; empty: the base name of the desktop file.
    void setDataDirectory(const QString &dataDirectory);

    /// A further name that the application may own on the session bus; empty: none.
    void setMaemoService(const QString &maemoService);

    /// Denies the session bus altogether.
    void setNoUserBus(bool noUserBus);

    /// The application is of the older kind: its program must lie in /usr/bin itself, and its directories
    /// named after the desktop file are made.
    void setLegacy(bool legacy);

    /// Asks firejail for its debug output.
    void setDebug(bool debug);

    /// Gives no directories below the home directory.
    void setNoHomeDirectories(bool noHomeDirectories);

    /// Path of the profile that bears the name of the desktop file; empty if there is none.
    QString defaultProfile() const;

    /// Whether a file says what the permission @p name gives. Others are skipped when the options are
    /// composed.
    static bool isPermission(const QString &name);

    /// @param argv program and arguments; element 0 is an absolute path.
    /// @param permissions names of the granted permissions. One without a file is skipped, after a warning.
    /// @returns firejail, its options, "--" and @p argv. With an error (always InvalidArgs) the list is of
    ///          no use: it may be empty or hold the options composed so far.
    std::pair<QByteArrayList, Error> computeArgv(const QByteArrayList &argv,
                                                 const QStringList &permissions) const;

private:
    const std::unique_ptr<FirejailPrivate> d;
};

} // namespace Core
