#ifndef RVOSKEIN_P_H
#define RVOSKEIN_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the RvoDdi API. It exists for the implementation
// of RvoSkein.cpp and for its tests, and may change without notice.
//

#include "RvoSkein.h"

#include <cstddef>

namespace RvoSkein {

// Incremental hashing state. Init selects the state size from hashbitlen
// (<= 256: Skein-256, <= 512: Skein-512, otherwise Skein-1024). Update may be
// called any number of times with whole bytes; only the last call may end in a
// partial byte. Final writes (hashbitlen + 7) / 8 bytes. One state belongs to
// one thread at a time.
struct HashState
{
    int stateBits; // 256, 512 or 1024
    int hashBitLen; // requested output length in bits
    quint64 chain[16]; // chaining value; the first stateBits / 64 words are used
    quint64 tweak[2]; // tweak of the next message block (position, flags)
    std::size_t bufferedBytes; // bytes held in buffer, 0 .. state size in bytes
    bool bitPad; // the message ended in a padded partial byte
    unsigned char buffer[128]; // held-back last block, processed by Final
};

// Always returns Success; the arguments are not checked.
int Init(HashState *state, int hashbitlen);
// Update and Final return Fail only when state holds no known state size.
int Update(HashState *state, const unsigned char *data, quint64 databitlen);
int Final(HashState *state, unsigned char *hashval);

// Computes the initial chaining value for a state size (256, 512 or 1024 bits)
// and output length by processing the configuration block. Writes
// stateBits / 64 words to iv; returns false for an unknown state size.
bool ComputeInitialValue(int stateBits, quint64 hashBitLen, quint64 *iv);

// The precomputed initial chaining value for a state size and output length,
// or null when none is stored and Init computes it.
const quint64 *StoredInitialValue(int stateBits, quint64 hashBitLen);

} // namespace RvoSkein

#endif // RVOSKEIN_P_H
