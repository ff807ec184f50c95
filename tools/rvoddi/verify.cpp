// rvoddi verify ROOT... [--sub-cache NAME] [--jobs N] [--delete]: checks
// every block file on every core and lists the bad ones.

#include "RvoCommand.h"
#include "RvoProgress.h"
#include "RvoSubcommands.h"
#include "RvoUnits.h"
#include "RvoVerifier.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

int verifyCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("verify"), QStringLiteral("ROOT..."),
                       QStringLiteral("Reads every block file under the cache roots, checks its "
                                      "header against its length, decodes its payload and "
                                      "compares the Skein-512 digest of the bytes with its name. "
                                      "Lists each bad file with the reason."));
    command.addRootsArgument();
    command.addSubCacheOption(QStringLiteral("Only the sub-cache NAME."));
    const QCommandLineOption jobsOption(
            QStringList {QStringLiteral("j"), QStringLiteral("jobs")},
            QStringLiteral("Check on N threads (default: one per core, here %1).")
                    .arg(QThread::idealThreadCount()),
            QStringLiteral("N"));
    const QCommandLineOption deleteOption(QStringLiteral("delete"),
                                          QStringLiteral("Delete the bad files."));
    command.parser().addOption(jobsOption);
    command.parser().addOption(deleteOption);
    command.addJsonOption();
    command.addQuietOption();
    command.setNotes(QStringLiteral(
            "Each bad file is one line on standard output, \"PATH: FAULT: REASON\"; FAULT is one\n"
            "of short, lengths, payload, digest, unreadable. Exit status 1 when a bad file\n"
            "was found (deleted or not).\n\n"
            "JSON (--json):\n"
            "  {\"version\": 1, \"checked\": N, \"bytes\": N, \"uncompressedBytes\": N,\n"
            "   \"bad\": [{\"path\": PATH, \"fault\": FAULT, \"reason\": TEXT, \"deleted\": "
            "BOOL}]}"));
    if (const int status = command.parse(arguments, 1); status >= 0)
        return status;
    int jobs = QThread::idealThreadCount();
    if (command.parser().isSet(jobsOption)) {
        bool ok = false;
        jobs = command.parser().value(jobsOption).toInt(&ok);
        if (!ok || jobs < 1)
            return command.usageError(QStringLiteral("--jobs takes a number of threads, not '%1'")
                                              .arg(command.parser().value(jobsOption)));
    }
    const bool deleteBad = command.parser().isSet(deleteOption);

    // Sorted, so that the bad files are listed in the same order every time.
    QVector<QPair<QString, qint64>> files;
    for (const RvoCacheScan::Root &root : command.scan(command.positional(), false)) {
        for (const RvoCacheScan::SubCache &subCache : root.subCaches) {
            for (const RvoCacheScan::BlockFile &file : subCache.blockFiles)
                files.append({subCache.path(file), file.bytes});
        }
    }
    std::sort(files.begin(), files.end());
    QVector<QString> paths;
    QVector<qint64> lengths;
    qint64 totalBytes = 0;
    for (const auto &file : std::as_const(files)) {
        paths.append(file.first);
        lengths.append(file.second);
        totalBytes += file.second;
    }
    RvoProgress progress(QStringLiteral("Verifying block files"), paths.size(), totalBytes,
                         !command.quiet());
    const RvoVerifier::Result result
            = RvoVerifier::run(paths, lengths, jobs, [&progress](qint64 count, qint64 bytes) {
                  progress.update(count, bytes);
              });
    progress.finish();

    QJsonArray badArray;
    for (const RvoVerifier::Bad &bad : result.bad) {
        bool deleted = false;
        if (deleteBad) {
            deleted = ::unlink(QFile::encodeName(bad.path).constData()) == 0 || errno == ENOENT;
            if (!deleted)
                command.pathError(QStringLiteral("cannot delete"), bad.path,
                                  QString::fromLocal8Bit(std::strerror(errno)));
        }
        const char *fault = RvoBlockFile::faultText(bad.fault);
        if (command.json()) {
            badArray.append(QJsonObject {{QStringLiteral("path"), bad.path},
                                         {QStringLiteral("fault"), QLatin1String(fault)},
                                         {QStringLiteral("reason"), RvoVerifier::reason(bad)},
                                         {QStringLiteral("deleted"), deleted}});
        } else {
            RvoCommand::print(QStringLiteral("%1: %2: %3%4")
                                      .arg(bad.path, QLatin1String(fault), RvoVerifier::reason(bad),
                                           deleted ? QStringLiteral(" (deleted)") : QString()));
        }
    }
    if (command.json()) {
        RvoCommand::printJson(QJsonObject {
                {QStringLiteral("version"), 1},
                {QStringLiteral("checked"), result.checked},
                {QStringLiteral("bytes"), result.bytes},
                {QStringLiteral("uncompressedBytes"), result.uncompressedBytes},
                {QStringLiteral("bad"), badArray},
        });
    } else {
        RvoCommand::print(QStringLiteral("%1 block files checked (%2, %3 uncompressed): %4 bad")
                                  .arg(result.checked)
                                  .arg(RvoUnits::bytes(result.bytes),
                                       RvoUnits::bytes(result.uncompressedBytes))
                                  .arg(result.bad.size()));
    }
    return result.bad.isEmpty() ? command.status() : int(RvoCommand::Failure);
}
