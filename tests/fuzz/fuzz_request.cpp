// One request line through the server's decoding and dispatch, over a real
// local socket, against a host where nothing exists.
#include "FuzzHost.h"

#include "service/MacVpnServiceServer.h"

#include <QElapsedTimer>
#include <QLocalSocket>

#include <cstdint>
#include <memory>

namespace {

struct Harness
{
    QTemporaryDir dir;
    std::unique_ptr<MacVpnServiceServer> server;
    QString path;
};

Harness &harness()
{
    static Harness h = [] {
        fuzzApplication();
        Harness created;
        created.path = created.dir.filePath(QStringLiteral("service.sock"));
        created.server =
            std::make_unique<MacVpnServiceServer>(created.path, emptyHost(created.dir));
        created.server->start();
        return created;
    }();
    return h;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Harness &h = harness();
    QLocalSocket client;
    client.connectToServer(h.path);
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
