#ifndef RVOSKEIN_H
#define RVOSKEIN_H

#include "rvoddi_export.h"

#include <QtGlobal>

// Skein v1.1 (the round-1 SHA-3 submission version) behind a one-call interface.
namespace RvoSkein {

enum HashReturn { Success = 0, Fail = 1, BadHashLen = 2 };

// Computes the Skein digest of the first databitlen bits of data. The state
// size follows hashbitlen: up to 256 bits uses Skein-256, up to 512 bits
// Skein-512, anything longer Skein-1024. When databitlen is not a multiple of
// 8, the data bits are the most significant bits of the last byte and its
// remaining bits are ignored. hashval receives exactly (hashbitlen + 7) / 8
// bytes; data may be null when databitlen is 0.
//
// A pure function: it keeps no state between calls and may be called from any
// thread at the same time. Returns Success (0) or a HashReturn error code.
RVODDI_EXPORT int Hash(int hashbitlen, const unsigned char *data, quint64 databitlen,
                       unsigned char *hashval);

} // namespace RvoSkein

#endif // RVOSKEIN_H
