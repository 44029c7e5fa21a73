#include "mdesktopentry.h"

#include <QByteArray>
#include <QDebug>
#include <QFile>

#include <glib.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *const mainGroup = "Desktop Entry";
constexpr off_t maximumSize = 1024 * 1024; // some hundred times the largest one that makes sense

struct KeyFileDeleter
{
    void operator()(GKeyFile *file) const { g_key_file_free(file); }
};

struct GFreeDeleter
{
    void operator()(void *memory) const { g_free(memory); }
};

struct StrvDeleter
{
    void operator()(gchar **strings) const { g_strfreev(strings); }
};

using KeyFile = std::unique_ptr<GKeyFile, KeyFileDeleter>;
using GString_ = std::unique_ptr<gchar, GFreeDeleter>;
using Strv = std::unique_ptr<gchar *, StrvDeleter>;

class Descriptor
{
public:
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    ~Descriptor()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return m_fd; }

private:
    const int m_fd;
};

/// Reads all of a regular file.
/// @returns what was wrong; a null string if nothing was.
QString readFile(const QString &path, QByteArray &data)
{
    if (path.isEmpty()) {
        return QStringLiteral("no file name");
    }
    // Without O_NONBLOCK, opening a FIFO waits for somebody who writes.
    const Descriptor file(
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status
    {
    };
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return QStringLiteral("not a regular file");
    }
    if (status.st_size > maximumSize) {
        return QStringLiteral("too large");
    }
    data.resize(static_cast<int>(status.st_size));
    int length = 0;
    while (length < data.size()) {
        const ssize_t got =
            ::read(file.get(), data.data() + length, static_cast<size_t>(data.size() - length));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return QString::fromLocal8Bit(std::strerror(errno));
        }
        if (got == 0) {
            break; // it became shorter meanwhile
        }
        length += static_cast<int>(got);
    }
    data.truncate(length);
    return QString();
}

} // namespace

class MDesktopEntryPrivate
{
public:
    explicit MDesktopEntryPrivate(const QString &path);

    /// The key file if it holds the key. Asking first keeps GLib from composing an error for each of the
    /// many keys that a file does not have.
    GKeyFile *holding(const char *group, const char *key) const;
    QString string(const char *group, const char *key) const;
    QString localeString(const char *key) const;
    QStringList stringList(const char *group, const char *key) const;
    /// First non-empty value of the key in the groups that describe the sandbox.
    QString sandboxString(const char *key) const;

    const QString fileName;
    KeyFile keyFile; // null if the entry is not valid

private:
    static QString parse(const QByteArray &data, KeyFile &parsed);
};

MDesktopEntryPrivate::MDesktopEntryPrivate(const QString &path)
    : fileName(path)
{
    QByteArray data;
    QString fault = readFile(fileName, data);
    if (fault.isNull()) {
        fault = parse(data, keyFile);
    }
    if (!fault.isNull()) {
        qDebug() << "MDesktopEntry: not a valid desktop entry:" << fileName << fault;
    }
}

/// @returns what was wrong; a null string if nothing was.
QString MDesktopEntryPrivate::parse(const QByteArray &data, KeyFile &parsed)
{
    KeyFile file(g_key_file_new());
    g_key_file_set_list_separator(file.get(), ';');
    GError *error = nullptr;
    // Without G_KEY_FILE_KEEP_TRANSLATIONS only the session's language is kept.
    if (g_key_file_load_from_data(file.get(), data.constData(), static_cast<gsize>(data.size()),
                                  G_KEY_FILE_NONE, &error)
        == FALSE) {
        const QString fault = QString::fromUtf8(error->message);
        g_error_free(error);
        return fault;
    }
    if (g_key_file_has_group(file.get(), mainGroup) == FALSE) {
        return QStringLiteral("no group [Desktop Entry]");
    }
    parsed = std::move(file);
    return QString();
}

GKeyFile *MDesktopEntryPrivate::holding(const char *group, const char *key) const
{
    if (!keyFile || g_key_file_has_group(keyFile.get(), group) == FALSE
        || g_key_file_has_key(keyFile.get(), group, key, nullptr) == FALSE) {
        return nullptr;
    }
    return keyFile.get();
}

