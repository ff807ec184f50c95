// rvoddi-test-child MODE ...: the other processes of the tests that need
// more than one. The queue, kill, share and remote modes write a line "SEED
// SIZE DIGEST" per block they stored, testContent(SEED, SIZE) being its
// content.
//
// queue ROOT SUBCACHE BUCKETS SEED...: stores testContent(SEED), prints its
//     line and returns from main with the saves still queued: the manager's
//     exit clean-up must write them.
// hold ROOT SUBCACHE SEED...: keeps testContent(SEED, 1000) live with garbage
//     collection on until standard input closes; prints each digest's text
//     form, "ready" once the blocks are on disk, and "skipped" when its
//     collector first skips a pass because another process holds the
//     sub-cache.
// kill SIDEFILE ROOT...: writes blocks (sub-cache "Faults", 1 MiB budget)
//     until killed, appending each batch's lines to SIDEFILE once flushed.
// share DIR INDEX ROOT...: one of three writers (sub-cache "Shared"): waits
//     for the other two, adds shared and own content, flushes, publishes its
//     lines as DIR/INDEX.txt, lets its blocks go, then reads every block of
//     the three files back from disk; exit code 1 and a line on standard
//     error per block that differs.
// remote SIDEFILE COUNT ROOT: the first machine of the remote tier tests:
//     adds COUNT blocks with the remote tier of RVODDI_REMOTE_STORAGE and
//     writes their lines to SIDEFILE once they are on disk and uploaded.

#include "ManagerTestAccess.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QSaveFile>

#include <cstdio>
#include <random>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Prints a line on standard output at once.
void say(const QString &line)
{
    std::printf("%s\n", qPrintable(line));
    std::fflush(stdout);
}

int queueMode(const QStringList &args)
{
    manager().setup({args.at(2)}, -1, args.at(4).toInt());
    manager().setSubCache(args.at(3));
    QList<RvoSmartPointer<RvoDataHash>> hashes;
    for (const QString &seed : args.mid(5)) {
        const QByteArray content = testContent(seed.toInt());
        hashes.append(digestOf(content));
        RvoDataBlockManagerTestAccess::makeBlockLive(hashes.last().data(),
                                                     new RvoDataBlock(content));
        say(QString("%1 %2 %3").arg(seed).arg(content.size()).arg(hashes.last()->toString()));
    }
    return 0;
}

std::atomic<bool> g_Skipped {false};

void noteSkippedPass(QtMsgType, const QMessageLogContext &context, const QString &message)
{
    if (qstrcmp(context.category, "rvoddi") == 0
        && message.endsWith("is in use by another process: not collected")
        && !g_Skipped.exchange(true))
        say("skipped");
}

int holdMode(const QStringList &args)
{
    manager().setup({args.at(2)}, -1, 10);
    manager().setSubCache(args.at(3));
    QList<RvoDataReference> refs;
    for (const QString &seed : args.mid(4)) {
        refs.append(addBlock(testContent(seed.toInt(), 1000)));
        say(refs.last().hash());
    }
    manager().flush(true, RvoDataBlockManager::AllThreads);
    say("ready");
    manager().startGarbageCollection();
    while (std::fgetc(stdin) != EOF) { }
    refs.clear();
    manager().cleanUp();
    return 0;
}

struct Added
{
    int seed, size;
    RvoDataReference ref;
};

Added add(int seed, int size)
{
    return {seed, size, addBlock(testContent(seed, size))};
}

QByteArray lines(const QList<Added> &blocks)
{
    QByteArray text;
    for (const Added &block : blocks)
        text += QString::asprintf("%d %d %s\n", block.seed, block.size,
                                  qPrintable(block.ref.hash()))
                        .toLatin1();
    return text;
}

int killMode(const QString &sideFile)
{
    const int fd = ::open(QFile::encodeName(sideFile), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0)
        return 2;
    std::mt19937 random(std::random_device {}());
    for (;;) {
        QList<Added> batch;
        for (int i = 0; i < 4; ++i) {
            // Half from a small set, so that later runs meet files that
            // exist already.
            const int seed = (random() & 1) ? int(random() % 32) : int(random() >> 1);
            batch.append(add(seed, 16384 * int(1 + random() % 16)));
            manager().processIO();
        }
        manager().flush(true, RvoDataBlockManager::AllThreads);
        // One write per batch: a kill cuts no line in two.
        const QByteArray text = lines(batch);
        if (::write(fd, text.constData(), size_t(text.size())) != text.size())
            return 2;
    }
}

int shareMode(const QString &dir, int index)
{
    const auto fileOf = [&dir](const QString &name) { return dir + '/' + name; };
    // Start together, so that the three write the shared content at once.
    QFile(fileOf(QString("ready-%1").arg(index))).open(QIODevice::WriteOnly);
    if (!waitUntil([&] { return QDir(dir).entryList({"ready-*"}).size() == 3; }, 60000))
        return 3;
    QList<Added> blocks;
    for (int i = 0; i < 24; ++i) {
        blocks.append(add(i, 16384 * (1 + i % 8)));
        blocks.append(add(1000 * (index + 1) + i, 16384 * (1 + (i + index) % 8)));
        manager().processIO();
    }
    manager().flush(true, RvoDataBlockManager::AllThreads);
    QSaveFile published(fileOf(QString("%1.txt").arg(index)));
    if (!published.open(QIODevice::WriteOnly) || published.write(lines(blocks)) < 0
        || !published.commit())
        return 2;
    blocks.clear(); // the blocks leave memory: what follows reads files

    const QStringList names {"0.txt", "1.txt", "2.txt"};
    if (!waitUntil([&] { return QDir(dir).entryList(names).size() == 3; }, 120000))
        return 3;
    int faults = 0;
    for (const QString &name : names) {
        const QStringList lost = lostBlocks(readFile(fileOf(name)));
        for (const QString &text : lost)
            std::fprintf(stderr, "process %d: block %s of %s differs\n", index, qPrintable(text),
                         qPrintable(name));
        faults += int(lost.size());
    }
    return faults ? 1 : 0;
}

int remoteMode(const QString &sideFile, int count)
{
    QList<Added> blocks;
    for (int seed = 0; seed < count; ++seed) {
        blocks.append(add(seed, 4096 * (1 + seed % 8)));
        manager().processIO();
    }
    manager().flush(true, RvoDataBlockManager::AllThreads);
    return writeFile(sideFile, lines(blocks)) ? 0 : 2;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    if (mode == "hold") {
        qInstallMessageHandler(noteSkippedPass);
        return args.size() >= 5 ? holdMode(args) : 2;
    }
    QLoggingCategory::setFilterRules("rvoddi.debug=false");
    if (mode == "queue")
        return args.size() >= 6 ? queueMode(args) : 2;
    int result = 2;
    if (mode == "remote" && args.size() == 5) {
        manager().setup({args.at(4)}, 64 << 20, 10); // adding is never held back by the writes
        result = remoteMode(args.at(2), args.at(3).toInt());
    } else if (mode == "kill" && args.size() >= 4) {
        manager().setup(args.mid(3), 1 << 20, 7);
        manager().setSubCache("Faults");
        result = killMode(args.at(2));
    } else if (mode == "share" && args.size() >= 5) {
        manager().setup(args.mid(4), 1 << 20, 7);
        manager().setSubCache("Shared");
        result = shareMode(args.at(2), args.at(3).toInt());
    }
    manager().cleanUp();
    return result;
}
