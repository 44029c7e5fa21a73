// How long the catalogue takes to read all applications and to find the handlers of a URI, beside GLib on
// the same files in the same process. One line of JSON per figure:
//
//   {"bench": "registry_scan", "n": 200, "ours_ms": 3.1, "theirs_ms": 5.6, "ratio": 0.55}
//
// registry_scan      making a registry: watching, reading and sorting all files; g_app_info_get_all()
// registry_rescan    reading them again after a change; g_app_info_get_all()
// handlers_for_uri   the handlers of a type that 200 applications declare; g_app_info_get_all_for_type()
//
// Medians. Each number of applications gets a process of its own, since GLib reads its directories' names
// only once.

#include "Core/application_registry.h"

#include "measuring.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUrl>

// GLib uses a name that is a macro of Qt.
#undef signals
#include <gio/gio.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int runs = 9;
constexpr int applicationsOfTheType = 200;
constexpr int lookupsPerRun = 200; // one is too short to be measured

void report(const char *name, int n, const std::vector<double> &ours, const std::vector<double> &theirs)
{
    const double our = median(ours);
    const double their = median(theirs);
    std::printf("{\"bench\": \"%s\", \"n\": %d, \"ours_ms\": %.4f, \"theirs_ms\": %.4f, \"ratio\": %.4f}\n",
                name, n, our, their, our / their);
    std::fflush(stdout);
}

/// Of the size and kind that packages install. The program exists, or GLib would drop the application.
QByteArray desktopFile(int number, bool ofTheType)
{
    const QByteArray text = QByteArray::number(number);
    QByteArray content = "[Desktop Entry]\nType=Application\nVersion=1.5\nName=Application " + text
        + "\nName[de]=Anwendung " + text + "\nName[fi]=Sovellus " + text
        + "\nName[fr]=Application num\xc3\xa9ro " + text + "\nComment=Does what application " + text
        + " does\nComment[de]=Tut, was Anwendung " + text + " tut\nIcon=icon-launcher-application-" + text
        + "\nExec=/bin/true --application %U\nTerminal=false\nStartupNotify=true\n"
          "Categories=Utility;Qt;\nKeywords=one;two;three;\nX-Nemo-Single-Instance=no\n";
    content += ofTheType ? "MimeType=image/png;image/jpeg;\n" : "MimeType=text/x-bench-" + text + ";\n";
    content += "\n[X-Sailjail]\nOrganizationName=org.example\nApplicationName=Application" + text
        + "\nPermissions=Internet;Pictures;Audio\n";
    if (number % 10 == 0) {
        content += "\n[X-Task sync]\nType=worker\nExec=/bin/true --sync\nConditions=internet;\n";
    }
    return content;
}

void makeApplications(const QString &directory, int count)
{
    check(QDir().mkpath(directory), "cannot make the directory");
    // Spread evenly, as far as there are enough.
    const int every = std::max(1, count / applicationsOfTheType);
    for (int i = 0; i < count; ++i) {
        QFile file(QStringLiteral("%1/org.example.application-%2.desktop").arg(directory).arg(i));
        const QByteArray content = desktopFile(i, i % every == 0 && i / every < applicationsOfTheType);
        check(file.open(QIODevice::WriteOnly) && file.write(content) == content.size(),
              "cannot write a desktop file");
    }
}

int freeAll(GList *applications)
{
    const int count = static_cast<int>(g_list_length(applications));
    g_list_free_full(applications, g_object_unref);
    return count;
}

void benchScan(int n)
{
    std::vector<double> scans;
    std::vector<double> rescans;
    std::vector<double> theirs;
    for (int run = 0; run < runs; ++run) {
        std::unique_ptr<Core::ApplicationRegistry> registry;
        scans.push_back(milliseconds([&] { registry = std::make_unique<Core::ApplicationRegistry>(); }));
        rescans.push_back(milliseconds([&] { registry->reload(); }));
        check(
            registry->desktopFile(Core::ApplicationId(QStringLiteral("org.example.Application%1").arg(n - 1)))
                != QString(),
            "not all applications were found");
        GList *applications = nullptr;
        theirs.push_back(milliseconds([&] { applications = g_app_info_get_all(); }));
        check(freeAll(applications) == n, "GLib did not find all applications");
    }
    report("registry_scan", n, scans, theirs);
    report("registry_rescan", n, rescans, theirs);
}

void benchHandlers(int n, const QString &directory)
{
    check(std::system(qPrintable(QStringLiteral("update-desktop-database -q '%1'").arg(directory))) == 0,
          "cannot run update-desktop-database");
    const Core::ApplicationRegistry registry;
    const QUrl uri(QStringLiteral("file:///tmp/picture.png"));
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int run = 0; run < runs; ++run) {
        int found = 0;
        ours.push_back(milliseconds([&] {
                           for (int i = 0; i < lookupsPerRun; ++i) {
                               found += registry.handlersForUri(uri, Core::HandlerFilters()).size();
                           }
                       })
                       / lookupsPerRun);
        check(found == applicationsOfTheType * lookupsPerRun, "not all handlers were found");
        GList *applications = nullptr;
        theirs.push_back(milliseconds([&] { applications = g_app_info_get_all_for_type("image/png"); }));
        check(freeAll(applications) == applicationsOfTheType, "GLib did not find all handlers");
    }
    report("handlers_for_uri", n, ours, theirs);
}

int benchAll(int argc, char **argv, int n)
{
    const QTemporaryDir root;
    check(root.isValid(), "no temporary directory");
    const QString data = root.filePath(QStringLiteral("data"));
    const QString applications = data + QStringLiteral("/applications");
    makeApplications(applications, n);
    check(QFile::link(QStringLiteral("/usr/share/mime"), data + QStringLiteral("/mime")),
          "cannot link the MIME types");
    qputenv("XDG_DATA_DIRS", QFile::encodeName(data));
    qputenv("XDG_DATA_HOME", QFile::encodeName(root.filePath(QStringLiteral("home"))));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root.filePath(QStringLiteral("config"))));
    qputenv("XDG_CONFIG_DIRS", QFile::encodeName(root.filePath(QStringLiteral("etc"))));
    qputenv("XDG_CURRENT_DESKTOP", "");
    const QCoreApplication application(argc, argv);

    benchScan(n);
    if (n >= 10000) {
        benchHandlers(n, applications);
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<int> numbers { 200, 2650, 10000 };
    if (argc > 1) {
        numbers = { std::max(1, std::atoi(argv[1])) };
    }
    for (const int n : numbers) {
        const pid_t child = fork();
        check(child >= 0, "cannot fork");
        if (child == 0) {
            std::exit(benchAll(argc, argv, n));
        }
        int status = 0;
        check(waitpid(child, &status, 0) == child && status == 0, "a measurement failed");
    }
    return 0;
}
