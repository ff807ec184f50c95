#ifndef RVOREMOTEFETCH_P_H
#define RVOREMOTEFETCH_P_H

#include "RvoRemoteTier_p.h"

#include <QByteArray>
#include <QRunnable>

// The remote tier's one rule, done in one place: nothing a remote sends is
// used before it passes the check against its name. A fetched block file is
// checked on a pool thread (the header against the length, the payload
// decoding to exactly its size, the Skein-512 digest of the bytes equal to
// the name); a file that fails is rejected (counted and reported) and the
// next remotes are asked; a sound one is published into the root like a
// save, and its block completes every load that waited for the fetch.
class RvoRemoteFetch : public QRunnable
{
public:
    RvoRemoteFetch(RvoRemoteTier &tier, RvoRemoteTier::FetchPtr fetch, int remote, QByteArray file);
    void run() override;

private:
    RvoRemoteTier &m_Tier;
    const RvoRemoteTier::FetchPtr m_Fetch;
    const int m_Remote; // the remote that sent m_File
    QByteArray m_File;
};

#endif // RVOREMOTEFETCH_P_H
