#include "RvoBlockRelease_p.h"

#include "RvoDataBlockManager.h"

void rvoReleaseBlockOf(RvoDataHash *hash)
{
    // The digest is gone: nothing can name its block any more.
    RvoDataBlockManager::instance().freeBlock(hash, false, false);
}
