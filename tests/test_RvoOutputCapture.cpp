#include "RvoOutputCapture_p.h"

#include "OutputCapture.h"

#include <QThread>

#include <cstdio>
#include <memory>

#include <gtest/gtest.h>

TEST(RvoOutputCapture, CapturesWhatTheProcessPrintsUntilLinesIsCalled)
{
    StdoutCapture outer;
    {
        RvoOutputCapture capture;
        std::printf("first\n");
        std::printf("second, without a newline");
        const QStringList lines = capture.lines();
        EXPECT_EQ(lines,
                  (QStringList {QStringLiteral("first"),
                                QStringLiteral("second, without a newline")}));
        std::printf("after\n");
        // Ended once: a second call gives the same lines.
        EXPECT_EQ(capture.lines(), lines);
    }
    EXPECT_EQ(outer.lines(), QStringList {QStringLiteral("after")});
}

TEST(RvoOutputCapture, CapturesOtherThreadsOutputToo)
{
    StdoutCapture outer;
    QStringList lines;
    {
        RvoOutputCapture capture;
        std::unique_ptr<QThread> thread(QThread::create([] {
            std::printf("from a thread\n");
            std::fflush(stdout);
        }));
        thread->start();
        thread->wait();
        lines = capture.lines();
    }
    EXPECT_EQ(lines, QStringList {QStringLiteral("from a thread")});
    EXPECT_EQ(outer.text(), QString());
}

TEST(RvoOutputCapture, NestedCapturesEachRestoreWhatTheyFound)
{
    StdoutCapture outer;
    QStringList inner;
    QStringList middle;
    {
        RvoOutputCapture first;
        std::printf("one\n");
        {
            RvoOutputCapture second;
            std::printf("two\n");
            inner = second.lines();
        }
        std::printf("three\n");
        middle = first.lines();
    }
    std::printf("four\n");
    EXPECT_EQ(inner, QStringList {QStringLiteral("two")});
    EXPECT_EQ(middle, (QStringList {QStringLiteral("one"), QStringLiteral("three")}));
    EXPECT_EQ(outer.lines(), QStringList {QStringLiteral("four")});
}

TEST(RvoOutputCapture, NothingPrintedGivesNoLine)
{
    RvoOutputCapture capture;
    EXPECT_TRUE(capture.lines().isEmpty());
}
