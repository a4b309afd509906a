// The small text readers of the backend: the configuration socket's errno,
// the route classifiers, key conversion, split-tunnel settings, values
// derived from a client configuration, and the log masking.
#include "FuzzHost.h"

#include "backend/MacVpnBackend.h"
#include "backend/core/LogMasking.h"

#include <QJsonDocument>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QCoreApplication &app = fuzzApplication();
    static QTemporaryDir dir;
    static MacVpnBackend backend(emptyHost(dir));
    Q_UNUSED(app);
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString text = QString::fromUtf8(bytes);

    backend.uapiErrno(text);
    const bool v4 = backend.isIpv4Route(text);
    const bool v6 = backend.isIpv6Route(text);
    if (v4 && v6)
        __builtin_trap(); // a route has one family
    if (backend.routeFamily(text) != (v6 ? QLatin1String("inet6") : QLatin1String("inet")))
        __builtin_trap();
    backend.routeType(text);
    if (backend.hexKey(text).size() % 2 != 0)
        __builtin_trap();
    LogMasking::uapiText(text);
    LogMasking::messageLine(bytes);

    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (document.isObject()) {
        const auto split = backend.splitTunnelFromPeer(document.object().toVariantMap());
        if (split.mode != 0 && split.mode != 1 && split.mode != 2)
            __builtin_trap();
        ParsedVpnConfig config;
        config.lastConfig = document.object();
        backend.endpointPort(config);
        backend.clientIpv4(config);
        if (backend.allowedIps(config).isEmpty())
            __builtin_trap();
        backend.uapiSetConfig(config);
        LogMasking::clientConfig(config.lastConfig);
    }
    return 0;
}
