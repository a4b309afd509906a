// A stand-in for amneziawg-go, installed under that name for tests. Like the
// real program started as "amneziawg-go -f utun" it takes the next free utunN,
// writes the name into $WG_TUN_NAME_FILE, and serves the configuration
// protocol on <directory of the name file>/<name>.sock until SIGTERM.
//
// Faults, from AWG_STANDIN_FAULTS (comma-separated):
//   eperm        exit at once, printing "operation not permitted"
//   noname       never write the name file (and print nothing)
//   late-socket  write the name file 700 ms before the socket accepts
//   errno=N      answer every set transaction with errno N
//   no-close     answer without the closing empty line
//   no-reply     read requests but never answer them
//   chatty       once named, print output without pause
//   name=NAME    report NAME (and serve NAME.sock) instead of its own utunN
//   ignore-term  ignore SIGTERM
#include "SimHost.h"
#include "UapiDevice.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

namespace {

QStringList faults()
{
    return qEnvironmentVariable("AWG_STANDIN_FAULTS").split(QLatin1Char(','), Qt::SkipEmptyParts);
}

QString faultValue(const QString &name)
{
    const QString prefix = name + QLatin1Char('=');
    for (const QString &fault : faults()) {
        if (fault.startsWith(prefix))
            return fault.mid(prefix.size());
    }
    return QString();
}

void log(const QString &interfaceName, const QString &text)
{
    std::printf(
        "INFO: (%s) %s %s\n", qPrintable(interfaceName),
        qPrintable(QDateTime::currentDateTime().toString(QStringLiteral("yyyy/MM/dd HH:mm:ss"))),
        qPrintable(text));
    std::fflush(stdout);
}

QString takeInterface(const QString &simDir, const QString &socketDir)
{
    if (simDir.isEmpty()) {
        for (int n = 0;; ++n) {
            const QString name = QStringLiteral("utun%1").arg(n);
            if (!QFileInfo::exists(QDir(socketDir).filePath(name + QStringLiteral(".sock"))))
                return name;
        }
    }
    SimHost::Lock lock(simDir);
    QJsonObject host = SimHost::load(simDir);
    QJsonObject interfaces = host.value(QStringLiteral("interfaces")).toObject();
    QString name;
    for (int n = 0; name.isEmpty(); ++n) {
        if (!interfaces.contains(QStringLiteral("utun%1").arg(n)))
            name = QStringLiteral("utun%1").arg(n);
    }
    interfaces.insert(name, QJsonObject{{QStringLiteral("mtu"), 1420},
                                        {QStringLiteral("up"), false},
                                        {QStringLiteral("owner"), qint64(::getpid())}});
    host.insert(QStringLiteral("interfaces"), interfaces);
    SimHost::save(simDir, host);
    return name;
}

// Closing a utun takes its addresses and the routes through it with it.
void releaseInterface(const QString &simDir, const QString &name)
{
    if (simDir.isEmpty())
        return;
    SimHost::Lock lock(simDir);
    QJsonObject host = SimHost::load(simDir);
    QJsonObject interfaces = host.value(QStringLiteral("interfaces")).toObject();
    interfaces.remove(name);
    QJsonArray routes;
    for (const QJsonValue &route : host.value(QStringLiteral("routes")).toArray()) {
        if (route.toObject().value(QStringLiteral("interface")).toString() != name)
            routes.append(route);
    }
    host.insert(QStringLiteral("interfaces"), interfaces);
    host.insert(QStringLiteral("routes"), routes);
    SimHost::save(simDir, host);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (app.arguments().mid(1) != QStringList{QStringLiteral("-f"), QStringLiteral("utun")}) {
        std::fprintf(stderr, "Usage: amneziawg-go [-f/--foreground] INTERFACE-NAME\n");
        return 2;
    }
    if (faults().contains(QStringLiteral("eperm"))) {
        std::fprintf(stderr,
                     "ERROR: (utun) Failed to create TUN device: operation not permitted\n");
        return 1;
    }

    // Stop requests arrive through a descriptor, so the event loop can tidy up.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    if (faults().contains(QStringLiteral("ignore-term")))
        std::signal(SIGTERM, SIG_IGN);
    else
        sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    const int signalFd = signalfd(-1, &stopSignals, SFD_CLOEXEC);
    QSocketNotifier stopNotifier(signalFd, QSocketNotifier::Read);

    const QString nameFile = qEnvironmentVariable("WG_TUN_NAME_FILE");
    const QString socketDir = nameFile.isEmpty() ? QStringLiteral("/var/run/amneziawg")
                                                 : QFileInfo(nameFile).absolutePath();
    QDir().mkpath(socketDir);
    const QString simDir = SimHost::stateDir();
    const QString forcedName = faultValue(QStringLiteral("name"));
    const QString name = forcedName.isEmpty() ? takeInterface(simDir, socketDir) : forcedName;
    const QString socketPath = QDir(socketDir).filePath(name + QStringLiteral(".sock"));
    const bool silent = faults().contains(QStringLiteral("noname"));
    if (!silent)
        log(name, QStringLiteral("Starting amneziawg-go version 0.2.12 (stand-in)"));

    UapiDevice device;
    QLocalServer server;
    QObject::connect(&server, &QLocalServer::newConnection, [&] {
        while (QLocalSocket *client = server.nextPendingConnection()) {
            QObject::connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            QObject::connect(client, &QLocalSocket::readyRead, client, [client, &device] {
                QByteArray buffer = client->property("buffer").toByteArray() + client->readAll();
                qsizetype end;
                while ((end = buffer.indexOf("\n\n")) >= 0) {
                    const QString request = QString::fromUtf8(buffer.left(end));
                    buffer.remove(0, end + 2);
                    if (faults().contains(QStringLiteral("no-reply")))
                        continue;
                    QString listing;
                    int error = device.handle(request, &listing);
                    const QString forced = faultValue(QStringLiteral("errno"));
                    if (!forced.isEmpty() && request.startsWith(QStringLiteral("set=1")))
                        error = forced.toInt();
                    QByteArray reply =
                        listing.toUtf8() + "errno=" + QByteArray::number(error) + '\n';
                    if (!faults().contains(QStringLiteral("no-close")))
                        reply += '\n';
                    client->write(reply);
                    client->flush();
                }
                client->setProperty("buffer", buffer);
            });
        }
    });

    const auto listen = [&] {
        QLocalServer::removeServer(socketPath);
        if (!server.listen(socketPath)) {
            std::fprintf(stderr, "ERROR: (%s) Failed to listen on uapi socket: %s\n",
                         qPrintable(name), qPrintable(server.errorString()));
            QCoreApplication::exit(1);
            return;
        }
        if (!silent)
            log(name, QStringLiteral("UAPI listener started"));
    };
    const auto writeName = [&] {
        if (silent || nameFile.isEmpty())
            return;
        QFile file(nameFile);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(name.toLocal8Bit() + '\n');
    };

    // Printed from a thread of its own, as a real program's logger would, so
    // that a reader who falls behind blocks the output and nothing else.
    if (faults().contains(QStringLiteral("chatty")))
        std::thread([] {
            const QByteArray line = QByteArray(4095, 'x') + '\n';
            for (;;)
                ::write(STDOUT_FILENO, line.constData(), size_t(line.size()));
        }).detach();

    if (faults().contains(QStringLiteral("late-socket"))) {
        writeName();
        QTimer::singleShot(700, &app, listen);
    } else {
        listen();
        writeName();
    }

    QObject::connect(&stopNotifier, &QSocketNotifier::activated, &app, [&] {
        signalfd_siginfo info;
        [[maybe_unused]] const auto n = ::read(signalFd, &info, sizeof info);
        if (!silent)
            log(name, QStringLiteral("Shutting down"));
        QCoreApplication::quit();
    });

    const int code = app.exec();
    server.close();
    if (forcedName.isEmpty())
        releaseInterface(simDir, name);
    return code;
}
