// rvoddi get ROOT DIGEST [-o FILE] [--sub-cache NAME]: writes the bytes of a
// stored block, checked against its digest.

#include "RvoBlockCodec_p.h"
#include "RvoBlockFile_p.h"
#include "RvoCommand.h"
#include "RvoDiskLayout_p.h"
#include "RvoSubcommands.h"
#include "RvoVerifier.h"

#include <QSaveFile>

#include <cstdio>

int getCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("get"), QStringLiteral("ROOT DIGEST"),
                       QStringLiteral("Finds the block file named DIGEST under the cache root, "
                                      "checks it and writes the block's bytes to standard output "
                                      "or a file."));
    command.parser().addPositionalArgument(QStringLiteral("ROOT"),
                                           QStringLiteral("The cache root."));
    command.parser().addPositionalArgument(
            QStringLiteral("DIGEST"),
            QStringLiteral("The block's digest, as rvoddi put or rvoddi digest print it."));
    command.addSubCacheOption(QStringLiteral("Look only in the sub-cache NAME (default: all)."));
    const QCommandLineOption outputOption(
            QStringList {QStringLiteral("o"), QStringLiteral("output")},
            QStringLiteral("Write to FILE."), QStringLiteral("FILE"));
    command.parser().addOption(outputOption);
    if (const int status = command.parse(arguments, 2, 2); status >= 0)
        return status;
    const QString root = command.positional().at(0);
    const QString digest = command.positional().at(1);
    if (!isBlockFileName(digest))
        return command.usageError(QStringLiteral("not a digest: '%1'").arg(digest));

    RvoBlockCodec codec;
    QByteArray bytes;
    bool found = false, sound = false;
    for (const RvoCacheScan::Root &scanned : command.scan({root}, false)) {
        for (const RvoCacheScan::SubCache &subCache : scanned.subCaches) {
            for (const RvoCacheScan::BlockFile &file : subCache.blockFiles) {
                if (sound || file.name != digest.toLatin1())
                    continue;
                found = true;
                RvoVerifier::Bad bad;
                bad.path = subCache.path(file);
                bad.fault = RvoBlockFile::verifyFile(codec, bad.path, &bytes, nullptr, &bad.error);
                if (bad.fault == RvoBlockFile::Sound)
                    sound = true;
                else
                    command.error(QStringLiteral("%1: %2: %3")
                                          .arg(bad.path,
                                               QLatin1String(RvoBlockFile::faultText(bad.fault)),
                                               RvoVerifier::reason(bad)));
            }
        }
    }
    if (!found)
        command.error(QStringLiteral("no block %1 under %2").arg(digest, root));
    if (!sound)
        return RvoCommand::Failure;

    if (!command.parser().isSet(outputOption)) {
        if (std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout) != size_t(bytes.size())
            || std::fflush(stdout) != 0) {
            command.error(QStringLiteral("cannot write to the standard output"));
            return RvoCommand::Failure;
        }
        return RvoCommand::Success;
    }
    const QString output = command.parser().value(outputOption);
    QSaveFile file(output);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        command.pathError(QStringLiteral("cannot write"), output, file.errorString());
    return command.status();
}
