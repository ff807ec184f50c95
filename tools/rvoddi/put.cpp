// rvoddi put ROOT FILE... [--sub-cache NAME] [--buckets N]: stores files as
// blocks, through the library's own save path, and prints their digests.

#include "RvoBlockCodec_p.h"
#include "RvoBlockSaver_p.h"
#include "RvoCommand.h"
#include "RvoDataHash.h"
#include "RvoDiskLayout_p.h"
#include "RvoSubCacheLock_p.h"
#include "RvoSubcommands.h"

#include <QDir>

int putCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("put"), QStringLiteral("ROOT FILE..."),
                       QStringLiteral("Stores each file as a block under the cache root, where "
                                      "a host set up with that root, sub-cache and bucket count "
                                      "finds it, and prints its digest and name."));
    command.parser().addPositionalArgument(QStringLiteral("ROOT"),
                                           QStringLiteral("The cache root."));
    command.parser().addPositionalArgument(
            QStringLiteral("FILE"), QStringLiteral("A file to store."), QStringLiteral("FILE..."));
    command.addSubCacheOption(QStringLiteral("Store in the sub-cache NAME (default: none)."));
    const QCommandLineOption bucketsOption(
            QStringLiteral("buckets"),
            QStringLiteral("The host's bucket count (default 10, the library's)."),
            QStringLiteral("N"), QStringLiteral("10"));
    command.parser().addOption(bucketsOption);
    command.setNotes(QStringLiteral("Prints one line per file: \"DIGEST  FILE\". A block that "
                                    "is stored already is left as it is. Block files are written "
                                    "with the codec RVODDI_BLOCK_CODEC names (zlib, lz4, "
                                    "zstd:LEVEL), as a host would; zlib without it."));
    if (const int status = command.parse(arguments, 2); status >= 0)
        return status;
    bool ok = false;
    const int buckets = command.parser().value(bucketsOption).toInt(&ok);
    if (!ok || buckets < 1)
        return command.usageError(QStringLiteral("--buckets takes a positive number, not '%1'")
                                          .arg(command.parser().value(bucketsOption)));
    QStringList files = command.positional();
    const QString root = files.takeFirst();
    const QString subCache = command.subCache();

    // Held shared while storing, as a host holds its sub-cache: a trim
    // running meanwhile leaves this sub-cache alone.
    RvoSubCacheLock lock;
    lock.lockShared(subCache.isEmpty() ? root : root + QDir::separator() + subCache);
    RvoBlockCodecSetting setting;
    QString error;
    if (!RvoBlockCodecSetting::parse(qEnvironmentVariable("RVODDI_BLOCK_CODEC"), &setting, &error))
        return command.usageError(error + QStringLiteral(" (from RVODDI_BLOCK_CODEC)"));
    RvoBlockCodec codec(setting);
    for (const QString &path : std::as_const(files)) {
        QByteArray bytes;
        if (!command.readFile(path, &bytes))
            continue;
        const RvoDataHash hash(bytes, RvoDataHash::Skein512);
        QString directory, name;
        buildFilename(&hash, root, subCache, quint32(buckets), directory, name);
        const RvoBlockSaver::Outcome outcome = RvoBlockSaver::save(codec, bytes, directory, name);
        if (!outcome.onDisk) {
            // Refused by the file system, with its reason; else too large.
            command.pathError(QStringLiteral("cannot store %1 in").arg(path),
                              QDir::cleanPath(directory + QDir::separator() + name),
                              outcome.refused ? outcome.error
                                              : QStringLiteral("too large for a block file"));
            continue;
        }
        RvoCommand::print(QStringLiteral("%1  %2").arg(name, path));
    }
    return command.status();
}
