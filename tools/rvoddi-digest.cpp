// rvoddi-digest FILE...: prints, for each file, the text form of its 64-byte
// Skein-512 content digest (the name its block file would have) and the file
// name. Without files it digests the standard input and prints the digest
// alone. Exit status 1 when a file could not be read.

#include <rvoddi/RvoDdi.h>

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QStringList>

#include <cstdio>

namespace {

QString digestText(const unsigned char *data, qint64 size)
{
    return RvoHashManager::instance().getHash(data, size)->toString();
}

bool printFileDigest(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "rvoddi-digest: cannot open %s: %s\n", qPrintable(path),
                     qPrintable(file.errorString()));
        return false;
    }
    QString text;
    const qint64 size = file.size();
    if (size == 0) {
        text = digestText(nullptr, 0);
    } else if (const uchar *mapped = file.map(0, size)) {
        text = digestText(mapped, size);
    } else {
        const QByteArray bytes = file.readAll();
        if (file.error() != QFileDevice::NoError) {
            std::fprintf(stderr, "rvoddi-digest: cannot read %s: %s\n", qPrintable(path),
                         qPrintable(file.errorString()));
            return false;
        }
        text = digestText(reinterpret_cast<const unsigned char *>(bytes.constData()), bytes.size());
    }
    std::printf("%s  %s\n", qPrintable(text), qPrintable(path));
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // Only digests on standard output; the library's diagnostics stay quiet.
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        QLoggingCategory::setFilterRules(QStringLiteral("rvoddi.debug=false"));
    const QStringList files = app.arguments().mid(1);
    if (files.isEmpty()) {
        QFile in;
        if (!in.open(stdin, QIODevice::ReadOnly)) {
            std::fprintf(stderr, "rvoddi-digest: cannot read the standard input\n");
            return 1;
        }
        const QByteArray bytes = in.readAll();
        std::printf(
                "%s\n",
                qPrintable(digestText(reinterpret_cast<const unsigned char *>(bytes.constData()),
                                      bytes.size())));
        return 0;
    }
    bool ok = true;
    for (const QString &path : files)
        ok = printFileDigest(path) && ok;
    return ok ? 0 : 1;
}
