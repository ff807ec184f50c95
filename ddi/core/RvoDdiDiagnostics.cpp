#include "RvoDdiDiagnostics_p.h"

#include <cstdio>

Q_LOGGING_CATEGORY(lcDdi, "rvoddi", QtDebugMsg)

void rvoReport(const QString &message)
{
    const QByteArray text = message.toLocal8Bit();
    std::printf("%s", text.constData());
    std::printf("\n");
}
