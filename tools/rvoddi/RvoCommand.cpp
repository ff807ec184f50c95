#include "RvoCommand.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace {

const QString kQuiet = QStringLiteral("q");
const QString kJson = QStringLiteral("json");
const QString kSubCache = QStringLiteral("sub-cache");
const QString kHelp = QStringLiteral("help");

void writeLine(FILE *stream, const QString &line)
{
    const QByteArray bytes = line.toLocal8Bit() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
}

// Qt prints the description as it is; lines of at most 79 columns read
// better in a terminal.
QString wrapped(const QString &text)
{
    QString result;
    int column = 0;
    for (const QString &word : text.split(QLatin1Char(' '))) {
        if (column > 0 && column + 1 + word.size() > 79) {
            result += QLatin1Char('\n');
            column = 0;
        } else if (column > 0) {
            result += QLatin1Char(' ');
            ++column;
        }
        result += word;
        column += int(word.size());
    }
    return result;
}

} // namespace

RvoCommand::RvoCommand(const QString &name, const QString &arguments, const QString &description)
    : m_Name(name)
    , m_Arguments(arguments)
{
    m_Parser.setApplicationDescription(wrapped(description));
    m_Parser.addOption(QCommandLineOption({QStringLiteral("h"), kHelp}, "Show this help."));
}

void RvoCommand::addQuietOption()
{
    m_Parser.addOption(QCommandLineOption({kQuiet, QStringLiteral("quiet")},
                                          "No progress line on standard error."));
    m_HasQuiet = true;
}

void RvoCommand::addJsonOption()
{
    m_Parser.addOption(QCommandLineOption(kJson, "Print one JSON document (shape below)."));
    m_HasJson = true;
}

void RvoCommand::addSubCacheOption(const QString &description)
{
    m_Parser.addOption(QCommandLineOption(kSubCache, description, QStringLiteral("NAME")));
    m_HasSubCacheOption = true;
}

int RvoCommand::parse(const QStringList &arguments, int minimum, int maximum)
{
    // QCommandLineParser takes the program's name first.
    if (!m_Parser.parse(QStringList {QStringLiteral("rvoddi")} + arguments))
        return usageError(m_Parser.errorText());
    if (m_Parser.isSet(kHelp)) {
        std::fputs(helpText().toLocal8Bit().constData(), stdout);
        return Success;
    }
    const int count = int(m_Parser.positionalArguments().size());
    if (count < minimum)
        return usageError(count == 0 ? QStringLiteral("missing %1").arg(m_Arguments)
                                     : QStringLiteral("too few arguments"));
    if (maximum >= 0 && count > maximum)
        return usageError(QStringLiteral("unexpected argument '%1'")
                                  .arg(m_Parser.positionalArguments().value(maximum)));
    m_Quiet = m_HasQuiet && m_Parser.isSet(kQuiet);
    m_Json = m_HasJson && m_Parser.isSet(kJson);
    m_HasSubCache = m_HasSubCacheOption && m_Parser.isSet(kSubCache);
    m_SubCache = m_HasSubCache ? m_Parser.value(kSubCache) : QString();
    return -1;
}

int RvoCommand::usageError(const QString &message) const
{
    writeLine(stderr, QStringLiteral("rvoddi %1: %2").arg(m_Name, message));
    writeLine(stderr, QStringLiteral("Try 'rvoddi %1 --help'.").arg(m_Name));
    return UsageError;
}

void RvoCommand::error(const QString &message)
{
    writeLine(stderr, QStringLiteral("rvoddi %1: %2").arg(m_Name, message));
    m_Failed = true;
}

void RvoCommand::addRootsArgument()
{
    m_Parser.addPositionalArgument(QStringLiteral("ROOT"), QStringLiteral("A cache root."),
                                   QStringLiteral("ROOT..."));
}

void RvoCommand::pathError(const QString &what, const QString &path, const QString &reason)
{
    error(QStringLiteral("%1 %2: %3").arg(what, path, reason));
}

bool RvoCommand::readFile(const QString &path, QByteArray *bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        pathError(QStringLiteral("cannot open"), path, file.errorString());
        return false;
    }
    // Read, not mapped: a file cut short under a mapping would end the
    // process with SIGBUS.
    *bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        pathError(QStringLiteral("cannot read"), path, file.errorString());
        return false;
    }
    return true;
}

QVector<RvoCacheScan::Root> RvoCommand::scan(const QStringList &roots, bool checkHeld)
{
    RvoCacheScan::Options options;
    options.onlyOneSubCache = m_HasSubCache;
    options.subCache = m_SubCache;
    options.checkHeld = checkHeld;
    const QVector<RvoCacheScan::Root> result = RvoCacheScan::scan(roots, options);
    for (const RvoCacheScan::Root &root : result) {
        for (const QString &problem : root.errors)
            error(QStringLiteral("cannot read %1").arg(problem));
    }
    return result;
}

QString RvoCommand::helpText() const
{
    // Qt's first line names the program by its path; ours names the
    // subcommand.
    QString text = m_Parser.helpText();
    text = text.mid(text.indexOf(QLatin1Char('\n')) + 1);
    text.prepend(QStringLiteral("Usage: rvoddi %1 [options] %2\n").arg(m_Name, m_Arguments));
    if (!m_Notes.isEmpty())
        text += QLatin1Char('\n') + m_Notes + QLatin1Char('\n');
    return text;
}

void RvoCommand::print(const QString &line)
{
    writeLine(stdout, line);
}

void RvoCommand::printJson(const QJsonObject &document)
{
    const QByteArray bytes = QJsonDocument(document).toJson(QJsonDocument::Indented);
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}
