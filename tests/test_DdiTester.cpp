#include "DdiTester.h"
#include "ManagerTestAccess.h"
#include "OutputCapture.h"
#include "RvoDataReference.h"
#include "RvoHashManager.h"
#include "RvoSampleImages_p.h"
#include "RvoSelfCheckHooks_p.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// Every check of a run, in order.
const QStringList kChecks = {
        QStringLiteral("Library idle before the run"),
        QStringLiteral("Sample files"),
        QStringLiteral("Skein-256 known answers"),
        QStringLiteral("Skein-512 known answers"),
        QStringLiteral("Skein-1024 known answers"),
        QStringLiteral("Digest text forms"),
        QStringLiteral("Digest registry under threads"),
        QStringLiteral("Block compression round trip"),
        QStringLiteral("Disk layout: roots and buckets"),
        QStringLiteral("Write and read back every sample block"),
        QStringLiteral("Eviction and reload under a small budget"),
        QStringLiteral("Pending references"),
        QStringLiteral("Preload"),
        QStringLiteral("Group blocks"),
        QStringLiteral("Result cache"),
        QStringLiteral("Garbage collection"),
        QStringLiteral("Hashing speed"),
        QStringLiteral("Compression speed"),
        QStringLiteral("Write speed"),
        QStringLiteral("Read speed"),
        QStringLiteral("Consistency report after the run"),
};

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
    TesterRun run;
    StdoutCapture capture;
    run.failures = tester.runAllTest(0);
    run.lines = capture.lines();
    return run;
}

// The line of the named check, or an empty string.
QString lineOf(const TesterRun &run, const QString &check)
{
    const QRegularExpression line(QStringLiteral("^\\[( OK |!!)\\] %1(: |$)")
                                          .arg(QRegularExpression::escape(check)));
    return run.lines.filter(line).value(0);
}

QStringList failedLines(const TesterRun &run)
{
    return run.lines.filter(QRegularExpression(QStringLiteral("^(?!\\[ OK \\] )")));
}

// Name and content digest of every file in a directory.
QMap<QString, QByteArray> snapshot(const QString &directory)
{
    QMap<QString, QByteArray> files;
    const QFileInfoList entries = QDir(directory).entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &entry : entries) {
        QFile file(entry.filePath());
        const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        files.insert(entry.fileName(), QCryptographicHash::hash(bytes, QCryptographicHash::Sha256));
    }
    return files;
}

void flipByte(const QString &path, qint64 offset)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite)) << path.toStdString();
    ASSERT_TRUE(file.seek(offset));
    char byte = 0;
    ASSERT_EQ(file.read(&byte, 1), 1);
    byte = char(byte ^ 0x5a);
    ASSERT_TRUE(file.seek(offset));
    ASSERT_EQ(file.write(&byte, 1), 1);
}

// Damages the block file of the first sample block once it is on disk.
class CorruptFirstBlockFile : public RvoSelfCheckHooks
{
public:
    void blocksOnDisk(const QString &subCacheDirectory,
                      const QList<RvoDataReference> &blocks) override
    {
        ASSERT_FALSE(blocks.isEmpty());
        m_Text = blocks.first().hash();
        const QString path = RvoDataBlockManager::instance().getBlockDestination(
                QFileInfo(subCacheDirectory).fileName(), m_Text);
        ASSERT_TRUE(path.startsWith(subCacheDirectory)) << path.toStdString();
        // In the middle of the compressed payload: the file stays as long.
        flipByte(path, 12 + (QFileInfo(path).size() - 12) / 2);
    }

    QString m_Text;
};

// Expects another digest than the true one for one known answer.
class WrongExpectedDigest : public RvoSelfCheckHooks
{
public:
    explicit WrongExpectedDigest(int hashBits)
        : m_HashBits(hashBits)
    {
    }
    void knownAnswersLoaded(QVector<RvoSkeinKnownAnswers::Vector> &answers) override
    {
        for (RvoSkeinKnownAnswers::Vector &answer : answers) {
            if (answer.hashBits == m_HashBits) {
                answer.digest[0] = char(answer.digest.at(0) ^ 1);
                m_Changed = QString::fromLatin1(answer.digest.toHex());
                return;
            }
        }
    }

