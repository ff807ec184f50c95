// rvoddi-test-fault-child: the other processes of the process fault tests.
// Every digest it confirms is written as a line "SEED SIZE DIGEST", where
// testContent(SEED, SIZE) is the block's content.
//
//   kill SIDEFILE ROOT...   writes blocks to the roots (sub-cache "Faults")
//                           through a 1 MiB budget until it is killed; after
//                           each flush(true, AllThreads) appends the batch's
//                           lines to SIDEFILE
//   share DIR INDEX ROOT... one of three writers on the same roots
//                           (sub-cache "Shared"): waits for the other two,
//                           adds shared and own content, flushes, publishes
//                           its lines as DIR/INDEX.txt, lets its blocks go,
//                           then loads every block of the three files from
//                           disk and compares it byte for byte; exit code 1
//                           and a line on standard error per fault

#include "ManagerTestAccess.h"
#include "RvoHashManager.h"
#include "RvoWaitUntil_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QStringList>

#include <cstdio>
#include <random>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Manager = RvoDataBlockManager;

struct Added
{
    int seed;
    int size;
    RvoDataReference ref;
};

Added add(int seed, int size)
{
    return {seed, size,
            Manager::instance().addBlock(testContent(seed, size), RvoModifyAccessor::CacheContent,
                                         true)};
}

QByteArray lines(const QList<Added> &blocks)
{
    QByteArray text;
    for (const Added &block : blocks)
        text += QStringLiteral("%1 %2 %3\n")
                        .arg(block.seed)
                        .arg(block.size)
                        .arg(block.ref.hash())
                        .toLatin1();
    return text;
}

int killMode(const QString &sideFile)
{
    const int fd
            = ::open(QFile::encodeName(sideFile).constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
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
            Manager::instance().processIO();
        }
        Manager::instance().flush(true, Manager::AllThreads);
        // One write per batch: a kill cuts no line in two.
        const QByteArray text = lines(batch);
        if (::write(fd, text.constData(), size_t(text.size())) != text.size())
            return 2;
    }
}

int shareMode(const QString &dir, int index)
{
    const auto fileOf = [&dir](const QString &name) { return dir + QLatin1Char('/') + name; };
    // Start together, so that the three write the shared content at once.
    QFile(fileOf(QStringLiteral("ready-%1").arg(index))).open(QIODevice::WriteOnly);
    const bool allReady = waitUntil(
            [&] { return QDir(dir).entryList({QStringLiteral("ready-*")}).size() == 3; }, 60000);
    if (!allReady)
        return 3;
    QList<Added> blocks;
    for (int i = 0; i < 24; ++i) {
        blocks.append(add(i, 16384 * (1 + i % 8)));
        blocks.append(add(1000 * (index + 1) + i, 16384 * (1 + (i + index) % 8)));
        Manager::instance().processIO();
    }
    Manager::instance().flush(true, Manager::AllThreads);
    QSaveFile published(fileOf(QStringLiteral("%1.txt").arg(index)));
    if (!published.open(QIODevice::WriteOnly) || published.write(lines(blocks)) < 0
        || !published.commit())
        return 2;
    blocks.clear(); // the blocks leave memory: what follows reads files

    const QStringList names {QStringLiteral("0.txt"), QStringLiteral("1.txt"),
                             QStringLiteral("2.txt")};
    if (!waitUntil([&] { return QDir(dir).entryList(names).size() == 3; }, 120000))
        return 3;
    int faults = 0;
    for (const QString &name : names) {
        QFile file(fileOf(name));
        file.open(QIODevice::ReadOnly);
        for (const QByteArray &line : file.readAll().split('\n')) {
            const QList<QByteArray> fields = line.split(' ');
            if (fields.size() != 3)
                continue;
            const RvoSmartPointer<RvoDataHash> hash
                    = RvoHashManager::instance().getHash(QString::fromLatin1(fields.at(2)));
            const RvoDataReference ref = Manager::instance().getReference(hash.data());
            const RvoConstAccessor accessor = ref.constAccessor();
            if (bytesOf(accessor) != testContent(fields.at(0).toInt(), fields.at(1).toInt())) {
                std::fprintf(stderr, "process %d: block %s of %s differs\n", index,
                             fields.at(2).constData(), qPrintable(name));
                ++faults;
            }
        }
    }
    return faults ? 1 : 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    const QStringList args = app.arguments();
    const bool kill = args.value(1) == QStringLiteral("kill") && args.size() >= 4;
    const bool share = args.value(1) == QStringLiteral("share") && args.size() >= 5;
    if (!kill && !share)
        return 2;
    Manager &manager = Manager::instance();
    manager.setup(args.mid(kill ? 3 : 4), 1 << 20, 7);
    manager.setSubCache(kill ? QStringLiteral("Faults") : QStringLiteral("Shared"));
    const int result = kill ? killMode(args.at(2)) : shareMode(args.at(2), args.at(3).toInt());
    manager.cleanUp();
    return result;
}
