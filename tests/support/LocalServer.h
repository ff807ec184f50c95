#ifndef LOCALSERVER_H
#define LOCALSERVER_H

// A real server from Debian's packages, run by a test or a benchmark as a
// child of this process, in a temporary directory of its own and listening
// on 127.0.0.1 only, at a free port picked on the first start and kept
// across restarts. The server dies with the thread that started it, so a
// test that crashes leaves none running.
//
// Threading: driven by one thread, the one that starts it, which must
// outlive the server.

#include "ChildProcess.h"
#include "RvoRemoteEndpoint_p.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

class LocalServer
{
public:
    virtual ~LocalServer();
    LocalServer(const LocalServer &) = delete;
    LocalServer &operator=(const LocalServer &) = delete;

    // Whether the server's program is there; when not, a test skips with
    // notInstalled() ("nginx is not installed (/usr/sbin/nginx): ...").
    bool isInstalled() const;
    QString notInstalled() const;

    // Starts the server and waits, at most 10 seconds, until its port
    // accepts connections. False, with error(), when it does not come up.
    bool start();
    // SIGTERM (resuming a paused server), then waits for the end; SIGKILL
    // when it takes longer than 10 seconds.
    void stop();
    // SIGKILL: the server ends without closing anything itself.
    void kill();
    // SIGSTOP and SIGCONT. A paused server's port still accepts connections
    // (the kernel queues them) but nothing answers: how a test provokes an
    // operation timeout.
    void pause();
    void resume();
    // stop(), then start() on the same port.
    bool restart();

    bool isRunning() const;
    int port() const { return m_Port; }
    // The server's process id while it runs (for its CPU time).
    qint64 pid() const { return m_Process.pid(); }
    // The temporary directory: configuration, logs, data.
    QString dir() const { return m_Dir.path(); }
    // What the server printed on its standard output and error.
    QString output() const;
    QString error() const { return m_Error; }

    // The server as the remote-storage setting names it, without
    // credentials: "http://127.0.0.1:PORT/tiles", "redis://127.0.0.1:PORT".
    QString url() const;
    // The server for a client: 100 ms to connect, 2 s per operation.
    RvoRemoteEndpoint endpoint() const;

protected:
    // `path`: the endpoint's path, "" or "/tiles".
    LocalServer(const QString &name, const QString &program, RvoRemoteEndpoint::Scheme scheme,
                const QString &path);
    // The arguments that run the server on port(), after writing what it
    // reads in dir(). Empty, with *error set, when that fails.
    virtual QStringList arguments(QString *error) = 0;

private:
    bool launch();

    const QString m_Name;
    const QString m_Program;
    const RvoRemoteEndpoint::Scheme m_Scheme;
    const QString m_Path;
    QTemporaryDir m_Dir;
    mutable ChildProcess m_Process; // reaped when found ended
    int m_Port = 0;
    QString m_Error;
};

#endif // LOCALSERVER_H