    int m_HashBits;
    QString m_Changed;
};

// Keeps a reference to a sample block beyond the run.
class HoldReference : public RvoSelfCheckHooks
{
public:
    void blocksOnDisk(const QString &, const QList<RvoDataReference> &blocks) override
    {
        m_Held = blocks.first();
    }

    RvoDataReference m_Held;
};

// Makes the library report a broken invariant while a check runs.
class LibraryReport : public RvoSelfCheckHooks
{
public:
    void blocksOnDisk(const QString &, const QList<RvoDataReference> &) override
    {
        EXPECT_TRUE(RvoHashManager::instance().addHash(nullptr).isNull());
    }
};

} // namespace

TEST(DdiTester, MissingDataDirectoryIsFilledWithSamplesAndEveryCheckPasses)
{
    QTemporaryDir parent;
    const QString data = parent.filePath(QStringLiteral("not/yet/there"));
    const TesterRun run = runTester(data);
    EXPECT_EQ(run.failures, 0);
    EXPECT_EQ(failedLines(run), QStringList());
    ASSERT_EQ(run.lines.size(), kChecks.size()) << run.lines.join(QLatin1Char('\n')).toStdString();
    for (int i = 0; i < kChecks.size(); ++i)
        EXPECT_FALSE(lineOf(run, kChecks.at(i)).isEmpty()) << kChecks.at(i).toStdString();
    // The manager is left as it was found.
    EXPECT_FALSE(RvoDataBlockManager::instance().isInitialized());
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);

    // PNG and raw image samples, each raw file holding its PNG's pixels.
    const QStringList files = QDir(data).entryList(QDir::Files, QDir::Name);
    ASSERT_EQ(files.size(), 12);
    EXPECT_EQ(QDir(data).entryList({QStringLiteral("*.png")}, QDir::Files).size(), 6);
    for (const QString &file : QDir(data).entryList({QStringLiteral("*.argb32")}, QDir::Files))
        EXPECT_EQ(RvoSampleImages::compareRawWithPng(data + QLatin1Char('/') + file), QString());
    EXPECT_TRUE(lineOf(run, QStringLiteral("Sample files"))
                        .startsWith(QStringLiteral("[ OK ] Sample files: 12 files, ")));

    // The timing checks print their figures.
    const QRegularExpression figure(QStringLiteral(": \\d+\\.\\d MB/s"));
    for (const QString &check : kChecks.mid(16, 4))
        EXPECT_TRUE(figure.match(lineOf(run, check)).hasMatch()) << check.toStdString();
    EXPECT_TRUE(lineOf(run, QStringLiteral("Read speed")).contains(QStringLiteral("blocks/s")));
}

TEST(DdiTester, GeneratedSamplesAreTheSameOnEveryRun)
{
    QTemporaryDir first;
    QTemporaryDir second;
    QString error;
    RvoSampleImages::generate(first.path(), &error);
    RvoSampleImages::generate(second.path(), &error);
    EXPECT_EQ(error, QString());
    EXPECT_EQ(snapshot(first.path()), snapshot(second.path()));
}

TEST(DdiTester, DataDirectoryWithFilesIsUsedAsItIsAndLeftUnchanged)
{
    QTemporaryDir data;
    // 600,000 bytes: two full blocks and a short one; a second file of one.
    QByteArray tiles(600000, Qt::Uninitialized);
    for (int i = 0; i < tiles.size(); ++i)
        tiles[i] = char((i * 7 + i / 1000) & 0xff);
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("tiles.bin")), tiles));
    ASSERT_TRUE(writeFile(data.filePath(QStringLiteral("notes.txt")), QByteArray("host data\n")));
    QDir(data.path()).mkdir(QStringLiteral("subdirectory"));
    const QMap<QString, QByteArray> before = snapshot(data.path());

    const TesterRun run = runTester(data.path());
    EXPECT_EQ(run.failures, 0) << failedLines(run).join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(lineOf(run, QStringLiteral("Sample files")),
              QStringLiteral("[ OK ] Sample files: 2 files, 4 blocks, 0.6 MB"));
    EXPECT_EQ(snapshot(data.path()), before);
}

