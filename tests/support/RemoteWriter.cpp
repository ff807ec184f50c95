// rvoddi-test-remote-writer SIDEFILE COUNT ROOT: the first machine of the
// remote tier tests. Adds COUNT blocks to ROOT with the remote tier of
// RVODDI_REMOTE_STORAGE, flushes (every block on disk and uploaded), and
// writes a line "SEED SIZE DIGEST" per block to SIDEFILE, where
// testContent(SEED, SIZE) is the block's content.

#include "ManagerTestAccess.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    const QStringList args = app.arguments();
    if (args.size() != 4)
        return 2;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setup({args.at(3)}, 64 << 20, 10);
    QByteArray lines;
    QList<RvoDataReference> refs;
    for (int seed = 0; seed < args.at(2).toInt(); ++seed) {
        const int size = 4096 * (1 + seed % 8);
        refs.append(addBlock(testContent(seed, size)));
        lines += QStringLiteral("%1 %2 %3\n")
                         .arg(seed)
                         .arg(size)
                         .arg(refs.last().hash())
                         .toLatin1();
        manager.processIO();
    }
    manager.flush(true, RvoDataBlockManager::AllThreads);
    QFile side(args.at(1));
    const bool written = side.open(QIODevice::WriteOnly) && side.write(lines) == lines.size();
    refs.clear();
    manager.cleanUp();
    return written ? 0 : 2;
}
