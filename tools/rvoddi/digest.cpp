// rvoddi digest FILE...: the text form of each file's Skein-512 digest, the
// name its block file has.

#include "RvoBlockFile_p.h"
#include "RvoCommand.h"
#include "RvoSubcommands.h"

#include <QFile>

#include <cstdio>

int digestCommand(const QStringList &arguments)
{
    RvoCommand command(QStringLiteral("digest"), QStringLiteral("[FILE...]"),
                       QStringLiteral("Prints the text form of each file's 64-byte Skein-512 "
                                      "digest, the name its block file has, and the file's name. "
                                      "Without files, digests the standard input and prints the "
                                      "digest alone."));
    command.parser().addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("A file."),
                                           QStringLiteral("[FILE...]"));
    if (const int status = command.parse(arguments, 0); status >= 0)
        return status;
    const QStringList files = command.positional();
    if (files.isEmpty()) {
        QFile in;
        QByteArray bytes;
        if (in.open(stdin, QIODevice::ReadOnly))
            bytes = in.readAll();
        if (in.error() != QFileDevice::NoError) {
            command.error(
                    QStringLiteral("cannot read the standard input: %1").arg(in.errorString()));
            return command.status();
        }
        RvoCommand::print(RvoBlockFile::digestText(bytes.constData(), bytes.size()));
        return command.status();
    }
    for (const QString &path : files) {
        QByteArray bytes;
        if (!command.readFile(path, &bytes))
            continue;
        RvoCommand::print(QStringLiteral("%1  %2").arg(
                RvoBlockFile::digestText(bytes.constData(), bytes.size()), path));
    }
    return command.status();
}
