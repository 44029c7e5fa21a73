// Gives a target the files of the directories named on the command line, without the fuzzer.

#include "fuzz.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <vector>

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const QDir directory(QFile::decodeName(argv[i]));
        const QStringList names = directory.entryList(QDir::Files, QDir::Name);
        for (const QString &name : names) {
            QFile file(directory.filePath(name));
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(file.fileName()));
                return 1;
            }
            std::fprintf(stderr, "%s\n", qPrintable(name)); // the last line names the one that failed
            // Of its own size, so that reading behind its end is found.
            const QByteArray contents = file.readAll();
            const std::vector<std::uint8_t> input(contents.begin(), contents.end());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++count;
        }
    }
    std::fprintf(stderr, "%d inputs\n", count);
    return count > 0 ? 0 : 1; // a corpus that is not found is no success
}
