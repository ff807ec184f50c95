#include "RvoDataDeleteLocker.h"

#include "RvoBlockStore_p.h"

RvoDataDeleteLocker::RvoDataDeleteLocker()
{
    RvoBlockStore::instance().lockDeletes();
}

RvoDataDeleteLocker::~RvoDataDeleteLocker()
{
    RvoBlockStore::instance().unlockDeletes();
}
