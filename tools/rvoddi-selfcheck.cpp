// rvoddi-selfcheck [--data DIR] [--cache DIR] [--scale N]: runs RvoDdi's
// self-check suite (DdiTester) and prints a line per check. Exit status 0
// only when every check passed, 1 when one failed, 2 on a usage error.
//
// Without --data, the samples live in a per-user data directory, which is
// filled with generated images on first use; without --cache, the checks'
// cache roots are made in the system's temporary directory.

#include <rvoddi/DdiTester.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QLoggingCategory>
#include <QStandardPaths>

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("rvoddi-selfcheck"));
    // The checks' lines alone, unless the caller asked for the library's
    // diagnostics.
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
            "Checks that this build of RvoDdi computes the right digests, stores and reads back "
            "blocks exactly, evicts and reloads within its budget and collects garbage "
            "correctly, and times it on this machine."));
    parser.addHelpOption();
    const QString defaultData
            = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
            + QStringLiteral("/rvoddi-selfcheck");
    const QCommandLineOption data(
            QStringList {QStringLiteral("data")},
            QStringLiteral("Sample files: every regular file in DIR (default %1, filled with "
                           "generated images when empty).")
                    .arg(QDir::toNativeSeparators(defaultData)),
            QStringLiteral("DIR"), defaultData);
    const QCommandLineOption cache(
            QStringList {QStringLiteral("cache")},
            QStringLiteral("Where the checks make their temporary cache roots (default: the "
                           "system's temporary directory)."),
            QStringLiteral("DIR"));
    const QCommandLineOption scale(
            QStringList {QStringLiteral("scale")},
            QStringLiteral("Multiplies the data of the timing checks (default 1; 0 times them "
                           "over the samples once)."),
            QStringLiteral("N"), QStringLiteral("1"));
    parser.addOption(data);
    parser.addOption(cache);
    parser.addOption(scale);
    parser.process(app);

    if (!parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "rvoddi-selfcheck: unexpected argument '%s' (see --help)\n",
                     qPrintable(parser.positionalArguments().first()));
        return 2;
    }
    bool scaleOk = false;
    const int scaleValue = parser.value(scale).toInt(&scaleOk);
    if (!scaleOk || scaleValue < 0) {
        std::fprintf(stderr, "rvoddi-selfcheck: --scale takes a whole number from 0, not '%s'\n",
                     qPrintable(parser.value(scale)));
        return 2;
    }

    DdiTester tester;
    tester.setTestDataDirectory(parser.value(data));
    tester.setCacheDirectory(parser.value(cache));
    tester.setShowProgress(isatty(STDOUT_FILENO) != 0);
    const int failed = tester.runAllTest(scaleValue);
    if (failed == 0) {
        std::fprintf(stderr, "rvoddi-selfcheck: every check passed (samples in %s)\n",
                     qPrintable(QDir::toNativeSeparators(parser.value(data))));
        return 0;
    }
    std::fprintf(stderr, "rvoddi-selfcheck: %d check%s failed (samples in %s)\n", failed,
                 failed == 1 ? "" : "s", qPrintable(QDir::toNativeSeparators(parser.value(data))));
    return 1;
}
