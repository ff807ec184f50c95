#include "OutputCapture.h"

#include <QThread>

#include <cstdio>
#include <memory>

#include <gtest/gtest.h>

// Captures nest, each restoring what it found, and take every thread's
// output; lines() ends a capture once.
TEST(RvoOutputCapture, NestedCapturesOfAnyThreadEachRestoreWhatTheyFound)
{
    RvoOutputCapture outer;
    EXPECT_TRUE(RvoOutputCapture().lines().isEmpty()) << "nothing printed, no line";
    QStringList inner, middle;
    {
        RvoOutputCapture first;
        std::printf("one\n");
        {
            RvoOutputCapture second;
            std::unique_ptr<QThread> thread(QThread::create([] {
                std::printf("two\n");
                std::printf("three, without a newline");
                std::fflush(stdout);
            }));
            thread->start();
            thread->wait();
            inner = second.lines();
            std::printf("four\n");
            EXPECT_EQ(second.lines(), inner) << "ended once: the same lines again";
        }
        std::printf("five\n");
        middle = first.lines();
    }
    std::printf("six\n");
    EXPECT_EQ(inner, (QStringList {"two", "three, without a newline"}));
    EXPECT_EQ(middle, (QStringList {"one", "four", "five"}));
    EXPECT_EQ(outer.lines(), QStringList {"six"});
}
