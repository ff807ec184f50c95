#ifndef RVODDI_H
#define RVODDI_H

// Every public class of RvoDdi.

#include "RvoBlockFuture.h"
#include "RvoConstAccessor.h"
#include "RvoDataBlock.h"
#include "RvoDataBlockManager.h"
#include "RvoDataBlockManagerBase.h"
#include "RvoDataDeleteLocker.h"
#include "RvoDataHash.h"
#include "RvoDataReference.h"
#include "RvoDdiGlobal.h"
#include "RvoDdiLog.h"
#include "RvoDdiMutex.h"
#include "RvoDdiMutexLocker.h"
#include "RvoHashHandle.h"
#include "RvoHashManager.h"
#include "RvoHashingJob.h"
#include "RvoModifyAccessor.h"
#include "RvoResultCache.h"
#include "RvoSkein.h"
#include "RvoSmartPointer.h"

#endif // RVODDI_H
