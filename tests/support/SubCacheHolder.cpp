// rvoddi-test-holder ROOT SUBCACHE SEED...: a second process that keeps the
// blocks of the seeds' test content live in SUBCACHE under ROOT, with
// garbage collection on, until its standard input closes. It prints each
// digest's text form, then "ready" once the blocks are on disk, and
// "skipped" when its collector first skips a pass because another process
// holds the sub-cache.

#include "ManagerTestAccess.h"

#include <QCoreApplication>
#include <QList>
#include <QStringList>

#include <atomic>
#include <cstdio>

namespace {

std::atomic<bool> g_Skipped {false};

void handleMessage(QtMsgType, const QMessageLogContext &context, const QString &message)
{
    if (qstrcmp(context.category, "rvoddi") == 0
        && message.endsWith(QStringLiteral("is in use by another process: not collected"))
        && !g_Skipped.exchange(true)) {
        std::printf("skipped\n");
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(handleMessage);
    const QStringList args = app.arguments();
    if (args.size() < 4)
        return 2;
    RvoDataBlockManager &manager = RvoDataBlockManager::instance();
    manager.setup({args.at(1)}, -1, 10);
    manager.setSubCache(args.at(2));
    QList<RvoDataReference> refs;
    for (const QString &seed : args.mid(3)) {
        refs.append(manager.addBlock(testContent(seed.toInt(), 1000),
                                     RvoModifyAccessor::CacheContent, true));
        std::printf("%s\n", qPrintable(refs.last().hash()));
    }
    manager.flush(true, RvoDataBlockManager::AllThreads);
    std::printf("ready\n");
    std::fflush(stdout);
    manager.startGarbageCollection();
    while (std::fgetc(stdin) != EOF) { }
    refs.clear();
    manager.cleanUp();
    return 0;
}
