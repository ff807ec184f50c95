#ifndef RVOWAITUNTIL_P_H
#define RVOWAITUNTIL_P_H

#include <QElapsedTimer>
#include <QThread>

// Polls `done`, a millisecond at a time, until it holds or `timeoutMs`
// passes; returns its last value. For the self-check and the tests, which
// wait on the library's background threads from outside.
template<class Predicate>
bool waitUntil(Predicate done, int timeoutMs = 10000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return done();
        QThread::msleep(1);
    }
    return true;
}

#endif // RVOWAITUNTIL_P_H
