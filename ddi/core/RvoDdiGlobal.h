#ifndef RVODDIGLOBAL_H
#define RVODDIGLOBAL_H

#include "rvoddi_export.h"

#include <QtGlobal>

// The integer type of qHash() for the Qt version at hand: Qt 6 hashes to
// size_t with a size_t seed, Qt 5 to uint with a uint seed.
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
using RvoQHashType = size_t;
#else
using RvoQHashType = uint;
#endif

// Clang's thread-safety analysis (-Wthread-safety) reads these attributes on
// the lock types and on the members they guard; other compilers see nothing.
// Installed headers spell them with this one macro, so that a host's macro
// names stay its own; the library's sources use the usual short names of
// RvoThreadAnnotations_p.h.
#if defined(__clang__)
#define RVODDI_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define RVODDI_THREAD_ANNOTATION(x)
#endif

#endif // RVODDIGLOBAL_H
