#ifndef DELAYPROXY_H
#define DELAYPROXY_H

// Network distance on loopback (this kernel has no netem): a TCP proxy that
// listens on 127.0.0.1 at a free port and connects each client it accepts
// to 127.0.0.1:targetPort, holding every byte for `delay` in each direction
// (a round trip costs twice that) and, with a rate, pacing each direction's
// bytes, all connections' together, to it (a link of that bandwidth). A
// connection the target refuses is closed at once.
//
// Threading: one thread drives it; the proxy runs on a thread of its own.

#include <QString>

#include <chrono>
#include <memory>
#include <thread>

class DelayProxy
{
public:
    // bytesPerSecond 0: no pacing.
    DelayProxy(int targetPort, std::chrono::microseconds delay, qint64 bytesPerSecond = 0);
    ~DelayProxy();
    DelayProxy(const DelayProxy &) = delete;
    DelayProxy &operator=(const DelayProxy &) = delete;

    // Listens and starts forwarding; false, with error(), when it cannot.
    bool start();
    int port() const { return m_Port; }
    QString error() const { return m_Error; }

private:
    struct Loop;

    const int m_TargetPort;
    const std::chrono::microseconds m_Delay;
    const qint64 m_BytesPerSecond;
    int m_Listener = -1;
    int m_Wake[2] = {-1, -1}; // a pipe: its closing ends the loop
    int m_Port = 0;
    QString m_Error;
    std::thread m_Thread;
};

#endif // DELAYPROXY_H
