// The rvoddi command, run as a program on caches that the library made.

#include "ManagerTestAccess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include <algorithm>

namespace {

struct Outcome
{
    int status = -1;
    QString out, err;
    // The standard output as JSON, to index with [] by key or position.
    QJsonValue json() const { return QJsonDocument::fromJson(out.toUtf8()).object(); }
};

// Stores blocks through the block manager, one sub-cache after another, and
// returns the paths of their block files. The manager stays set up, with the
// last sub-cache current (held), until cleanUp().
QStringList storeBlocks(const QString &root, const QStringList &subCaches, int perSubCache,
                        const QStringList &codecs = {})
{
    manager().setup({root}, qint64(256) << 20, 10);
    QStringList paths;
    int seed = 0;
    for (const QString &subCache : subCaches) {
        manager().setBlockCodec(codecs.value(int(paths.size()) / perSubCache));
        manager().setSubCache(subCache);
        QVector<RvoDataReference> references;
        for (int i = 0; i < perSubCache; ++i)
            references.append(addBlock(testContent(++seed, 100000)));
        manager().flush(true, RvoDataBlockManager::AllThreads);
        for (const RvoDataReference &reference : references)
            paths.append(
                    QDir::cleanPath(manager().getBlockDestination(subCache, reference.hash())));
    }
    return paths;
}

// Whether text is matched by pattern, in which "*" stands for any run of
// characters within one line and "**" for any run at all.
bool matches(const QString &text, const QString &pattern)
{
    QStringList anyRun = pattern.split(QStringLiteral("**"));
    for (QString &part : anyRun) {
        QStringList inLine = part.split('*');
        for (QString &piece : inLine)
            piece = QRegularExpression::escape(piece);
        part = inLine.join("[^\\n]*");
    }
    return QRegularExpression("\\A" + anyRun.join("[\\s\\S]*") + "\\z").match(text).hasMatch();
}

// Runs rvoddi and checks its exit status and both its outputs.
Outcome expectRun(const QStringList &arguments, int status, const QString &out,
                  const QString &err = QString())
{
    QProcess process;
    process.start(QStringLiteral(RVODDI_TOOL), arguments);
    Outcome run;
    if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit)
        run = {process.exitCode(), QString::fromLocal8Bit(process.readAllStandardOutput()),
               QString::fromLocal8Bit(process.readAllStandardError())};
    EXPECT_TRUE(run.status == status && matches(run.out, out) && matches(run.err, err))
            << "rvoddi " << arguments.join(' ').toStdString() << ": exit " << run.status << "\n"
            << (run.out + run.err).toStdString();
    return run;
}

} // namespace

// A root in a fresh directory, the manager cleaned up after each case.
class rvoddi : public ::testing::Test
{
protected:
    void TearDown() override { manager().cleanUp(); }

    QTemporaryDir dir;
    const QString root = dir.filePath("cache");
};

// Six block files, sorted by path; damage() spoils four, one per fault: cut
// short by a byte, a payload byte changed, another block's file under this
// name, and a file shorter than a header.
class rvoddiVerify : public rvoddi
{
protected:
    void SetUp() override
    {
        paths = storeBlocks(root, {"a"}, 6);
        manager().cleanUp();
        ASSERT_EQ(paths.size(), 6);
        std::sort(paths.begin(), paths.end());
    }
    void damage()
    {
        ASSERT_TRUE(QFile::resize(paths[0], QFileInfo(paths[0]).size() - 1));
        ASSERT_TRUE(writeFile(paths[1],
                              flipped(readFile(paths[1]), int(QFileInfo(paths[1]).size() / 2))));
        ASSERT_TRUE(writeFile(paths[2], readFile(paths[3])));
        ASSERT_TRUE(writeFile(paths[4], "12345"));
    }

    QStringList paths;
};

// Standard error gets a progress line only when it is a terminal: script(1)
// gives the program one and passes on what it draws there.
TEST_F(rvoddiVerify, ProgressIsDrawnOnlyOnATerminal)
{
    expectRun({"verify", root}, 0, "6 block files checked**");
    QProcess terminal;
    terminal.start(
            "script",
            {"-qec", QString("'%1' verify '%2' >/dev/null").arg(RVODDI_TOOL, root), "/dev/null"});
    ASSERT_TRUE(terminal.waitForFinished(120000));
    EXPECT_EQ(terminal.exitCode(), 0);
    const QString seen = QString::fromLocal8Bit(terminal.readAllStandardOutput());
    // The terminal turns "\n" into "\r\n".
    EXPECT_TRUE(seen.contains(
            QRegularExpression(QStringLiteral("Verifying block files: 100% \\(6/6\\), [0-9.]+ KiB"
                                              "( \\| [0-9.]+ [KMG]?i?B/s)?, done\\.\\s*\\r\\n"))))
            << qPrintable(seen);
}

