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

#endif // RVODDIGLOBAL_H
