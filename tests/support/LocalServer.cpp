#include "LocalServer.h"

#include "RvoRemoteSpec_p.h"

#include <QDir>
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

// Closes `fd` when it is a descriptor; whether it was.
bool closed(int fd)
{
    return fd >= 0 && ::close(fd) == 0;
}

} // namespace

int listenOnLoopback(int *port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (fd >= 0
        && (::bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0
            || ::listen(fd, 128) != 0
            || ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)) {
        ::close(fd);
        fd = -1;
    }
    *port = fd >= 0 ? ntohs(address.sin_port) : 0;
    return fd;
}

int connectToLoopback(int port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (fd >= 0
        && ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        ::close(fd);
        fd = -1;
    }
    return fd;
}

LocalServer::LocalServer(Kind kind)
    : m_Kind(kind)
    , m_Name(QStringList {"nginx", "redis-server", "s3rver"}.at(kind))
    , m_Program(QStringList {"/usr/sbin/nginx", "/usr/bin/redis-server", RVODDI_S3RVER}.at(kind))
{
}

LocalServer::~LocalServer()
{
    stop();
}

QString LocalServer::notUsable() const
{
    // A kind the library was built without: its own refusal of the URL.
    QVector<RvoRemoteSpec::Remote> remotes;
    if (QString refusal; !RvoRemoteSpec::parse(url(), &remotes, &refusal))
        return refusal;
    if (QFileInfo(m_Program).isExecutable())
        return QString();
    return QStringLiteral("%1 is not installed (%2): scripts/test installs it")
            .arg(m_Name, m_Program);
}

bool LocalServer::start()
{
    if (m_Process.isRunning())
        return true;
    if (m_Error = notUsable(); !m_Error.isEmpty())
        return false;
    if (m_Port != 0)
        return launch();
    // A port free when picked, but taken before the server's bind: try another.
    for (int attempt = 0; attempt < 5; ++attempt) {
        closed(listenOnLoopback(&m_Port));
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
    while (!closed(connectToLoopback(m_Port))) {
        // Waiting for the end is the pause between tries, and how the
        // process learns that the server gave up (a port taken, a bad
        // configuration).
        if (m_Process.waitForFinished(10) || clock.elapsed() > 10000) {
            kill();
            QFile output(log); // what the server said on its way out
            output.open(QIODevice::ReadOnly);
            m_Error = QStringLiteral("%1 did not listen on port %2: %3")
                              .arg(m_Name)
                              .arg(m_Port)
                              .arg(QString::fromLocal8Bit(output.readAll().right(2000)));
            return false;
        }
    }
    return true;
}

void LocalServer::stop()
{
    if (!m_Process.isRunning())
        return;
    m_Process.signal(SIGTERM);
    m_Process.signal(SIGCONT);
    if (!m_Process.waitForFinished(10000))
        kill();
}

void LocalServer::kill()
{
    if (!m_Process.isRunning())
        return;
    m_Process.signal(SIGKILL);
    m_Process.waitForFinished(10000);
}

RvoRemoteEndpoint LocalServer::endpoint(int via) const
{
    RvoRemoteEndpoint endpoint;
    const RvoRemoteEndpoint::Scheme http
            = m_Tls ? RvoRemoteEndpoint::Https : RvoRemoteEndpoint::Http;
    endpoint.scheme = QVector<RvoRemoteEndpoint::Scheme> {http, RvoRemoteEndpoint::Redis,
                                                          RvoRemoteEndpoint::S3}
                              .at(m_Kind);
    endpoint.host = QStringLiteral("127.0.0.1");
    endpoint.port = via ? via : m_Port;
    endpoint.path = QStringList {"/tiles", "", "/blocks"}.at(m_Kind);
    if (m_Kind == S3) {
        endpoint.bucket = QStringLiteral("tiles");
        endpoint.region = QStringLiteral("us-east-1");
        endpoint.pathStyle = true;
        endpoint.user = endpoint.password = QStringLiteral("S3RVER");
    }
    endpoint.connectTimeoutMs = m_Tls ? 5000 : 100; // TLS handshakes are slow under sanitizers
    endpoint.operationTimeoutMs = 2000;
    return endpoint;
}

void LocalServer::requirePassword(const QString &user, const QString &password)
{
    m_User = user;
    m_Password = password;
}

QString LocalServer::url(int via) const
{
    return m_Kind == S3 ? endpoint(via).plainUrl().replace("s3://", "s3://S3RVER:S3RVER@")
                        : endpoint(via).plainUrl();
}

QString LocalServer::documentRoot() const
{
    return dir() + (m_Kind == S3 ? "/data/tiles/blocks" : "/www/tiles");
}

QString LocalServer::filePath(const QString &name) const
{
    return QStringLiteral("%1/%2/%3").arg(documentRoot(), name.left(2), name)
            + (m_Kind == S3 ? "._S3rver_object" : "");
}

QString LocalServer::accessLogPath() const
{
    return dir() + QStringLiteral("/access.log");
}

// A self-signed certificate for 127.0.0.1: cert.pem and key.pem in `dir`.
static bool makeCertificate(const QString &dir, QString *error)
{
    ChildProcess openssl;
    ChildProcess::Options options;
    options.directory = dir;
    options.output = dir + QStringLiteral("/openssl.log");
    const QStringList arguments
            = QStringLiteral("req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem "
                             "-days 2 -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1")
                      .split(QLatin1Char(' '));
    if (!openssl.start(QStringLiteral("/usr/bin/openssl"), arguments, options)
        || !openssl.waitForFinished(30000) || openssl.exitCode() != 0) {
        *error = QStringLiteral("openssl did not make a certificate (scripts/test installs it)");
        return false;
    }
    return true;
}

static bool writeFile(const QString &path, const QString &text, QString *error)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write(text.toUtf8()) == text.toUtf8().size())
        return true;
    *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
    return false;
}