TEST_F(rvoddiVerify, EachBadFileIsNamedWithItsFault)
{
    damage();
    expectRun({"verify", "--jobs", "2", root}, 1,
              paths[0] + ": lengths: its header does not agree with its length\n" + paths[1]
                      + ": payload: its payload does not decode to the header's size\n" + paths[2]
                      + ": digest: its bytes do not hash to its name\n" + paths[4]
                      + ": short: shorter than its 12-byte header\n**: 4 bad\n");
    const QJsonValue report = expectRun({"verify", "--json", root}, 1, "{**").json();
    EXPECT_EQ(report["checked"].toInt(), 6);
    ASSERT_EQ(report["bad"].toArray().size(), 4);
    EXPECT_EQ(report["bad"][1]["path"].toString(), paths[1]);
    EXPECT_EQ(report["bad"][1]["fault"].toString(), QStringLiteral("payload"));
    EXPECT_FALSE(report["bad"][1]["deleted"].toBool());
}

TEST_F(rvoddiVerify, DeleteRemovesTheBadFilesOnly)
{
    damage();
    expectRun({"verify", "--delete", root}, 1,
              "**" + paths[4] + ": short: shorter than its 12-byte header (deleted)\n**");
    for (int i = 0; i < paths.size(); ++i)
        EXPECT_EQ(QFile::exists(paths[i]), i == 3 || i == 5) << i;
    expectRun({"verify", root}, 0, "**");
}

TEST_F(rvoddi, TrimDeletesTheLeastRecentlyUsedAndSkipsHeldSubCaches)
{
    // "old" and "new" are left alone; "live" stays current in this process.
    const QStringList paths = storeBlocks(root, {"old", "new", "live"}, 4);
    ASSERT_EQ(paths.size(), 12);
    for (int i = 0; i < paths.size(); ++i)
        ASSERT_TRUE(setAge(paths[i], 86400 * (20 - i))); // the first file is the oldest
    const QString temporary = QFileInfo(paths[0]).path() + "/write-%1.tmp";
    ASSERT_TRUE(writeFile(temporary.arg("1-2-3"), "x") && setAge(temporary.arg("1-2-3"), 7200)
                && writeFile(temporary.arg("4-5-6"), "x"));
    const auto expectLeft = [&](int oldestLeft) {
        for (int i = 0; i < paths.size(); ++i)
            EXPECT_EQ(QFile::exists(paths[i]), i >= oldestLeft) << i;
    };

    // Room for all but the 6 oldest files (4 in "old", 2 in "new").
    qint64 limit = 0;
    for (int i = 6; i < paths.size(); ++i)
        limit += QFileInfo(paths[i]).size();
    const QString skipped = "skipped " + root + "/live: held by a process\n";
    expectRun({"trim", root, "--max-size", QString::number(limit)}, 0,
              skipped + "deleted 6 block files (*) and 1 temporary files**");
    expectLeft(6);
    EXPECT_TRUE(!QFile::exists(temporary.arg("1-2-3")) && QFile::exists(temporary.arg("4-5-6")));

    // By age: of "new", 6 is 14 days old and 7 is 13; "live" is held.
    expectRun({"trim", root, "--older-than", "330h", "-q"}, 0,
              skipped + "deleted 1 block files **");
    expectLeft(7);

    // --force reaches the held sub-cache too.
    EXPECT_FALSE(expectRun({"trim", root, "--max-size", "0", "--force"}, 0, "**")
                         .out.contains("skipped"));
    expectLeft(paths.size());
}

// A block put by the tool is where a host set up the same way looks, and one
// the library stored comes out byte-exact, to a file or standard output.
TEST_F(rvoddi, PutAndGetRoundTripThroughTheLibrary)
{
    const QString input = dir.filePath("tile.bin");
    const QByteArray bytes = testContent(7, 225000).toBase64(); // text: stdout is read as text
    ASSERT_TRUE(writeFile(input, bytes));
    const QString digest = digestOf(bytes)->toString();
    expectRun({"put", root, input, "--sub-cache", "s"}, 0, digest + "  " + input + "\n");
    expectRun({"digest", input}, 0, digest + "  " + input + "\n");
    storeBlocks(root, {"s"}, 1); // testContent(1, 100000)
    EXPECT_EQ(bytesOf(RvoDataReference(RvoHashManager::instance().getHash(digest))), bytes);
    manager().cleanUp();
    const QByteArray stored = testContent(1, 100000);
    const QString output = dir.filePath("out.bin");
    expectRun({"get", root, digestOf(stored)->toString(), "-o", output}, 0, "");
    EXPECT_EQ(readFile(output), stored);
    EXPECT_EQ(expectRun({"get", root, digest}, 0, "**").out.toLatin1(), bytes);
}

