// Real processes on shared roots: a writer killed at random moments, and
// three writers at once. The other processes are rvoddi-test-child.

#include "ManagerTestAccess.h"
#include "RvoDiskLayout_p.h"
#include "RvoGarbageCollectorThread_p.h"

#include <QProcess>
#include <QThread>

#include <cstdio>
#include <random>

#include <signal.h>

namespace {

const QString kChild = QStringLiteral(RVODDI_TEST_CHILD);

// The state letter of process `pid` ('T' when stopped).
char processState(qint64 pid)
{
    const QByteArray stat = readFile(QString("/proc/%1/stat").arg(pid));
    const int end = stat.lastIndexOf(')'); // after the command name
    return end > 0 && end + 2 < stat.size() ? stat.at(end + 2) : '?';
}

// Whether process `pid` holds a block file or a temporary file under one of
// `roots` open (the log file there is always open).
bool holdsFileUnder(qint64 pid, const QStringList &roots)
{
    const QString fds = QString("/proc/%1/fd").arg(pid);
    for (const QString &fd : QDir(fds).entryList(QDir::AllEntries | QDir::System)) {
        const QFileInfo target(QFile::symLinkTarget(fds + '/' + fd));
        if (!isBlockFileName(target.fileName()) && target.suffix() != "tmp")
            continue;
        for (const QString &root : roots) {
            if (target.filePath().startsWith(root + '/'))
                return true;
        }
    }
    return false;
}

// Stops `pid` at random moments until it is caught in the middle of writing
// a file under `roots`, for at most `ms`, and lets it go on. Returns whether
// it was: then a kill at once lands inside that write.
bool stopWhileWriting(qint64 pid, const QStringList &roots, int ms, std::mt19937 &random)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        ::kill(pid_t(pid), SIGSTOP);
        const bool caught = waitUntil([pid] { return processState(pid) == 'T'; }, 1000)
                && holdsFileUnder(pid, roots);
        ::kill(pid_t(pid), SIGCONT);
        if (caught)
            return true;
        QThread::usleep(random() % 1000);
    }
    return false;
}

} // namespace

// A host killed at any moment, over and over on the same roots: what it had
// confirmed by a flush is all there, no block file is damaged, and the
// temporary files of cut-off writes are collected once they are old. Every
// other kill comes while the child writes a block file: at a random moment
// alone, that is rare.
TEST(RvoDataBlockManagerProcesses, BlocksOutliveAWriterKilledAtAnyMoment)
{
    const int kills = qEnvironmentVariable("RVODDI_KILLS", "40").toInt();
    QTemporaryDir dir;
    const QStringList roots {dir.filePath("a"), dir.filePath("b")};
    const QString sideFile = dir.filePath("confirmed.txt");
    std::mt19937 random(std::random_device {}());
    int whileWriting = 0;
    for (int i = 0; i < kills; ++i) {
        QProcess child;
        child.start(kChild, QStringList {"kill", sideFile} + roots);
        ASSERT_TRUE(child.waitForStarted());
        const int ms = int(random() % 2000);
        if (i % 2) {
            whileWriting += stopWhileWriting(child.processId(), roots, ms, random);
        } else {
            // The child writes until it is killed: finishing early is a fault.
            ASSERT_FALSE(child.waitForFinished(ms)) << child.readAllStandardError().constData();
        }
        child.kill();
        ASSERT_TRUE(child.waitForFinished(30000));
    }

    const QByteArray confirmed = readFile(sideFile);
    const DiskState before = checkDisk(roots);
    EXPECT_EQ(before.corrupt, QStringList());

    manager().setup(roots, -1, 7);
    manager().setSubCache("Faults");
    EXPECT_EQ(lostBlocks(confirmed), QStringList());

    // The collector takes temporary files only once they are old enough
    // not to be a write in progress.
    for (const QString &path : before.temporaries)
        ASSERT_TRUE(setAge(path, RvoGarbageCollectorThread::kStrayFileAgeSeconds + 60))
                << qPrintable(path);
    collectOnce();
    EXPECT_EQ(checkDisk(roots).temporaries, QStringList());
    manager().cleanUp();

    std::fprintf(stderr,
                 "kills %d (%d while writing), blocks confirmed %d, files checked %d, "
                 "temporary files removed %d\n",
                 kills, whileWriting, int(confirmed.count('\n')), before.blockFiles,
                 int(before.temporaries.size()));
}

// Three hosts on the same roots and sub-cache at once, adding shared and
// distinct content: each reads back every block the three confirmed, and
// every block file is sound.
TEST(RvoDataBlockManagerProcesses, ThreeProcessesShareOneRoot)
{
    QTemporaryDir dir;
    const QStringList roots {dir.filePath("a"), dir.filePath("b")};
    QProcess children[3];
    for (int i = 0; i < 3; ++i)
        children[i].start(kChild, QStringList {"share", dir.path(), QString::number(i)} + roots);
    for (QProcess &child : children) {
        EXPECT_TRUE(child.waitForFinished(180000));
        EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(child.exitCode(), 0) << child.readAllStandardError().constData();
    }
    const DiskState disk = checkDisk(roots);
    EXPECT_EQ(disk.corrupt, QStringList());
    EXPECT_EQ(disk.temporaries, QStringList());
    // 24 shared and 3 x 24 distinct blocks.
    EXPECT_EQ(disk.blockFiles, 96);
}