TEST(DdiTester, ProgressShowsEachCheckAsItStartsAndReplacesItWithTheResult)
{
    QTemporaryDir data;
    const TesterRun run = runTester(data.path(), nullptr, QString(), true);
    EXPECT_EQ(run.failures, 0);
    const QString text = run.lines.join(QLatin1Char('\n'));
    for (const QString &check : kChecks) {
        EXPECT_TRUE(text.contains(QStringLiteral("[ .. ] %1\r\033[K[ OK ] %1").arg(check)))
                << check.toStdString();
    }
}

TEST(DdiTester, CorruptedRawSampleFailsTheSampleCheckOnly)
{
    QTemporaryDir data;
    QString error;
    const QStringList files = RvoSampleImages::generate(data.path(), &error);
    ASSERT_EQ(error, QString());
    const QString raw
            = files.filter(QStringLiteral("terrain")).filter(QStringLiteral(".argb32")).value(0);
    ASSERT_FALSE(raw.isEmpty());
    flipByte(raw, 123457);

    const TesterRun run = runTester(data.path());
    EXPECT_EQ(run.failures, 1);
    EXPECT_EQ(
            failedLines(run),
            QStringList {QStringLiteral("[!!] Sample files: expected %1 to hold the pixels of %2, "
                                        "saw a difference at byte 123457")
                                 .arg(QFileInfo(raw).fileName(),
                                      QFileInfo(raw).completeBaseName() + QStringLiteral(".png"))});
}

TEST(DdiTester, CorruptedPngSampleFailsTheSampleCheck)
{
    QTemporaryDir data;
    QString error;
    const QStringList files = RvoSampleImages::generate(data.path(), &error);
    const QString png
            = files.filter(QStringLiteral("gradients")).filter(QStringLiteral(".png")).value(0);
    ASSERT_FALSE(png.isEmpty());
    // Inside the image data: its checksums no longer hold.
    for (qint64 offset = 2000; offset < 2400; offset += 50)
        flipByte(png, offset);

    const TesterRun run = runTester(data.path());
    EXPECT_GE(run.failures, 1);
    const QString line = lineOf(run, QStringLiteral("Sample files"));
    EXPECT_TRUE(line.startsWith(QStringLiteral("[!!] Sample files: expected ")))
            << line.toStdString();
    EXPECT_TRUE(line.contains(QFileInfo(png).fileName())) << line.toStdString();
}

TEST(DdiTester, CorruptedBlockFileFailsTheWriteAndReadCheck)
{
    QTemporaryDir data;
    CorruptFirstBlockFile corrupt;
    const TesterRun run = runTester(data.path(), &corrupt);
    EXPECT_EQ(run.failures, 1);
    const QString line = lineOf(run, QStringLiteral("Write and read back every sample block"));
    EXPECT_TRUE(line.startsWith(QStringLiteral("[!!] Write and read back every sample block: "
                                               "expected the payload to uncompress to the block, "
                                               "saw ")))
            << line.toStdString();
    EXPECT_TRUE(line.contains(corrupt.m_Text)) << line.toStdString();
    EXPECT_EQ(failedLines(run), QStringList {line});
}

TEST(DdiTester, WrongExpectedDigestFailsItsKnownAnswerCheckOnly)
{
    // A whole-byte message at 1024 bits, a partial-byte one at 160.
    for (const auto &c : {qMakePair(1024, QStringLiteral("Skein-1024 known answers")),
                          qMakePair(160, QStringLiteral("Skein-256 known answers"))}) {
        QTemporaryDir data;
        WrongExpectedDigest wrong(c.first);
        const TesterRun run = runTester(data.path(), &wrong);
        EXPECT_EQ(run.failures, 1);
        const QString line = lineOf(run, c.second);
        EXPECT_TRUE(line.startsWith(
                QStringLiteral("[!!] %1: expected %2, saw ").arg(c.second, wrong.m_Changed)))
                << line.toStdString();
        EXPECT_EQ(failedLines(run), QStringList {line});
    }
}

