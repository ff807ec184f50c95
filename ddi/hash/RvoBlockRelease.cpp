#include "RvoBlockRelease_p.h"

// No block store is connected yet: digests own no blocks, so there is
// nothing to release. The block manager frees the digest's block here.
void rvoReleaseBlockOf(RvoDataHash *) { }
