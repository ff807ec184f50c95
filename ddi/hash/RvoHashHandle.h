#ifndef RVOHASHHANDLE_H
#define RVOHASHHANDLE_H

#include "RvoDataHash.h"

// A non-owning digest pointer with value equality: the hash registry's key.
// It neither counts nor frees the digest; whoever stores a handle keeps the
// digest alive by other means.
class RVODDI_EXPORT RvoHashHandle
{
public:
    RvoHashHandle() = default;
    explicit RvoHashHandle(RvoDataHash *hash)
        : m_Hash(hash)
    {
    }
    RvoHashHandle(const RvoHashHandle &) = default;
    RvoHashHandle &operator=(const RvoHashHandle &) = default;

    RvoDataHash *data() const { return m_Hash; }

    // Two null handles are equal; two non-null handles are equal when their
    // digests are (by value, not by address).
    bool operator==(const RvoHashHandle &other) const
    {
        if (!m_Hash || !other.m_Hash)
            return m_Hash == other.m_Hash;
        return *m_Hash == *other.m_Hash;
    }
    bool operator!=(const RvoHashHandle &other) const { return !(*this == other); }

private:
    RvoDataHash *m_Hash = nullptr;
};

// The digest's own hash value, 0 for a null handle.
inline RvoQHashType qHash(const RvoHashHandle &handle, RvoQHashType seed = 0)
{
    return handle.data() ? handle.data()->qhash(seed) : RvoQHashType(0);
}

#endif // RVOHASHHANDLE_H
