#ifndef RVOGROUPBLOCKFORMAT_P_H
#define RVOGROUPBLOCKFORMAT_P_H

#include <QtGlobal>

// The payload of a group block, in one place: the manager makes and reads
// groups through it, and the fuzz target feeds it hostile bytes.
//
//     offset 0   qint64  magic 1337
//     offset 8   qint32  digest size of the members (0 for an empty group)
//     offset 12  qint32  member count
//     offset 16  the members' digest bytes, one after another, in order
//
// All integers little-endian. The header is not trusted: a payload is a group
// only when the members it promises are all there, each of a digest size
// that RvoDataHash knows. Bytes after the last member are ignored.
//
// Threading: pure functions.
class RvoGroupBlockFormat
{
public:
    static constexpr qint64 kMagic = 1337;
    static constexpr int kHeaderSize = 16;

    // What parse() found: `count` digests of `digestSize` bytes each, one
    // after another from `digests` (which points into the parsed payload).
    struct Members
    {
        int digestSize = 0;
        int count = 0;
        const uchar *digests = nullptr;
    };

    // False when the `size` bytes at `payload` are not a group block: too
    // short, no magic, a negative count, an unknown digest size for a
    // non-empty group, or fewer bytes than the members promised.
    static bool parse(const uchar *payload, qint64 size, Members *members);

    // Writes the 16-byte header of a group of `count` digests of `digestSize`
    // bytes to `out`.
    static void writeHeader(uchar *out, int digestSize, int count);
};

#endif // RVOGROUPBLOCKFORMAT_P_H
