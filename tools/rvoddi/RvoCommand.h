#ifndef RVOCOMMAND_H
#define RVOCOMMAND_H

#include "RvoCacheScan_p.h"

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

class QJsonObject;

// One run of an rvoddi subcommand: its options (QCommandLineParser), its
// help, and how it reports.
//
// Every subcommand follows the same conventions: `--help` prints the help
// and exits 0; a usage error prints one line and a hint on standard error
// and exits 2; an error names the path and the system's reason on standard
// error and makes the exit status 1; results go to standard output, as text
// or, with `--json`, as one JSON document.
//
// Threading: used by the main thread only.
class RvoCommand
{
public:
    enum Status { Success = 0, Failure = 1, UsageError = 2 };

    // `name` is the subcommand ("verify"), `arguments` its synopsis after
    // the options ("ROOT..."), `description` the first paragraph of its help.
    RvoCommand(const QString &name, const QString &arguments, const QString &description);

    QCommandLineParser &parser() { return m_Parser; }
    // The options most subcommands share. Call before parse().
    void addQuietOption();
    void addJsonOption();
    void addSubCacheOption(const QString &description);
    // Text printed after the options in the help (formats, examples).
    void setNotes(const QString &notes) { m_Notes = notes; }

    // Parses the arguments that follow the subcommand's name. Returns -1 to
    // go on, or the exit status when the run is over (after --help, or a
    // usage error, which has been reported). `minimum` and `maximum` bound
    // the number of positional arguments (maximum -1: no bound).
    int parse(const QStringList &arguments, int minimum, int maximum = -1);

    QStringList positional() const { return m_Parser.positionalArguments(); }
    bool quiet() const { return m_Quiet; }
    bool json() const { return m_Json; }
    bool hasSubCache() const { return m_HasSubCache; }
    QString subCache() const { return m_SubCache; }

    // The positional arguments ROOT... (one or more cache roots).
    void addRootsArgument();

    // Reports a usage error and returns UsageError.
    int usageError(const QString &message) const;
    // Reports an error ("rvoddi NAME: message") and makes status() Failure.
    void error(const QString &message);
    // Reports that `path` could not be used, with the system's reason.
    void pathError(const QString &what, const QString &path, const QString &reason);
    // Reads the file at `path` whole into *bytes; reports "cannot open" or
    // "cannot read" with the system's reason and returns false when it can't.
    bool readFile(const QString &path, QByteArray *bytes);
    Status status() const { return m_Failed ? Failure : Success; }

    // The walk of `roots` (RvoCacheScan), limited to --sub-cache when it
    // was given; every directory that could not be read is reported.
    QVector<RvoCacheScan::Root> scan(const QStringList &roots, bool checkHeld = true);

    QString helpText() const;

    // Output on standard output: a line of text, or the JSON document.
    static void print(const QString &line);
    static void printJson(const QJsonObject &document);

private:
    QString m_Name;
    QString m_Arguments;
    QString m_Notes;
    QCommandLineParser m_Parser;
    bool m_HasQuiet = false;
    bool m_HasJson = false;
    bool m_HasSubCacheOption = false;
    bool m_Quiet = false;
    bool m_Json = false;
    bool m_HasSubCache = false;
    QString m_SubCache;
    bool m_Failed = false;
};

#endif // RVOCOMMAND_H