TEST(DdiTester, ReferenceHeldPastTheRunFailsTheConsistencyReport)
{
    QTemporaryDir data;
    HoldReference hold;
    const TesterRun run = runTester(data.path(), &hold);
    EXPECT_GE(run.failures, 1);
    const QString text = hold.m_Held.hash();
    EXPECT_EQ(lineOf(run, QStringLiteral("Consistency report after the run")),
              QStringLiteral("[!!] Consistency report after the run: expected no live digest "
                             "reported, saw 1 reported: There is a live hash '%1' (ref count = "
                             "1) that has been cached, aborting")
                      .arg(text));
    hold.m_Held = RvoDataReference();
    EXPECT_EQ(RvoHashManager::instance().hashCount(), 0);
}

TEST(DdiTester, LibraryReportDuringACheckFailsThatCheckAndStaysOffTheOutput)
{
    QTemporaryDir data;
    LibraryReport report;
    const TesterRun run = runTester(data.path(), &report);
    EXPECT_EQ(run.failures, 1);
    EXPECT_EQ(failedLines(run),
              QStringList {QStringLiteral("[!!] Write and read back every sample block: expected "
                                          "no report from the library, saw \"Null Hash passed to "
                                          "addHash\"")});
    EXPECT_EQ(run.lines.size(), kChecks.size());
}

TEST(DdiTester, LibraryInUseStopsTheRunAtItsFirstCheck)
{
    QTemporaryDir data;
    ManagerSetup setup;
    const TesterRun run = runTester(data.path());
    EXPECT_EQ(run.failures, 1);
    EXPECT_EQ(run.lines,
              QStringList {QStringLiteral("[!!] Library idle before the run: expected the block "
                                          "manager not set up, saw it set up on %1")
                                   .arg(setup.root())});
    // The host's configuration is untouched, and no sample was made.
    EXPECT_TRUE(RvoDataBlockManager::instance().isInitialized());
    EXPECT_EQ(RvoDataBlockManager::instance().cacheRoots(), setup.roots());
    EXPECT_TRUE(QDir(data.path()).isEmpty());
}

TEST(DdiTester, CacheDirectoryThatCannotBeMadeFailsTheChecksThatNeedIt)
{
    QTemporaryDir data;
    QTemporaryDir parent;
    const QString notADirectory = parent.filePath(QStringLiteral("file"));
    ASSERT_TRUE(writeFile(notADirectory, QByteArray("x")));
    const TesterRun run = runTester(data.path(), nullptr, notADirectory);
    EXPECT_EQ(run.failures, 10) << run.lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(lineOf(run, QStringLiteral("Preload")),
              QStringLiteral("[!!] Preload: expected a cache directory at %1, saw none could be "
                             "made")
                      .arg(notADirectory));
    EXPECT_TRUE(lineOf(run, QStringLiteral("Hashing speed")).startsWith(QStringLiteral("[ OK ] ")));
}

TEST(DdiTester, ToolExitCodeSaysWhetherEveryCheckPassed)
{
    QTemporaryDir data;
    const auto runTool = [](const QStringList &arguments, QStringList *lines) {
        QProcess tool;
        tool.start(QStringLiteral(RVODDI_SELFCHECK_TOOL), arguments);
        EXPECT_TRUE(tool.waitForFinished(600000));
        *lines = QString::fromLocal8Bit(tool.readAllStandardOutput())
                         .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        return tool.exitCode();
    };
    const QStringList arguments {QStringLiteral("--data"), data.path(), QStringLiteral("--scale"),
                                 QStringLiteral("0")};
    QStringList lines;
    EXPECT_EQ(runTool(arguments, &lines), 0);
    EXPECT_EQ(lines.size(), kChecks.size());
    for (const QString &line : lines)
        EXPECT_TRUE(line.startsWith(QStringLiteral("[ OK ] "))) << line.toStdString();

    flipByte(QDir(data.path()).entryInfoList({QStringLiteral("*.argb32")}).value(0).filePath(), 10);
    EXPECT_EQ(runTool(arguments, &lines), 1);
    EXPECT_TRUE(lines.filter(QStringLiteral("[!!] Sample files: ")).size() == 1);

    EXPECT_EQ(runTool({QStringLiteral("--scale"), QStringLiteral("fast")}, &lines), 2);
    EXPECT_TRUE(lines.isEmpty());
}
