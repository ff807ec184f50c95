#include "DdiTester.h"
#include "ManagerTestAccess.h"
#include "RvoSampleImages_p.h"
#include "RvoSelfCheckHooks_p.h"

#include <QProcess>
#include <QRegularExpression>

namespace {

// The checks of a run.
constexpr int kChecks = 21;

struct TesterRun
{
    int failures = -1;
    QStringList lines;
};

// Runs the tester at the smallest scale and captures what it prints.
TesterRun runTester(const QString &dataDirectory, RvoSelfCheckHooks *hooks = nullptr,
                    const QString &cacheDirectory = QString(), bool showProgress = false)
{
    DdiTester tester;
    tester.setTestDataDirectory(dataDirectory);
    tester.setCacheDirectory(cacheDirectory);
    tester.setShowProgress(showProgress);
    rvoSetSelfCheckHooks(tester, hooks);
    StdoutCapture capture;
    const int failures = tester.runAllTest(0);
    return {failures, capture.lines()};
}

// The line of the named check, or an empty string.
QString lineOf(const TesterRun &run, const QString &check)
{
    const QRegularExpression line(
            QString("^\\[( OK |!!)\\] %1(: |$)").arg(QRegularExpression::escape(check)));
    return run.lines.filter(line).value(0);
}

QStringList failedLines(const TesterRun &run)
{
    return run.lines.filter(QRegularExpression("^(?!\\[ OK \\] )"));
}

// Name and content of every entry in a directory.
QMap<QString, QByteArray> snapshot(const QString &directory)
{
    QMap<QString, QByteArray> files;
    for (const QFileInfo &entry : QDir(directory).entryInfoList(
                 QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name))
        files.insert(entry.fileName(), readFile(entry.filePath()));
    return files;
}

// Breaks what a test asks for while the tester runs.
class Breakage : public RvoSelfCheckHooks
{
public:
    // The first known answer of each of these lengths expects another digest.
    void knownAnswersLoaded(QVector<RvoSkeinKnownAnswers::Vector> &answers) override
    {
        for (int bits : m_WrongDigestBits) {
            for (RvoSkeinKnownAnswers::Vector &answer : answers) {
                if (answer.hashBits == bits) {
                    answer.digest[0] = char(answer.digest.at(0) ^ 1);
                    m_Changed[bits] = QString::fromLatin1(answer.digest.toHex());
                    break;
                }
            }
        }
    }

    void blocksOnDisk(const QString &subCacheDirectory,
                      const QList<RvoDataReference> &blocks) override
    {
        ASSERT_FALSE(blocks.isEmpty());
        m_FirstBlock = blocks.first().hash();
        if (m_LibraryReport) // a broken invariant while a check runs
            EXPECT_TRUE(RvoHashManager::instance().addHash(nullptr).isNull());
        if (!m_CorruptAndHold)
            return;
        m_Held = blocks.first(); // beyond the run
        const QString path = manager().getBlockDestination(QFileInfo(subCacheDirectory).fileName(),
                                                           m_FirstBlock);
        ASSERT_TRUE(path.startsWith(subCacheDirectory)) << path.toStdString();
        // In the middle of the compressed payload: the file stays as long.
        const QByteArray file = readFile(path);
        ASSERT_TRUE(writeFile(path, flipped(file, 12 + int(file.size() - 12) / 2)));
    }

    QList<int> m_WrongDigestBits;
    bool m_LibraryReport = false;
    bool m_CorruptAndHold = false; // the first block's file, and a reference to it
    QMap<int, QString> m_Changed;
    QString m_FirstBlock;
    RvoDataReference m_Held;
};

} // namespace

TEST(DdiTester, MissingDataDirectoryIsFilledWithSamplesAndEveryCheckPasses)
{
    QTemporaryDir parent;
    const QString data = parent.filePath("not/yet/there");
    TesterRun run = runTester(data, nullptr, QString(), true);
    EXPECT_EQ(run.failures, 0);
    ASSERT_EQ(run.lines.size(), kChecks) << run.lines.join('\n').toStdString();
    // Progress shows each check as it starts and replaces it with the result.
    for (QString &line : run.lines) {
        const QString started = line.section("\r\033[K", 0, 0);
        line = line.section("\r\033[K", 1);
        EXPECT_TRUE(started.startsWith("[ .. ] ") && line.startsWith("[ OK ] " + started.mid(7)))
                << line.toStdString();
    }

    // The samples, each raw file holding its PNG's pixels (the sample check
    // compares them), are the same on every generation.
    EXPECT_TRUE(lineOf(run, "Sample files").startsWith("[ OK ] Sample files: 12 files, "));
    QTemporaryDir again;
    QString error;
    RvoSampleImages::generate(again.path(), &error);
    EXPECT_EQ(snapshot(again.path()), snapshot(data));

    // The timing checks print their figures.
    const QRegularExpression figure(": \\d+\\.\\d MB/s");
    for (const char *check : {"Hashing speed", "Compression speed", "Write speed", "Read speed"})
        EXPECT_TRUE(figure.match(lineOf(run, check)).hasMatch()) << check;
    EXPECT_TRUE(lineOf(run, "Read speed").contains("blocks/s"));
}

TEST(DdiTester, DataDirectoryWithFilesIsUsedAsItIsAndLeftUnchanged)
{
    QTemporaryDir data;
    // 600,000 bytes: two full blocks and a short one; a second file of one.
    ASSERT_TRUE(writeFile(data.filePath("tiles.bin"), testContent(1, 600000)));
    ASSERT_TRUE(writeFile(data.filePath("notes.txt"), QByteArray("host data\n")));
    QDir(data.path()).mkdir("subdirectory");
    const QMap<QString, QByteArray> before = snapshot(data.path());
    const TesterRun run = runTester(data.path());
    EXPECT_EQ(run.failures, 0);
    EXPECT_EQ(lineOf(run, "Sample files"), "[ OK ] Sample files: 2 files, 4 blocks, 0.6 MB");
    EXPECT_EQ(snapshot(data.path()), before);
}

