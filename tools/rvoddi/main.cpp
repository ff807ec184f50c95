// rvoddi: looks after RvoDdi's disk cache from the command line: what it
// holds (ls, stats), whether its files are sound (verify), shrinking it
// (trim), and storing and fetching single blocks (put, get, digest).
// `rvoddi help` lists the subcommands, `rvoddi CMD --help` explains one.

#include "RvoSubcommands.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <cstring>

namespace {

const RvoSubcommand kSubcommands[] = {
        {"ls", "list the sub-caches under cache roots", lsCommand},
        {"stats", "totals, compression, block sizes and ages of a cache", statsCommand},
        {"verify", "check every block file; list (and delete) the bad ones", verifyCommand},
        {"trim", "delete least recently used block files", trimCommand},
        {"put", "store files as blocks and print their digests", putCommand},
        {"get", "write the bytes of a stored block", getCommand},
        {"digest", "print the digests (block file names) of files", digestCommand},
};

const RvoSubcommand *find(const QString &name)
{
    for (const RvoSubcommand &command : kSubcommands) {
        if (name == QLatin1String(command.name))
            return &command;
    }
    return nullptr;
}

void printOverview(FILE *stream)
{
    std::fputs("Usage: rvoddi COMMAND [options] [arguments]\n\n"
               "Looks after the disk cache of RvoDdi: cache roots hold sub-cache directories,\n"
               "which hold bucket directories of block files named by their digest.\n\n"
               "Commands:\n",
               stream);
    for (const RvoSubcommand &command : kSubcommands)
        std::fprintf(stream, "  %-8s %s\n", command.name, command.summary);
    std::fputs("\n'rvoddi COMMAND --help' (or 'rvoddi help COMMAND') explains one.\n"
               "Exit status: 0 all well, 1 a failure or bad files found, 2 a usage error.\n",
               stream);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("rvoddi"));
    // The tool reports for itself; the library's diagnostics stay quiet
    // unless asked for.
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));

    QStringList arguments = app.arguments().mid(1);
    if (arguments.isEmpty()) {
        printOverview(stderr);
        return 2;
    }
    const QString name = arguments.takeFirst();
    if (name == QLatin1String("help") || name == QLatin1String("--help")
        || name == QLatin1String("-h")) {
        if (arguments.isEmpty()) {
            printOverview(stdout);
            return 0;
        }
        const RvoSubcommand *command = find(arguments.first());
        if (!command) {
            std::fprintf(stderr, "rvoddi: no command '%s'\n", qPrintable(arguments.first()));
            return 2;
        }
        return command->run({QStringLiteral("--help")});
    }
    const RvoSubcommand *command = find(name);
    if (!command) {
        std::fprintf(stderr, "rvoddi: no command '%s'; 'rvoddi help' lists them\n",
                     qPrintable(name));
        return 2;
    }
    return command->run(arguments);
}
