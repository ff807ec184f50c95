#include "OutputCapture.h"

#include <QMutex>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

namespace {

QMutex g_Lock;
QStringList g_Messages;
QtMessageHandler g_Previous = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (context.category && std::strcmp(context.category, "rvoddi") == 0) {
        QMutexLocker locker(&g_Lock);
        g_Messages.append(message);
        return;
    }
    if (g_Previous)
        g_Previous(type, context, message);
}

} // namespace

StdoutCapture::~StdoutCapture()
{
    if (!::testing::Test::HasFailure())
        return;
    for (const QString &line : lines())
        std::fprintf(stderr, "captured: %s\n", qPrintable(line));
}

DebugCapture::DebugCapture()
{
    QMutexLocker locker(&g_Lock);
    g_Messages.clear();
    g_Previous = qInstallMessageHandler(collect);
}

DebugCapture::~DebugCapture()
{
    qInstallMessageHandler(g_Previous);
}

QStringList DebugCapture::messages() const
{
    QMutexLocker locker(&g_Lock);
    return g_Messages;
}
