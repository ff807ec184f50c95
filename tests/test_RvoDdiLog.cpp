#include "ManagerTestAccess.h"
#include "RvoDdiLog.h"

#include <QDir>
#include <QRegularExpression>

namespace {

QString logText(const QString &directory)
{
    return QString::fromUtf8(readFile(directory + QStringLiteral("/DdiLog.txt")));
}

} // namespace

// No directory yet, or one that cannot be used: even a fatal entry returns
// true and ends nothing. An entry is one line with its tag, time, message
// and position.
TEST(RvoDdiLog, EntriesAreOneLineEachAndNothingIsWrittenWhileDisabledClosedOrWithoutADirectory)
{
    QTemporaryDir dir;
    const QString nested = dir.path() + QStringLiteral("/a/b/SubCache");
    // A plain file where a directory would have to be, and a directory where
    // the log file would have to be.
    ASSERT_TRUE(writeFile(dir.path() + QStringLiteral("/file"), QByteArray()));
    ASSERT_TRUE(QDir(dir.path()).mkpath(QStringLiteral("busy/DdiLog.txt")));
    RvoDdiLog &log = RvoDdiLog::instance();
    DebugCapture debug;
    EXPECT_TRUE(log.log(RvoDdiLog::Fatal, "f.cpp", 1, QStringLiteral("not fatal without a log")));
    EXPECT_FALSE(log.setSubCache(dir.path() + QStringLiteral("/file/sub")));
    EXPECT_FALSE(log.setSubCache(dir.path() + QStringLiteral("/busy")));
    EXPECT_TRUE(log.log(RvoDdiLog::Fatal, "f.cpp", 1, QStringLiteral("still not fatal")));

    ASSERT_TRUE(log.setSubCache(nested)); // made with its parents
    log.setEnabled(false);
    EXPECT_FALSE(log.enabled());
    EXPECT_TRUE(log.log(RvoDdiLog::Warning, "f.cpp", 2, QStringLiteral("disabled")));
    log.setEnabled(true);
    EXPECT_TRUE(log.log(RvoDdiLog::Information, "f.cpp", 3, QStringLiteral("first")));
    // An empty directory closes the log; reopening appends.
    EXPECT_TRUE(log.setSubCache(QString()));
    log.log(RvoDdiLog::Information, "f.cpp", 4, QStringLiteral("while closed"));
    ASSERT_TRUE(log.setSubCache(nested));
    log.log(RvoDdiLog::Information, "f.cpp", 5, QStringLiteral("second"));
    EXPECT_TRUE(log.log(RvoDdiLog::Information, "writer.cpp", 42, QStringLiteral("hello")));
    RVODDI_LOG(RvoDdiLog::Warning, QStringLiteral("careful"));

    const QStringList lines = logText(nested).split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines.at(0).endsWith(QStringLiteral(" first - f.cpp:3"))
                && lines.at(1).endsWith(QStringLiteral(" second - f.cpp:5")));
    const QRegularExpression info(
            QStringLiteral(R"(^\[ I \] \d\d:\d\d:\d\d hello - writer\.cpp:42$)"));
    const QRegularExpression warning(
            QStringLiteral(R"(^\[ W \] \d\d:\d\d:\d\d careful - .*test_RvoDdiLog\.cpp:\d+$)"));
    EXPECT_TRUE(info.match(lines.at(2)).hasMatch()) << qPrintable(lines.at(2));
    EXPECT_TRUE(warning.match(lines.at(3)).hasMatch()) << qPrintable(lines.at(3));
    EXPECT_TRUE(lines.at(4).isEmpty());
    // Only warnings are echoed on the debug channel.
    EXPECT_EQ(debug.messages(),
              (QStringList {QStringLiteral("[ !! ] Subcache Directory does not exist and cannot be "
                                           "created for logging"),
                            QStringLiteral("[ !! ] Cannot Open DDi Log ") + dir.path()
                                    + QStringLiteral("/busy/DdiLog.txt"),
                            lines.at(3)}));
}

TEST(RvoDdiLogDeathTest, FatalEntryEndsTheProcessWhenTheLogIsOpen)
{
    // Forked without re-running the test, so the child writes into this dir.
    GTEST_FLAG_SET(death_test_style, "fast");
    QTemporaryDir dir;
    EXPECT_DEATH(
            {
                RvoDdiLog::instance().setSubCache(dir.path());
                RvoDdiLog::instance().log(RvoDdiLog::Fatal, "f.cpp", 9, QStringLiteral("boom"));
            },
            "DDI FATAL Error, aborting");
    EXPECT_TRUE(logText(dir.path()).contains(QStringLiteral("boom - f.cpp:9")));
}
