// rvoddi ls ROOT...: one line per sub-cache under each root.

#include "RvoCommand.h"
#include "RvoProgress.h"
#include "RvoSubcommands.h"
#include "RvoUnits.h"
#include "RvoVerifier.h"

#include <QJsonArray>
#include <QJsonObject>

namespace {

struct Line
{
    QString name;
    qint64 files = 0;
    qint64 bytes = 0;
    qint64 uncompressedBytes = 0;
    qint64 badHeaders = 0;
    qint64 lastUseMs = 0;
    bool held = false;
};

QString padded(const QString &text, int width)
{
    return width < 0 ? text.leftJustified(-width) : text.rightJustified(width);
}

} // namespace

int lsCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("ls"), QStringLiteral("ROOT..."),
                       QStringLiteral("Lists the sub-caches under the cache roots: their block "
                                      "files, bytes on disk, bytes uncompressed (from the files' "
                                      "headers), last use, and whether a process holds them now."));
    command.addRootsArgument();
    command.addJsonOption();
    command.addQuietOption();
    command.setNotes(QStringLiteral(
            "The unnamed sub-cache (buckets right under the root) is listed as \"(unnamed)\".\n"
            "Last use is the newest modification time of its block files.\n\n"
            "JSON (--json):\n"
            "  {\"version\": 1, \"roots\": [{\"path\": ROOT, \"subCaches\": [\n"
            "    {\"name\": NAME, \"directory\": PATH, \"blockFiles\": N, \"bytes\": N,\n"
            "     \"uncompressedBytes\": N, \"badHeaders\": N, \"lastUse\": ISO-8601 UTC or \"\",\n"
            "     \"held\": BOOL}]}]}\n"
            "  badHeaders counts files whose header could not be read or is not sound; their\n"
            "  blocks are missing from uncompressedBytes."));
    if (const int status = command.parse(arguments, 1); status >= 0)
        return status;

    const QVector<RvoCacheScan::Root> roots = command.scan(command.positional());
    qint64 totalFiles = 0, totalBytes = 0;
    for (const RvoCacheScan::Root &root : roots) {
        totalFiles += root.blockFileCount();
        totalBytes += root.blockBytes();
    }
    RvoProgress progress(QStringLiteral("Reading headers"), totalFiles, totalBytes,
                         !command.quiet());
    qint64 doneFiles = 0, doneBytes = 0;
    QVector<QVector<Line>> lines;
    for (const RvoCacheScan::Root &root : roots) {
        QVector<Line> rootLines;
        for (const RvoCacheScan::SubCache &subCache : root.subCaches) {
            Line line;
            line.name = subCache.name;
            line.held = subCache.held;
            for (const RvoCacheScan::BlockFile &file : subCache.blockFiles) {
                ++line.files;
                line.bytes += file.bytes;
                line.lastUseMs = qMax(line.lastUseMs, file.modifiedMs);
                const qint64 size = RvoVerifier::blockSize(subCache.path(file), file.bytes);
                if (size < 0)
                    ++line.badHeaders;
                else
                    line.uncompressedBytes += size;
                progress.update(++doneFiles, doneBytes += file.bytes);
            }
            rootLines.append(line);
        }
        lines.append(rootLines);
    }
    progress.finish();

    if (command.json()) {
        QJsonArray rootArray;
        for (int r = 0; r < roots.size(); ++r) {
            QJsonArray subCaches;
            for (int s = 0; s < lines[r].size(); ++s) {
                const Line &line = lines[r][s];
                subCaches.append(QJsonObject {
                        {QStringLiteral("name"), line.name},
                        {QStringLiteral("directory"), roots[r].subCaches[s].directory},
                        {QStringLiteral("blockFiles"), line.files},
                        {QStringLiteral("bytes"), line.bytes},
                        {QStringLiteral("uncompressedBytes"), line.uncompressedBytes},
                        {QStringLiteral("badHeaders"), line.badHeaders},
                        {QStringLiteral("lastUse"), RvoUnits::isoTime(line.lastUseMs)},
                        {QStringLiteral("held"), line.held},
                });
            }
            rootArray.append(QJsonObject {{QStringLiteral("path"), roots[r].path},
                                          {QStringLiteral("subCaches"), subCaches}});
        }
        RvoCommand::printJson(
                QJsonObject {{QStringLiteral("version"), 1}, {QStringLiteral("roots"), rootArray}});
        return command.status();
    }

    int nameWidth = 9;
    for (const QVector<Line> &rootLines : std::as_const(lines)) {
        for (const Line &line : rootLines)
            nameWidth = qMax(nameWidth, int(line.name.size()));
    }
    const int widths[] = {-nameWidth, 7, 10, 12, -16, -4};
    auto row = [&](const QStringList &cells) {
        QStringList out;
        for (int i = 0; i < cells.size(); ++i)
            out.append(padded(cells[i], widths[i]));
        RvoCommand::print(QStringLiteral("  ") + out.join(QStringLiteral("  ")).trimmed());
    };
    for (int r = 0; r < roots.size(); ++r) {
        if (r > 0)
            RvoCommand::print(QString());
        RvoCommand::print(roots[r].path + QLatin1Char(':'));
        if (lines[r].isEmpty()) {
            RvoCommand::print(QStringLiteral("  (no sub-caches)"));
            continue;
        }
        row({QStringLiteral("SUB-CACHE"), QStringLiteral("FILES"), QStringLiteral("BYTES"),
             QStringLiteral("UNCOMPRESSED"), QStringLiteral("LAST USE"), QStringLiteral("HELD")});
        for (const Line &line : std::as_const(lines[r])) {
            row({line.name.isEmpty() ? QStringLiteral("(unnamed)") : line.name,
                 QString::number(line.files), RvoUnits::bytes(line.bytes),
                 RvoUnits::bytes(line.uncompressedBytes), RvoUnits::localTime(line.lastUseMs),
                 line.held ? QStringLiteral("yes") : QStringLiteral("no")});
        }
        qint64 bad = 0;
        for (const Line &line : std::as_const(lines[r]))
            bad += line.badHeaders;
        if (bad > 0)
            RvoCommand::print(
                    QStringLiteral("  %1 block files with a bad header (see rvoddi verify)")
                            .arg(bad));
    }
    return command.status();
}
