#ifndef RVOBLOCKRELEASE_P_H
#define RVOBLOCKRELEASE_P_H

class RvoDataHash;

// Where a digest's last release goes: the block manager takes the delete
// lock, drops the count with RvoDataHash::dropLastReference() and, when it
// reached zero, takes the digest out of the registry and its block out of
// memory in one step, then deletes both. Called by RvoDataHash::decRef with
// no lock held.
void rvoReleaseLastReference(RvoDataHash *hash);

#endif // RVOBLOCKRELEASE_P_H
