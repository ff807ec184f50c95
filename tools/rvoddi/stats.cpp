// rvoddi stats ROOT... [--sub-cache NAME]: totals, compression ratio, the
// files of each codec, the spread of block sizes and of last uses, temporary
// and foreign files.

#include "RvoCommand.h"
#include "RvoProgress.h"
#include "RvoSubcommands.h"
#include "RvoUnits.h"
#include "RvoVerifier.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {

struct Bin
{
    QString label; // "< 64 KiB", "< 1 hour", ...
    qint64 below; // upper bound (bytes or seconds), -1: none
    qint64 files = 0;
    qint64 bytes = 0; // block-file bytes
};

QVector<Bin> sizeBins()
{
    return {{QStringLiteral("< 4 KiB"), qint64(4) << 10},
            {QStringLiteral("< 64 KiB"), qint64(64) << 10},
            {QStringLiteral("< 256 KiB"), qint64(256) << 10},
            {QStringLiteral("< 1 MiB"), qint64(1) << 20},
            {QStringLiteral("< 4 MiB"), qint64(4) << 20},
            {QStringLiteral("< 16 MiB"), qint64(16) << 20},
            {QStringLiteral(">= 16 MiB"), -1}};
}

QVector<Bin> ageBins()
{
    return {{QStringLiteral("< 1 hour"), 3600},
            {QStringLiteral("< 1 day"), 86400},
            {QStringLiteral("< 1 week"), 7 * 86400},
            {QStringLiteral("< 30 days"), 30 * 86400},
            {QStringLiteral(">= 30 days"), -1}};
}

void count(QVector<Bin> &bins, qint64 value, qint64 bytes)
{
    for (Bin &bin : bins) {
        if (bin.below < 0 || value < bin.below) {
            ++bin.files;
            bin.bytes += bytes;
            return;
        }
    }
}

QJsonArray toJson(const QVector<Bin> &bins)
{
    QJsonArray array;
    for (const Bin &bin : bins) {
        array.append(QJsonObject {
                {QStringLiteral("below"), bin.below < 0 ? QJsonValue() : QJsonValue(bin.below)},
                {QStringLiteral("files"), bin.files},
                {QStringLiteral("bytes"), bin.bytes}});
    }
    return array;
}

// The bins from the first that holds files to the last.
void printBins(const QString &title, const QVector<Bin> &bins)
{
    RvoCommand::print(title);
    qint64 most = 0;
    int first = int(bins.size()), last = -1;
    for (int i = 0; i < bins.size(); ++i) {
        most = qMax(most, bins[i].files);
        if (bins[i].files > 0) {
            first = qMin(first, i);
            last = i;
        }
    }
    for (int i = first; i <= last; ++i) {
        const Bin &bin = bins[i];
        const QString bar(int((bin.files * 40 + most - 1) / most), QLatin1Char('#'));
        const QString line = QStringLiteral("  %1 %2").arg(bin.label, -12).arg(bin.files, 9);
        RvoCommand::print(bar.isEmpty() ? line : line + QStringLiteral("  ") + bar);
    }
}

} // namespace

int statsCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("stats"), QStringLiteral("ROOT..."),
                       QStringLiteral("Sums up the block files under the cache roots: totals, "
                                      "compression ratio, block sizes and last uses, temporary "
                                      "files, and files that are not block files."));
    command.addRootsArgument();
    command.addSubCacheOption(QStringLiteral("Only the sub-cache NAME."));
    command.addJsonOption();
    command.addQuietOption();
    command.setNotes(QStringLiteral(
            "Block sizes are uncompressed sizes, from the files' headers; the ratio is\n"
            "uncompressed bytes over bytes on disk. A file's last use is its modification time.\n"
            "Temporary files are saves in progress, or left by a process that was killed;\n"
            "rvoddi trim removes those older than an hour.\n\n"
            "JSON (--json):\n"
            "  {\"version\": 1, \"roots\": [ROOT], \"subCaches\": N, \"blockFiles\": N, \"bytes\": "
            "N,\n"
            "   \"uncompressedBytes\": N, \"compressionRatio\": X, \"badHeaders\": N,\n"
            "   \"codecs\": {\"zlib\": {\"files\": N, \"bytes\": N}, \"lz4\": {...}, \"zstd\": "
            "{...},\n"
            "              \"unknown\": {...}},\n"
            "   \"blockSizes\": [{\"below\": BYTES or null, \"files\": N, \"bytes\": N}],\n"
            "   \"lastUse\": [{\"below\": SECONDS or null, \"files\": N, \"bytes\": N}],\n"
            "   \"temporaryFiles\": {\"files\": N, \"bytes\": N, \"olderThanAnHour\": N},\n"
            "   \"otherFiles\": [{\"path\": PATH, \"bytes\": N}]}\n"
            "  Each bin counts the files below its bound and at or above the previous one."));
    if (const int status = command.parse(arguments, 1); status >= 0)
        return status;

    const QVector<RvoCacheScan::Root> roots = command.scan(command.positional());
    const qint64 now = RvoCacheScan::currentTimeMs();
    qint64 files = 0, bytes = 0, uncompressed = 0, badHeaders = 0, subCaches = 0;
    qint64 temporaryFiles = 0, temporaryBytes = 0, staleTemporaryFiles = 0;
    QVector<Bin> sizes = sizeBins();
    QVector<Bin> ages = ageBins();
    // Files and bytes of each codec (RvoBlockCodecSetting::Kind), then of
    // payloads that name none.
    constexpr int kUnknown = 3;
    const char *const codecNames[] = {"zlib", "lz4", "zstd", "unknown"};
    qint64 codecFiles[4] = {}, codecBytes[4] = {};
    QVector<RvoCacheScan::OtherFile> others;
    qint64 totalFiles = 0, totalBytes = 0;
    for (const RvoCacheScan::Root &root : roots) {
        totalFiles += root.blockFileCount();
        totalBytes += root.blockBytes();
    }
    RvoProgress progress(QStringLiteral("Reading headers"), totalFiles, totalBytes,
                         !command.quiet());
    for (const RvoCacheScan::Root &root : roots) {
        subCaches += root.subCaches.size();
        for (const RvoCacheScan::SubCache &subCache : root.subCaches) {
            for (const RvoCacheScan::BlockFile &file : subCache.blockFiles) {
                ++files;
                bytes += file.bytes;
                RvoBlockCodecSetting::Kind kind = RvoBlockCodecSetting::Zlib;
                bool known = false;
                const qint64 size
                        = RvoVerifier::blockSize(subCache.path(file), file.bytes, &kind, &known);
                if (size < 0) {
                    ++badHeaders;
                } else {
                    uncompressed += size;
                    count(sizes, size, file.bytes);
                    const int codec = known ? int(kind) : kUnknown;
                    ++codecFiles[codec];
                    codecBytes[codec] += file.bytes;
                }
                count(ages, (now - file.modifiedMs) / 1000, file.bytes);
                progress.update(files, bytes);
            }
            for (const RvoCacheScan::OtherFile &file : subCache.temporaryFiles) {
                ++temporaryFiles;
                temporaryBytes += file.bytes;
                if (now - file.modifiedMs > 3600 * 1000)
                    ++staleTemporaryFiles;
            }
            others += subCache.otherFiles;
        }
    }
    progress.finish();
    const double ratio = bytes > 0 ? double(uncompressed) / double(bytes) : 0.0;

    if (command.json()) {
        QJsonArray rootPaths, otherArray;
        for (const RvoCacheScan::Root &root : roots)
            rootPaths.append(root.path);
        for (const RvoCacheScan::OtherFile &file : std::as_const(others))
            otherArray.append(QJsonObject {{QStringLiteral("path"), file.path},
                                           {QStringLiteral("bytes"), file.bytes}});
        QJsonObject codecs;
        for (int codec = 0; codec <= kUnknown; ++codec)
            codecs.insert(QLatin1String(codecNames[codec]),
                          QJsonObject {{QStringLiteral("files"), codecFiles[codec]},
                                       {QStringLiteral("bytes"), codecBytes[codec]}});
        RvoCommand::printJson(QJsonObject {
                {QStringLiteral("version"), 1},
                {QStringLiteral("roots"), rootPaths},
                {QStringLiteral("subCaches"), subCaches},
                {QStringLiteral("blockFiles"), files},
                {QStringLiteral("bytes"), bytes},
                {QStringLiteral("uncompressedBytes"), uncompressed},
                {QStringLiteral("compressionRatio"), ratio},
                {QStringLiteral("badHeaders"), badHeaders},
                {QStringLiteral("codecs"), codecs},
                {QStringLiteral("blockSizes"), toJson(sizes)},
                {QStringLiteral("lastUse"), toJson(ages)},
                {QStringLiteral("temporaryFiles"),
                 QJsonObject {{QStringLiteral("files"), temporaryFiles},
                              {QStringLiteral("bytes"), temporaryBytes},
                              {QStringLiteral("olderThanAnHour"), staleTemporaryFiles}}},
                {QStringLiteral("otherFiles"), otherArray},
        });
        return command.status();
    }

    RvoCommand::print(QStringLiteral("block files      %1 in %2 sub-cache%3")
                              .arg(files)
                              .arg(subCaches)
                              .arg(subCaches == 1 ? "" : "s"));
    RvoCommand::print(QStringLiteral("bytes on disk    %1").arg(RvoUnits::bytes(bytes)));
    RvoCommand::print(QStringLiteral("uncompressed     %1 (ratio %2)")
                              .arg(RvoUnits::bytes(uncompressed))
                              .arg(ratio, 0, 'f', 2));
    if (badHeaders > 0)
        RvoCommand::print(
                QStringLiteral("bad headers      %1 (see rvoddi verify)").arg(badHeaders));
    // The codecs that hold files, in the order of their names above.
    QStringList held;
    for (int codec = 0; codec <= kUnknown; ++codec) {
        if (codecFiles[codec] > 0)
            held << QStringLiteral("%1 %2 (%3)")
                            .arg(QLatin1String(codecNames[codec]))
                            .arg(codecFiles[codec])
                            .arg(RvoUnits::bytes(codecBytes[codec]));
    }
    if (!held.isEmpty())
        RvoCommand::print(QStringLiteral("codecs           ") + held.join(QStringLiteral(", ")));
    printBins(QStringLiteral("block sizes"), sizes);
    printBins(QStringLiteral("last use"), ages);
    RvoCommand::print(QStringLiteral("temporary files  %1 (%2), %3 older than an hour")
                              .arg(temporaryFiles)
                              .arg(RvoUnits::bytes(temporaryBytes))
                              .arg(staleTemporaryFiles));
    RvoCommand::print(QStringLiteral("other files      %1").arg(others.size()));
    for (const RvoCacheScan::OtherFile &file : std::as_const(others))
        RvoCommand::print(QStringLiteral("  %1").arg(file.path));
    return command.status();
}
