// rvoddi trim ROOT... (--max-size SIZE | --older-than AGE) [--sub-cache NAME]
// [--force]: deletes least recently used block files.

#include "RvoCommand.h"
#include "RvoProgress.h"
#include "RvoSubCacheLock_p.h"
#include "RvoSubcommands.h"
#include "RvoUnits.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

struct Candidate
{
    QString path;
    qint64 bytes;
    qint64 modifiedMs;
};

} // namespace

int trimCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("trim"),
                       QStringLiteral("ROOT... (--max-size SIZE | --older-than AGE)"),
                       QStringLiteral("Deletes the least recently used block files until the "
                                      "roots hold at most SIZE of block files, or those not used "
                                      "for AGE. Removes temporary files older than an hour."));
    command.addRootsArgument();
    const QCommandLineOption maxSizeOption(
            QStringLiteral("max-size"),
            QStringLiteral("Keep at most SIZE of block files in all the roots together, or in "
                           "the sub-cache of --sub-cache (500M, 50G: powers of 1024)."),
            QStringLiteral("SIZE"));
    const QCommandLineOption olderThanOption(
            QStringLiteral("older-than"),
            QStringLiteral("Delete the block files not used for AGE (90m, 12h, 30d, 2w)."),
            QStringLiteral("AGE"));
    const QCommandLineOption forceOption(
            QStringLiteral("force"),
            QStringLiteral("Trim sub-caches that a process holds too. That process may lose "
                           "blocks it has only on disk."));
    command.parser().addOption(maxSizeOption);
    command.parser().addOption(olderThanOption);
    command.addSubCacheOption(QStringLiteral("Only the sub-cache NAME."));
    command.parser().addOption(forceOption);
    command.addQuietOption();
    command.setNotes(QStringLiteral(
            "A sub-cache that a process holds (a host has it as its current sub-cache) is\n"
            "skipped, and said so, unless --force: its files may be the only copy of blocks\n"
            "the process still needs. While trimming, rvoddi holds each sub-cache it trims,\n"
            "so a host that starts meanwhile waits until it is done. A file's last use is its\n"
            "modification time; the library refreshes it when it reads a file."));
    if (const int status = command.parse(arguments, 1); status >= 0)
        return status;
    const bool bySize = command.parser().isSet(maxSizeOption);
    if (bySize == command.parser().isSet(olderThanOption))
        return command.usageError(QStringLiteral("give one of --max-size and --older-than"));
    const QString limitText = command.parser().value(bySize ? maxSizeOption : olderThanOption);
    const qint64 limit = bySize ? RvoUnits::parseSize(limitText) : RvoUnits::parseAge(limitText);
    if (limit < 0)
        return command.usageError(
                bySize ? QStringLiteral("not a size: '%1' (try 500M or 50G)").arg(limitText)
                       : QStringLiteral("not an age: '%1' (try 12h or 30d)").arg(limitText));
    const bool force = command.parser().isSet(forceOption);

    const qint64 now = RvoCacheScan::currentTimeMs();
    std::vector<std::unique_ptr<RvoSubCacheLock>> locks;
    std::vector<Candidate> blockFiles, temporaryFiles;
    qint64 total = 0; // block-file bytes in the roots, held sub-caches included
    int skipped = 0;
    for (const RvoCacheScan::Root &root : command.scan(command.positional())) {
        for (const RvoCacheScan::SubCache &subCache : root.subCaches) {
            total += subCache.blockBytes;
            if (!force) {
                // Held exclusive, the sub-cache cannot be taken up by a host
                // while its files go. A lock file that cannot be made (a
                // read-only directory) leaves it unheld; deletions will say why.
                auto lock = std::make_unique<RvoSubCacheLock>();
                if (subCache.held
                    || (!lock->tryLockExclusive(subCache.directory)
                        && RvoSubCacheLock::isHeld(subCache.directory))) {
                    RvoCommand::print(QStringLiteral("skipped %1: held by a process")
                                              .arg(subCache.directory));
                    ++skipped;
                    continue;
                }
                locks.push_back(std::move(lock));
            }
            for (const RvoCacheScan::BlockFile &file : subCache.blockFiles)
                blockFiles.push_back({subCache.path(file), file.bytes, file.modifiedMs});
            for (const RvoCacheScan::OtherFile &file : subCache.temporaryFiles) {
                if (now - file.modifiedMs > 3600 * 1000)
                    temporaryFiles.push_back({file.path, file.bytes, file.modifiedMs});
            }
        }
    }

    // Oldest first; the path breaks ties so that runs agree.
    std::sort(blockFiles.begin(), blockFiles.end(), [](const Candidate &a, const Candidate &b) {
        return a.modifiedMs != b.modifiedMs ? a.modifiedMs < b.modifiedMs : a.path < b.path;
    });
    std::vector<Candidate> doomed;
    qint64 remaining = total;
    for (const Candidate &file : blockFiles) {
        if (bySize ? remaining <= limit : file.modifiedMs >= now - limit)
            break;
        doomed.push_back(file);
        remaining -= file.bytes;
    }

    qint64 doomedBytes = 0;
    for (const Candidate &file : doomed)
        doomedBytes += file.bytes;
    RvoProgress progress(QStringLiteral("Deleting block files"), qint64(doomed.size()), doomedBytes,
                         !command.quiet());
    // Removes a file; one already gone counts as removed by someone else.
    auto remove = [&command](const Candidate &file, qint64 *count, qint64 *bytes) {
        if (::unlink(QFile::encodeName(file.path).constData()) == 0) {
            ++*count;
            *bytes += file.bytes;
        } else if (errno != ENOENT) {
            command.pathError(QStringLiteral("cannot delete"), file.path,
                              QString::fromLocal8Bit(std::strerror(errno)));
        }
    };
    qint64 deleted = 0, deletedBytes = 0, done = 0, doneBytes = 0;
    for (const Candidate &file : doomed) {
        remove(file, &deleted, &deletedBytes);
        progress.update(++done, doneBytes += file.bytes);
    }
    progress.finish();
    qint64 temporaryDeleted = 0, temporaryBytes = 0;
    for (const Candidate &file : temporaryFiles)
        remove(file, &temporaryDeleted, &temporaryBytes);

    const qint64 kept = total - deletedBytes;
    RvoCommand::print(QStringLiteral("deleted %1 block files (%2) and %3 temporary files (%4); "
                                     "%5 of block files left")
                              .arg(deleted)
                              .arg(RvoUnits::bytes(deletedBytes))
                              .arg(temporaryDeleted)
                              .arg(RvoUnits::bytes(temporaryBytes), RvoUnits::bytes(kept)));
    if (bySize && kept > limit && skipped > 0)
        RvoCommand::print(
                QStringLiteral("still above %1: the rest is in sub-caches held by a process")
                        .arg(RvoUnits::bytes(limit)));
    return command.status();
}
