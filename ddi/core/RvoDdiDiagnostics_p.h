#ifndef RVODDIDIAGNOSTICS_P_H
#define RVODDIDIAGNOSTICS_P_H

// Internal: the two diagnostic channels besides the log file.
//
// - lcDdi, the logging category "rvoddi", carries statistics and diagnostics
//   (debug level, on by default). A host silences it with
//   QT_LOGGING_RULES="rvoddi.debug=false".
// - rvoReport() prints a broken invariant that the library tolerates to
//   standard output, followed by a newline, and returns: the caller carries on.
//   Two printf calls and no lock, so concurrent reports may interleave.

#include <QLoggingCategory>
#include <QString>

Q_DECLARE_LOGGING_CATEGORY(lcDdi)

void rvoReport(const QString &message);

#endif // RVODDIDIAGNOSTICS_P_H
