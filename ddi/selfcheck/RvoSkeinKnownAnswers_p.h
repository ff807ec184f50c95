#ifndef RVOSKEINKNOWNANSWERS_P_H
#define RVOSKEINKNOWNANSWERS_P_H

#include <QByteArray>
#include <QString>
#include <QVector>

// Known-answer vectors of Skein v1.1 (the round-1 version the digests are
// made with), a few for each state size: the published ones of the v1.1
// paper's appendix C and of the round-1 package's ShortMsgKAT files, and a
// few computed with an independent implementation for output lengths those
// do not cover.
class RvoSkeinKnownAnswers
{
public:
    struct Vector
    {
        int hashBits; // the output length; the state size follows from it
        quint64 messageBits; // a partial last byte uses its high bits
        QByteArray message; // ceil(messageBits / 8) bytes
        QByteArray digest; // ceil(hashBits / 8) bytes
        QString source;
    };

    // The state size, in bits, that RvoSkein::Hash uses for an output
    // length: up to 256 Skein-256, up to 512 Skein-512, else Skein-1024.
    static int stateBits(int hashBits);
    // Every vector, in state-size order.
    static QVector<Vector> all();
};

#endif // RVOSKEINKNOWNANSWERS_P_H
