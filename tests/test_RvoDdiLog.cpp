#include "OutputCapture.h"
#include "RvoDdiLog.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

QString logPath(const QTemporaryDir &dir)
{
    return dir.path() + QStringLiteral("/DdiLog.txt");
}

} // namespace

TEST(RvoDdiLog, EntryIsOneLineWithTagTimeMessageAndPosition)
{
    QTemporaryDir dir;
    RvoDdiLog &log = RvoDdiLog::instance();
    ASSERT_TRUE(log.setSubCache(dir.path()));
    EXPECT_TRUE(log.log(RvoDdiLog::Information, "writer.cpp", 42, QStringLiteral("hello")));
    EXPECT_TRUE(log.log(RvoDdiLog::Warning, "other.cpp", 7, QStringLiteral("careful")));

    const QStringList lines = readFile(logPath(dir)).split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines.at(2).isEmpty());
    const QRegularExpression info(
            QStringLiteral(R"(^\[ I \] \d\d:\d\d:\d\d hello - writer\.cpp:42$)"));
    const QRegularExpression warning(
            QStringLiteral(R"(^\[ W \] \d\d:\d\d:\d\d careful - other\.cpp:7$)"));
    EXPECT_TRUE(info.match(lines.at(0)).hasMatch()) << qPrintable(lines.at(0));
    EXPECT_TRUE(warning.match(lines.at(1)).hasMatch()) << qPrintable(lines.at(1));
}

TEST(RvoDdiLog, WarningIsEchoedToTheDebugChannelButInformationIsNot)
{
    QTemporaryDir dir;
    RvoDdiLog &log = RvoDdiLog::instance();
    ASSERT_TRUE(log.setSubCache(dir.path()));
    DebugCapture debug;
    log.log(RvoDdiLog::Information, "a.cpp", 1, QStringLiteral("quiet"));
    RVODDI_LOG(RvoDdiLog::Warning, QStringLiteral("loud"));

    const QStringList messages = debug.messages();
    ASSERT_EQ(messages.size(), 1);
    const QRegularExpression echo(
            QStringLiteral(R"(^\[ W \] \d\d:\d\d:\d\d loud - .*test_RvoDdiLog\.cpp:\d+$)"));
    EXPECT_TRUE(echo.match(messages.first()).hasMatch()) << qPrintable(messages.first());
}

TEST(RvoDdiLog, NothingIsWrittenWhileDisabledOrWithoutDirectory)
{
    QTemporaryDir dir;
    RvoDdiLog &log = RvoDdiLog::instance();
    DebugCapture debug;
    // No directory yet: even a fatal entry returns true and ends nothing.
    EXPECT_TRUE(log.log(RvoDdiLog::Fatal, "f.cpp", 1, QStringLiteral("not fatal without a log")));

    ASSERT_TRUE(log.setSubCache(dir.path()));
    log.setEnabled(false);
    EXPECT_FALSE(log.enabled());
    EXPECT_TRUE(log.log(RvoDdiLog::Warning, "f.cpp", 2, QStringLiteral("disabled")));
    log.setEnabled(true);
    EXPECT_TRUE(log.log(RvoDdiLog::Information, "f.cpp", 3, QStringLiteral("enabled")));

    const QString text = readFile(logPath(dir));
    EXPECT_FALSE(text.contains(QStringLiteral("disabled")));
    EXPECT_TRUE(text.contains(QStringLiteral("enabled")));
    EXPECT_TRUE(debug.messages().isEmpty());
}

TEST(RvoDdiLog, EmptyDirectoryClosesTheLogAndReopeningAppends)
{
    QTemporaryDir dir;
    RvoDdiLog &log = RvoDdiLog::instance();
    ASSERT_TRUE(log.setSubCache(dir.path()));
    log.log(RvoDdiLog::Information, "f.cpp", 1, QStringLiteral("first"));
    EXPECT_TRUE(log.setSubCache(QString()));
    log.log(RvoDdiLog::Information, "f.cpp", 2, QStringLiteral("while closed"));
    ASSERT_TRUE(log.setSubCache(dir.path()));
    log.log(RvoDdiLog::Information, "f.cpp", 3, QStringLiteral("second"));

    const QString text = readFile(logPath(dir));
    EXPECT_TRUE(text.contains(QStringLiteral("first")));
    EXPECT_FALSE(text.contains(QStringLiteral("while closed")));
    EXPECT_TRUE(text.contains(QStringLiteral("second")));
    EXPECT_LT(text.indexOf(QStringLiteral("first")), text.indexOf(QStringLiteral("second")));
}

TEST(RvoDdiLog, MissingDirectoryIsCreatedWithItsParents)
{
    QTemporaryDir dir;
    const QString nested = dir.path() + QStringLiteral("/a/b/SubCache");
    ASSERT_TRUE(RvoDdiLog::instance().setSubCache(nested));
    RvoDdiLog::instance().log(RvoDdiLog::Information, "f.cpp", 1, QStringLiteral("x"));
    EXPECT_TRUE(QFile::exists(nested + QStringLiteral("/DdiLog.txt")));
}

TEST(RvoDdiLog, UnusableDirectoryReportsAndLeavesLoggingOff)
{
    QTemporaryDir dir;
    // A plain file where a directory would have to be.
    QFile blocker(dir.path() + QStringLiteral("/file"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    // A directory where the log file would have to be.
    ASSERT_TRUE(QDir(dir.path()).mkpath(QStringLiteral("busy/DdiLog.txt")));

    DebugCapture debug;
    RvoDdiLog &log = RvoDdiLog::instance();
    EXPECT_FALSE(log.setSubCache(dir.path() + QStringLiteral("/file/sub")));
    EXPECT_FALSE(log.setSubCache(dir.path() + QStringLiteral("/busy")));
    EXPECT_TRUE(log.log(RvoDdiLog::Fatal, "f.cpp", 1, QStringLiteral("still not fatal")));

    const QStringList expected {
            QStringLiteral(
                    "[ !! ] Subcache Directory does not exist and cannot be created for logging"),
            QStringLiteral("[ !! ] Cannot Open DDi Log ") + dir.path()
                    + QStringLiteral("/busy/DdiLog.txt"),
    };
    EXPECT_EQ(debug.messages(), expected);
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
    EXPECT_TRUE(readFile(logPath(dir)).contains(QStringLiteral("boom - f.cpp:9")));
}
