#ifndef RVODISKLAYOUT_P_H
#define RVODISKLAYOUT_P_H

// Where a digest's block file lies in the disk cache:
//     root / sub-cache / bucket / digest text form
// The root is chosen by the digest's text (rootIndex), the bucket is the
// digest's first 32-bit little-endian word modulo the bucket count. The
// layout is the on-disk contract between processes set up with the same
// roots, sub-cache name and bucket count; it never changes. What a block
// file holds is RvoBlockFile's.

#include "RvoMutex_p.h"

#include <QString>
#include <QtGlobal>

class RvoDataHash;

// The index of the root, among `rootCount`, that holds the block file of
// the digest whose text form is `hashText`: the digit values of its first
// four characters summed (a character that is not a digit counts -1), modulo
// the count, truncated toward zero. Negative for a sum below zero; -1 for no
// roots or a text shorter than four characters.
int rootIndex(const QString &hashText, int rootCount);

// Gives the bucket directory (with its doubled separators, ending in one)
// and the file name of `hash` under `root` and `subCache`. The full path is
// directory + separator + name. False, with the outputs untouched, for a
// null digest.
bool buildFilename(const RvoDataHash *hash, const QString &root, const QString &subCache,
                   quint32 bucketCount, QString &directory, QString &fileName);

// Whether a file name has the shape of a 64-byte digest's text form: exactly
// 15 "-". Temporary files of the block saver never do. The second form takes
// a name as the directory listing gives it (Latin-1 or UTF-8 bytes).
bool isBlockFileName(const QString &fileName);
bool isBlockFileName(const char *fileName, qsizetype length);

// Whether a file name is one the block saver writes a block file under
// before renaming it: "write-" ... ".tmp".
bool isTemporaryFileName(const QString &fileName);
bool isTemporaryFileName(const char *fileName, qsizetype length);

// Orders this process's "the block file is there" against the collectors'
// "nobody holds this digest: delete its file". A save that finds its file
// (and so writes nothing), a publish whose rename meets the file and a read
// that opens it look under this lock, after their digest was interned; a
// collector asks the registry and deletes under it. Without it a collector
// could ask just before a digest is interned again and delete just after a
// save counted on the file: the block would be freed as saved and lost.
// Lock order: after a digest's lock and a collector thread's lock, before
// the registry lock (docs/ARCHITECTURE.md); a holder takes no other lock
// but the registry's (a collector, asking whether a digest is live).
RvoMutex &blockFileLock();

#endif // RVODISKLAYOUT_P_H