// Usage errors exit with 2 and a message, failures with 1 and the system's
// reason for the path that failed (a root that is a file, too).
TEST_F(rvoddi, EachFailureSaysWhy)
{
    const QString input = dir.filePath("tile.bin");
    ASSERT_TRUE(writeFile(input, "bytes"));
    const QString digest = digestOf("bytes")->toString();
    expectRun({"put", root, input}, 0, digest + "  " + input + "\n");
    const QString absentBlock = digestOf(testContent(9, 100000))->toString();
    const QString noDir = dir.filePath("no/such/dir/f");
    const QString absent = dir.filePath("absent");
    for (const char *usage :
         {"", "frobnicate", "ls", "ls --bogus ROOT", "trim ROOT", "trim ROOT --max-size 12X",
          "trim ROOT --older-than 3", "verify ROOT --jobs 0", "get ROOT 1-2-3"})
        expectRun(QString::fromLatin1(usage)
                          .split(' ', Qt::SkipEmptyParts)
                          .replaceInStrings("ROOT", root),
                  2, "", "**\n");
    expectRun({"help", "verify"}, 0, "Usage: rvoddi verify [options] ROOT...\n**--jobs <N>**");
    expectRun({"get", root, absentBlock}, 1, "",
              "rvoddi get: no block " + absentBlock + " under " + root + "\n");
    expectRun({"get", root, digest, "-o", noDir}, 1, "",
              "rvoddi get: cannot write " + noDir + ": *\n");
    expectRun({"put", root, absent}, 1, "",
              "rvoddi put: cannot open " + absent + ": No such file or directory\n");
    expectRun({"put", input, input}, 1, "",
              "rvoddi put: cannot store " + input + " in " + input + "/*: Not a directory\n");
    expectRun({"verify", absent}, 1, "**",
              "rvoddi verify: cannot read " + absent + ": No such file or directory\n");
}

// Three blocks in "idle", three in "busy" (current in this process, so
// held), and a stray file in the first's bucket.
class rvoddiListing : public rvoddi
{
protected:
    void SetUp() override
    {
        paths = storeBlocks(root, {"idle", "busy"}, 3, {"zlib", "lz4"});
        ASSERT_EQ(paths.size(), 6);
        stray = QFileInfo(paths[0]).path() + "/notes.txt";
        ASSERT_TRUE(writeFile(stray, "x"));
    }

    QStringList paths;
    QString stray;
};

// The unnamed sub-cache, current before the first setSubCache(), is listed
// too, without files.
TEST_F(rvoddiListing, LsDescribesEachSubCache)
{
    qint64 idleBytes = 0;
    for (int i = 0; i < 3; ++i)
        idleBytes += QFileInfo(paths[i]).size();
    const QJsonValue subCaches
            = expectRun({"ls", "--json", root}, 0, "{**").json()["roots"][0]["subCaches"];
    ASSERT_EQ(subCaches.toArray().size(), 3);
    EXPECT_EQ(subCaches[0]["blockFiles"].toInt(), 0);
    EXPECT_EQ(subCaches[1]["name"].toString(), QStringLiteral("busy"));
    EXPECT_TRUE(subCaches[1]["held"].toBool());
    const QJsonValue idle = subCaches[2];
    EXPECT_FALSE(idle["held"].toBool());
    EXPECT_EQ(idle["blockFiles"].toInt(), 3);
    EXPECT_EQ(qint64(idle["bytes"].toDouble()), idleBytes);
    EXPECT_EQ(idle["uncompressedBytes"].toInt(), 300000);
    expectRun({"ls", root}, 0, root + ":\n*\n*\n  busy * yes\n* 293.0 KiB * no\n**");
}

// A header that lies about its length is counted, not summed.
TEST_F(rvoddiListing, StatsCountFilesSizesAgesAndStrayFiles)
{
    QFile::resize(paths[5], QFileInfo(paths[5]).size() + 1);
    const QJsonValue totals = expectRun({"stats", "--json", root}, 0, "{**").json();
    EXPECT_EQ(totals["blockFiles"].toInt(), 6);
    EXPECT_EQ(totals["badHeaders"].toInt(), 1);
    EXPECT_EQ(totals["uncompressedBytes"].toInt(), 500000);
    EXPECT_EQ(totals["blockSizes"][2]["files"].toInt(), 5) << "100,000 bytes: below 256 KiB";
    EXPECT_EQ(totals["lastUse"][0]["files"].toInt(), 6);
    EXPECT_EQ(totals["otherFiles"][0]["path"].toString(), stray);
    EXPECT_EQ(totals["codecs"]["zlib"]["files"].toInt(), 3);
    EXPECT_EQ(totals["codecs"]["lz4"]["files"].toInt(), 2);
    expectRun({"stats", root}, 0, "**\ncodecs           zlib 3 (*), lz4 2 (*)\n**");
    expectRun({"stats", root, "--sub-cache", "idle"}, 0, "block files      3 in 1 sub-cache\n**");
}
