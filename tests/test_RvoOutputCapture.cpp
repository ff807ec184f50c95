#include "RvoOutputCapture_p.h"

#include "OutputCapture.h"

#include <QThread>

#include <cstdio>
#include <memory>

#include <gtest/gtest.h>

TEST(RvoOutputCapture, CapturesWhatTheProcessPrintsUntilLinesIsCalled)
{
    RvoOutputCapture outer;
    EXPECT_TRUE(RvoOutputCapture().lines().isEmpty()) << "nothing printed, no line";
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

TEST(RvoOutputCapture, NestedCapturesOfAnyThreadEachRestoreWhatTheyFound)
{
    RvoOutputCapture outer;
    QStringList inner;
    QStringList middle;
    {
        RvoOutputCapture first;
        std::printf("one\n");
        {
            // Another thread's output is captured too.
            RvoOutputCapture second;
            std::unique_ptr<QThread> thread(QThread::create([] {
                std::printf("two\n");
                std::fflush(stdout);
            }));
            thread->start();
            thread->wait();
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
