#include "LocalServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(quint16(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A port nothing listens on now: the kernel's pick for a socket bound to
// port 0. Another process may take it before the server does; start()
// then tries another.
int freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    int port = 0;
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    if (fd >= 0)
        ::close(fd);
    return port;
}

bool accepts(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    const bool connected = fd >= 0
            && ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0)
        ::close(fd);
    return connected;
}

} // namespace

LocalServer::LocalServer(const QString &name, const QString &program,
                         RvoRemoteEndpoint::Scheme scheme, const QString &path)
    : m_Name(name)
    , m_Program(program)
    , m_Scheme(scheme)
    , m_Path(path)
{
}

LocalServer::~LocalServer()
{
    stop();
}

bool LocalServer::isInstalled() const
{
    return QFileInfo(m_Program).isExecutable();
}

QString LocalServer::notInstalled() const
{
    return QStringLiteral("%1 is not installed (%2): scripts/test installs it")
            .arg(m_Name, m_Program);
}

bool LocalServer::start()
{
    if (isRunning())
        return true;
    if (!isInstalled()) {
        m_Error = notInstalled();
        return false;
    }
    if (m_Port != 0)
        return launch();
    // A port taken between its pick and the server's bind: try another.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_Port = freePort();
        if (launch())
            return true;
    }
    m_Port = 0;
    return false;
}

bool LocalServer::launch()
{
    m_Error.clear();
    const QStringList arguments = this->arguments(&m_Error);
    if (!m_Error.isEmpty())
        return false;
    const QString log = m_Dir.filePath(QStringLiteral("output.log"));
    ChildProcess::Options options;
    options.directory = m_Dir.path();
    options.output = log;
    options.dieWithThread = true;
    if (!m_Process.start(m_Program, arguments, options)) {
        m_Error = QStringLiteral("%1 did not start").arg(m_Name);
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    while (!accepts(m_Port)) {
        // Waiting for the end is the pause between tries, and how the
        // process learns that the server gave up (a port taken, a bad
        // configuration).
        if (m_Process.waitForFinished(10) || clock.elapsed() > 10000) {
            kill();
            m_Error = QStringLiteral("%1 did not listen on port %2: %3")
                              .arg(m_Name)
                              .arg(m_Port)
                              .arg(output().right(2000));
            return false;
        }
    }
    return true;
}

void LocalServer::stop()
{
    if (!isRunning())
        return;
    m_Process.signal(SIGTERM);
    m_Process.signal(SIGCONT);
    if (!m_Process.waitForFinished(10000))
        kill();
}

void LocalServer::kill()
{
    if (!isRunning())
        return;
    m_Process.signal(SIGKILL);
    m_Process.waitForFinished(10000);
}

void LocalServer::pause()
{
    if (isRunning())
        m_Process.signal(SIGSTOP);
}

void LocalServer::resume()
{
    if (isRunning())
        m_Process.signal(SIGCONT);
}

bool LocalServer::restart()
{
    stop();
    return start();
}

bool LocalServer::isRunning() const
{
    return m_Process.isRunning();
}

QString LocalServer::output() const
{
    QFile file(m_Dir.filePath(QStringLiteral("output.log")));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

RvoRemoteEndpoint LocalServer::endpoint() const
{
    RvoRemoteEndpoint endpoint;
    endpoint.scheme = m_Scheme;
    endpoint.host = QStringLiteral("127.0.0.1");
    endpoint.port = m_Port;
    endpoint.path = m_Path;
    endpoint.connectTimeoutMs = 100;
    endpoint.operationTimeoutMs = 2000;
    return endpoint;
}

QString LocalServer::url() const
{
    return endpoint().plainUrl();
}
