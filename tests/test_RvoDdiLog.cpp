#include "ManagerTestAccess.h"
#include "RvoDdiLog.h"

#include <QRegularExpression>

namespace {

QString logText(const QString &directory)
{
    return QString::fromUtf8(readFile(directory + "/DdiLog.txt"));
}

} // namespace

// No directory yet, or one that cannot be used (a plain file where a
// directory would have to be, a directory where the log file would have to
// be): even a fatal entry returns true and ends nothing.
TEST(RvoDdiLog, UnusableDirectoryIsReportedAndFatalEntriesEndNothing)
{
    QTemporaryDir dir;
    ASSERT_TRUE(writeFile(dir.path() + "/file", QByteArray()));
    ASSERT_TRUE(QDir(dir.path()).mkpath("busy/DdiLog.txt"));
    RvoDdiLog &log = RvoDdiLog::instance();
    DebugCapture debug;
    EXPECT_TRUE(log.log(RvoDdiLog::Fatal, "f.cpp", 1, "not fatal without a log"));
    EXPECT_FALSE(log.setSubCache(dir.path() + "/file/sub"));
    EXPECT_FALSE(log.setSubCache(dir.path() + "/busy"));
    EXPECT_TRUE(log.log(RvoDdiLog::Fatal, "f.cpp", 1, "still not fatal"));
    EXPECT_EQ(debug.messages(),
              (QStringList {"[ !! ] Subcache Directory does not exist and cannot be "
                            "created for logging",
                            "[ !! ] Cannot Open DDi Log " + dir.path() + "/busy/DdiLog.txt"}));
}

// The directory is made with its parents. Only warnings are echoed on the
// debug channel.
TEST(RvoDdiLog, EntryIsOneLineWithItsTagTimeMessageAndPosition)
{
    QTemporaryDir dir;
    const QString nested = dir.path() + "/a/b/SubCache";
    RvoDdiLog &log = RvoDdiLog::instance();
    ASSERT_TRUE(log.setSubCache(nested));
    DebugCapture debug;
    EXPECT_TRUE(log.log(RvoDdiLog::Information, "writer.cpp", 42, "hello"));
    RVODDI_LOG(RvoDdiLog::Warning, "careful");
    const QStringList lines = logText(nested).split('\n');
    ASSERT_EQ(lines.size(), 3);
    const QRegularExpression info(
            QStringLiteral(R"(^\[ I \] \d\d:\d\d:\d\d hello - writer\.cpp:42$)"));
    const QRegularExpression warning(
            QStringLiteral(R"(^\[ W \] \d\d:\d\d:\d\d careful - .*test_RvoDdiLog\.cpp:\d+$)"));
    EXPECT_TRUE(info.match(lines.at(0)).hasMatch()) << qPrintable(lines.at(0));
    EXPECT_TRUE(warning.match(lines.at(1)).hasMatch()) << qPrintable(lines.at(1));
    EXPECT_TRUE(lines.at(2).isEmpty());
    EXPECT_EQ(debug.messages(), QStringList {lines.at(1)});
}

// An empty directory closes the log; reopening appends.
TEST(RvoDdiLog, NothingIsWrittenWhileDisabledOrClosed)
{
    QTemporaryDir dir;
    RvoDdiLog &log = RvoDdiLog::instance();
    ASSERT_TRUE(log.setSubCache(dir.path()));
    log.setEnabled(false);
    EXPECT_TRUE(log.log(RvoDdiLog::Warning, "f.cpp", 2, "disabled"));
    log.setEnabled(true);
    log.log(RvoDdiLog::Information, "f.cpp", 3, "first");
    EXPECT_TRUE(log.setSubCache(QString()));
    log.log(RvoDdiLog::Information, "f.cpp", 4, "while closed");
    ASSERT_TRUE(log.setSubCache(dir.path()));
    log.log(RvoDdiLog::Information, "f.cpp", 5, "second");
    const QStringList lines = logText(dir.path()).split('\n');
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines.at(0).endsWith(" first - f.cpp:3")
                && lines.at(1).endsWith(" second - f.cpp:5"));
}

TEST(RvoDdiLogDeathTest, FatalEntryEndsTheProcessWhenTheLogIsOpen)
{
    // Forked without re-running the test, so the child writes into this dir.
    GTEST_FLAG_SET(death_test_style, "fast");
    QTemporaryDir dir;
    EXPECT_DEATH(
            {
                RvoDdiLog::instance().setSubCache(dir.path());
                RvoDdiLog::instance().log(RvoDdiLog::Fatal, "f.cpp", 9, "boom");
            },
            "DDI FATAL Error, aborting");
    EXPECT_TRUE(logText(dir.path()).contains("boom - f.cpp:9"));
}