QStringList LocalServer::arguments(QString *error)
{
    const QString d = dir();
    // A temporary directory may hold a space: paths and passwords go as
    // arguments of their own, and quoted in nginx's configuration.
    if (m_Kind == Redis) {
        // Nothing saved: the empty argument of --save.
        QStringList arguments = QStringLiteral("--port %1 --bind 127.0.0.1 --appendonly no")
                                        .arg(port())
                                        .split(QLatin1Char(' '))
                << QStringLiteral("--save") << QString() << QStringLiteral("--dir") << d;
        if (!m_Password.isEmpty())
            arguments << QStringLiteral("--requirepass") << m_Password << QStringLiteral("--user")
                      << m_User << QStringLiteral("on") << QLatin1Char('>') + m_Password
                      << QStringLiteral("~*") << QStringLiteral("+@all");
        return arguments;
    }
    if (m_Kind == S3)
        return QStringList {QStringLiteral("-d"), d + QStringLiteral("/data")}
        + QStringLiteral("-a 127.0.0.1 -p %1 --silent --no-vhost-buckets --configure-bucket tiles")
                  .arg(port())
                  .split(QLatin1Char(' '));
    if (!QDir().mkpath(documentRoot())) {
        *error = QStringLiteral("cannot create %1").arg(documentRoot());
        return {};
    }
    QString auth;
    if (!m_User.isEmpty()) {
        // nginx takes a password in the clear behind the {PLAIN} scheme.
        if (!writeFile(d + QStringLiteral("/htpasswd"),
                       QStringLiteral("%1:{PLAIN}%2\n").arg(m_User, m_Password), error))
            return {};
        auth = QStringLiteral("auth_basic rvoddi; auth_basic_user_file \"%1/htpasswd\";").arg(d);
    }
    QString listen = QStringLiteral("127.0.0.1:%1").arg(port());
    if (m_Tls) {
        if (!QFile::exists(certificatePath()) && !makeCertificate(d, error))
            return {};
        listen += QStringLiteral(" ssl; ssl_certificate \"%1\"; ssl_certificate_key \"%2/key.pem\"")
                          .arg(certificatePath(), d);
    }
    // No master process: the server is one process that pause() stops
    // whole, and that writes the document root as whoever runs the test,
    // root included (a master would hand requests to workers running as
    // "nobody").
    const QString config
            = QStringLiteral("daemon off;\n"
                             "master_process off;\n"
                             "pid \"%1/nginx.pid\";\n"
                             "error_log \"%1/error.log\" info;\n"
                             "events { worker_connections 256; }\n"
                             "http {\n"
                             "    log_format rvoddi '$connection $request_method $uri $status';\n"
                             "    access_log \"%1/access.log\" rvoddi;\n"
                             "    client_body_temp_path \"%1/client_body\";\n"
                             "    proxy_temp_path \"%1/proxy\";\n"
                             "    fastcgi_temp_path \"%1/fastcgi\";\n"
                             "    uwsgi_temp_path \"%1/uwsgi\";\n"
                             "    scgi_temp_path \"%1/scgi\";\n"
                             "    default_type application/octet-stream;\n"
                             "    server {\n"
                             "        listen %2;\n"
                             "        root \"%1/www\";\n"
                             "        location /tiles/ {\n"
                             "            dav_methods PUT;\n"
                             "            create_full_put_path on;\n"
                             "            client_max_body_size 0;\n"
                             "            %3\n"
                             "        }\n"
                             "    }\n"
                             "}\n")
                      .arg(d, listen, auth);
    if (!writeFile(d + QStringLiteral("/nginx.conf"), config, error))
        return {};
    return {QStringLiteral("-p"), d, QStringLiteral("-c"), d + QStringLiteral("/nginx.conf")};
}
