// rvoddi-test-child [--exit-queued] ROOT SUBCACHE BUCKETS SEED...: a second
// process that stores test content for the seeds under ROOT and prints each
// digest's text form, so that a test can read the blocks back in its own
// process. With --exit-queued it returns from main as soon as the saves are
// queued, without flush or cleanUp: the manager's exit clean-up must write
// them.

#include "ManagerTestAccess.h"
#include "RvoHashManager.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QStringList>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    QStringList args = app.arguments();
    const bool exitQueued = args.size() > 1 && args.at(1) == QStringLiteral("--exit-queued");
    if (exitQueued)
        args.removeAt(1);
    if (args.size() < 5)
        return 2;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setup({args.at(1)}, -1, args.at(3).toInt());
    manager.setSubCache(args.at(2));
    QList<RvoSmartPointer<RvoDataHash>> hashes;
    for (const QString &seed : args.mid(4)) {
        const QByteArray content = testContent(seed.toInt());
        hashes.append(RvoHashManager::instance().getHash(content));
        RvoDataBlockManagerTestAccess::makeBlockLive(hashes.last().data(),
                                                     new RvoDataBlock(content));
    }
    if (!exitQueued)
        manager.flush(false, RvoDataBlockManager::WriteThreads);
    for (const RvoSmartPointer<RvoDataHash> &hash : hashes)
        std::printf("%s\n", qPrintable(hash->toString()));
    std::fflush(stdout);
    if (!exitQueued)
        manager.cleanUp();
    return 0;
}