QString MDesktopEntryPrivate::string(const char *group, const char *key) const
{
    GKeyFile *const file = holding(group, key);
    return file == nullptr
        ? QString()
        : QString::fromUtf8(GString_(g_key_file_get_string(file, group, key, nullptr)).get());
}

/// What g_key_file_get_locale_string() does, but that one composes an error for every translation that is
/// not there, which takes a seventh of the time of reading all applications.
QString MDesktopEntryPrivate::localeString(const char *key) const
{
    for (const gchar *const *language = g_get_language_names(); *language != nullptr; ++language) {
        const QByteArray translatedKey = QByteArray(key) + '[' + *language + ']';
        GKeyFile *const file = holding(mainGroup, translatedKey.constData());
        const GString_ value(
            file == nullptr ? nullptr
                            : g_key_file_get_string(file, mainGroup, translatedKey.constData(), nullptr));
        if (value) {
            return QString::fromUtf8(value.get());
        }
    }
    return string(mainGroup, key);
}

QStringList MDesktopEntryPrivate::stringList(const char *group, const char *key) const
{
    QStringList list;
    GKeyFile *const file = holding(group, key);
    if (file == nullptr) {
        return list;
    }
    gsize count = 0;
    const Strv values(g_key_file_get_string_list(file, group, key, &count, nullptr));
    for (gsize i = 0; i < count; ++i) {
        if (values.get()[i][0] != '\0') {
            list.append(QString::fromUtf8(values.get()[i]));
        }
    }
    return list;
}

QString MDesktopEntryPrivate::sandboxString(const char *key) const
{
    for (const char *const group : { "X-Application", "X-Sailjail", "Sailjail" }) {
        const QString value = string(group, key);
        if (!value.isEmpty()) {
            return value;
        }
    }
    return QString();
}

MDesktopEntry::MDesktopEntry(const QString &fileName)
    : d(std::make_unique<MDesktopEntryPrivate>(fileName))
{
}

MDesktopEntry::~MDesktopEntry() = default;

bool MDesktopEntry::isValid() const
{
    return d->keyFile != nullptr;
}

QString MDesktopEntry::fileName() const
{
    return d->fileName;
}

QString MDesktopEntry::appName() const
{
    return d->sandboxString("ApplicationName");
}

QString MDesktopEntry::appOrgname() const
{
    return d->sandboxString("OrganizationName");
}

QString MDesktopEntry::name() const
{
    return d->localeString("Name");
}

QString MDesktopEntry::icon() const
{
    return d->localeString("Icon");
}

QString MDesktopEntry::exec() const
{
    return d->string(mainGroup, "Exec");
}

QString MDesktopEntry::xMaemoService() const
{
    return d->string(mainGroup, "X-Maemo-Service");
}

QStringList MDesktopEntry::mimeType() const
{
    return d->stringList(mainGroup, "MimeType");
}

bool MDesktopEntry::supportMimeParents() const
{
    const char *const key = "X-Solvane-Support-Mime-Parents";
    GKeyFile *const file = d->holding(mainGroup, key);
    return file != nullptr && g_key_file_get_boolean(file, mainGroup, key, nullptr) != FALSE;
}

QString MDesktopEntry::value(const QString &key) const
{
    return d->string(mainGroup, key.toUtf8().constData());
}

QString MDesktopEntry::value(const QString &group, const QString &key) const
{
    return d->string(group.toUtf8().constData(), key.toUtf8().constData());
}

QStringList MDesktopEntry::stringListValue(const QString &group, const QString &key) const
{
    return d->stringList(group.toUtf8().constData(), key.toUtf8().constData());
}

QStringList MDesktopEntry::groups() const
{
    QStringList list;
    if (!d->keyFile) {
        return list;
    }
    const Strv names(g_key_file_get_groups(d->keyFile.get(), nullptr));
    for (gchar **name = names.get(); *name != nullptr; ++name) {
        list.append(QString::fromUtf8(*name));
    }
    return list;
}
