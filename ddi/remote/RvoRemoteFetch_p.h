#ifndef RVOREMOTEFETCH_P_H
#define RVOREMOTEFETCH_P_H

#include "RvoBlockLoad_p.h"

#include <QByteArray>
#include <QRunnable>

#include <memory>

class RvoRemoteTier;

// The remote tier's one rule, done in one place: nothing a remote sends is
// used before it passes the check against its name. A fetched block file is
// checked on a pool thread (the header against the length, the payload
// decoding to exactly its size, the Skein-512 digest of the bytes equal to
// the name); a file that fails is rejected (counted and reported) and the
// next remotes are asked; the first sound one is published into the root
// like a save, and its block completes the load.
class RvoRemoteFetch : public QRunnable
{
public:
    // Asks the remotes in order for the block file of `load` on the calling
    // thread and, when one has it, checks and publishes it on the pool.
    // False when no remote has it (the load is left to the caller).
    static bool start(const std::shared_ptr<RvoRemoteTier> &tier, const RvoBlockLoad &load);

    void run() override;

private:
    RvoRemoteFetch(std::shared_ptr<RvoRemoteTier> tier, int remote, QByteArray file,
                   RvoBlockLoad load);

    std::shared_ptr<RvoRemoteTier> m_Tier;
    int m_Remote; // the remote that sent m_File
    QByteArray m_File;
    RvoBlockLoad m_Load;
};

#endif // RVOREMOTEFETCH_P_H
