#ifndef RVOBLOCKRELEASE_P_H
#define RVOBLOCKRELEASE_P_H

class RvoDataHash;

// The one place where a digest's death reaches the blocks stored under it.
// RvoDataHash::decRef calls it after the last reference is gone and the
// digest has left the registry, with no lock held, just before the digest
// object is deleted.
void rvoReleaseBlockOf(RvoDataHash *hash);

#endif // RVOBLOCKRELEASE_P_H