// The report stays off the output.
TEST(DdiTester, LibraryReportDuringACheckFailsThatCheck)
{
    QTemporaryDir data;
    ASSERT_TRUE(writeFile(data.filePath("tile.bin"), testContent(1, 1000)));
    Breakage report;
    report.m_LibraryReport = true;
    const TesterRun run = runTester(data.path(), &report);
    EXPECT_EQ(run.failures, 1);
    EXPECT_EQ(failedLines(run),
              QStringList {"[!!] Write and read back every sample block: expected "
                           "no report from the library, saw \"Null Hash passed to "
                           "addHash\""});
    EXPECT_EQ(run.lines.size(), kChecks);
}

// A reference held past the run fails the consistency report, and the
// garbage collection check too: it holds a digest whose (corrupted) file is
// gone.
TEST(DdiTester, EachBrokenPartFailsItsOwnCheckOnly)
{
    QTemporaryDir data;
    Breakage broken;
    // A whole-byte message at 1024 bits, a partial-byte one at 160.
    broken.m_WrongDigestBits = {1024, 160};
    broken.m_CorruptAndHold = true;
    const TesterRun run = runTester(data.path(), &broken);
    EXPECT_EQ(run.failures, 5);
    const QStringList failed = failedLines(run);
    ASSERT_EQ(failed.size(), 5) << failed.join('\n').toStdString();
    const QStringList expected {QString("[!!] Skein-256 known answers: expected %1, saw ")
                                        .arg(broken.m_Changed.value(160)),
                                QString("[!!] Skein-1024 known answers: expected %1, saw ")
                                        .arg(broken.m_Changed.value(1024)),
                                "[!!] Write and read back every sample block: expected the payload "
                                "to uncompress to the block, saw ",
                                "[!!] Garbage collection: "};
    for (int i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(failed.at(i).startsWith(expected.at(i))) << failed.at(i).toStdString();
    EXPECT_TRUE(failed.at(2).contains(broken.m_FirstBlock)) << failed.at(2).toStdString();
    EXPECT_EQ(failed.at(4),
              QString("[!!] Consistency report after the run: expected no live digest "
                      "reported, saw 1 reported: There is a live hash '%1' (ref count = "
                      "1) that has been cached, aborting")
                      .arg(broken.m_Held.hash()));
    broken.m_Held = RvoDataReference();
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
}

// The host's configuration is untouched, and no sample is made.
TEST(DdiTester, LibraryInUseStopsTheRunAtItsFirstCheck)
{
    QTemporaryDir data;
    ManagerSetup setup;
    const TesterRun run = runTester(data.path());
    EXPECT_EQ(run.failures, 1);
    EXPECT_EQ(run.lines,
              QStringList {QString("[!!] Library idle before the run: expected the "
                                   "block manager not set up, saw it set up on %1")
                                   .arg(setup.root())});
    EXPECT_EQ(manager().cacheRoots(), setup.roots());
    EXPECT_TRUE(QDir(data.path()).isEmpty());
}

TEST(DdiTester, CacheDirectoryThatCannotBeMadeFailsOnlyTheChecksThatNeedIt)
{
    QTemporaryDir data;
    QTemporaryDir parent;
    const QString notADirectory = parent.filePath("file");
    ASSERT_TRUE(writeFile(notADirectory, QByteArray("x")));
    const TesterRun run = runTester(data.path(), nullptr, notADirectory);
    EXPECT_EQ(run.failures, 10) << run.lines.join('\n').toStdString();
    EXPECT_EQ(lineOf(run, "Preload"),
              QString("[!!] Preload: expected a cache directory at %1, saw none could be "
                      "made")
                      .arg(notADirectory));
    EXPECT_TRUE(lineOf(run, "Hashing speed").startsWith("[ OK ] "));
}

TEST(DdiTester, ToolExitCodeSaysWhetherEveryCheckPassed)
{
    QTemporaryDir data;
    const auto runTool = [](const QStringList &arguments, QStringList *lines) {
        QProcess tool;
        tool.start(QStringLiteral(RVODDI_SELFCHECK_TOOL), arguments);
        EXPECT_TRUE(tool.waitForFinished(600000));
        *lines = QString::fromLocal8Bit(tool.readAllStandardOutput())
                         .split('\n', Qt::SkipEmptyParts);
        return tool.exitCode();
    };
    const QStringList arguments {"--data", data.path(), "--scale", "0"};
    QStringList lines;
    EXPECT_EQ(runTool(arguments, &lines), 0);
    EXPECT_EQ(lines.filter("[ OK ] ").size(), kChecks);

    const QFileInfo raw = QDir(data.path()).entryInfoList({"*.argb32"}).value(0);
    ASSERT_TRUE(writeFile(raw.filePath(), flipped(readFile(raw.filePath()), 10)));
    EXPECT_EQ(runTool(arguments, &lines), 1);
    EXPECT_EQ(lines.filter("[!!] "),
              QStringList {QString("[!!] Sample files: expected %1 to hold the pixels of "
                                   "%2.png, saw a difference at byte 10")
                                   .arg(raw.fileName(), raw.completeBaseName())});

    EXPECT_EQ(runTool({"--scale", "fast"}, &lines), 2);
    EXPECT_TRUE(lines.isEmpty());
}
