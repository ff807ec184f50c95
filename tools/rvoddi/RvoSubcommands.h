#ifndef RVOSUBCOMMANDS_H
#define RVOSUBCOMMANDS_H

#include <QStringList>

// The subcommands of rvoddi, one source file each. Each takes the arguments
// that follow its name and returns the exit status: 0 all well, 1 an
// operation failed (or verify found bad files), 2 a usage error.
struct RvoSubcommand
{
    const char *name;
    const char *summary; // one line for `rvoddi help`
    int (*run)(const QStringList &arguments);
};

int lsCommand(const QStringList &arguments);
int statsCommand(const QStringList &arguments);
int verifyCommand(const QStringList &arguments);
int trimCommand(const QStringList &arguments);
int putCommand(const QStringList &arguments);
int getCommand(const QStringList &arguments);
int digestCommand(const QStringList &arguments);

#endif // RVOSUBCOMMANDS_H
