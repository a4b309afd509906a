// One request line through the server's decoding and dispatch, over a real
// local socket, against a host where nothing exists.
#include "FuzzHost.h"

#include "service/MacVpnServiceServer.h"

#include <QElapsedTimer>
#include <QLocalSocket>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QCoreApplication &app = fuzzApplication();
    static QTemporaryDir dir;
    static const QString path = dir.filePath(QStringLiteral("service.sock"));
    static MacVpnServiceServer server(path, emptyHost(dir));
    static const bool listening = server.start();
    Q_UNUSED(app);
    Q_UNUSED(listening);
    QLocalSocket client;
    client.connectToServer(path);
    QElapsedTimer clock;
    clock.start();
    while (client.state() != QLocalSocket::ConnectedState && clock.elapsed() < 1000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    client.write(reinterpret_cast<const char *>(data), qsizetype(size));
    client.write("\n");
    client.flush();
    // Until the server has answered and closed, or a second has passed.
    while (client.state() == QLocalSocket::ConnectedState && clock.elapsed() < 1000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    client.abort();
    QCoreApplication::processEvents();
    return 0;
}
