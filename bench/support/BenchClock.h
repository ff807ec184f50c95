#ifndef BENCHCLOCK_H
#define BENCHCLOCK_H

// Seconds of the clocks the benchmarks read around what they time.

#include <time.h>

namespace BenchClock {

inline double seconds(clockid_t clock)
{
    timespec t {};
    clock_gettime(clock, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// CPU time the whole process has used, user and system.
inline double process()
{
    return seconds(CLOCK_PROCESS_CPUTIME_ID);
}

// CPU time the calling thread has used, user and system.
inline double thread()
{
    return seconds(CLOCK_THREAD_CPUTIME_ID);
}

// A steady wall clock.
inline double wall()
{
    return seconds(CLOCK_MONOTONIC);
}

} // namespace BenchClock

#endif // BENCHCLOCK_H
