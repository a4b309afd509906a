// Writes the seed inputs of the fuzz targets: valid connection strings and
// requests built here, so the fuzzers start from deep inside the formats.
#include "../support/ClientConfig.h"
#include "../support/ConnectionString.h"

#include "protocol/VpnServiceProtocol.h"

#include <QDir>
#include <QFile>

namespace {

void write(const QString &dir, const QString &name, const QByteArray &bytes)
{
    QDir().mkpath(dir);
    QFile file(QDir(dir).filePath(name));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 2)
        return 64;
    const QString root = QString::fromLocal8Bit(argv[1]);
    const ParsedVpnConfig config = clientConfig();
    const QJsonObject document = awgDocument(config.lastConfig);
    const QByteArray json = QJsonDocument(document).toJson(QJsonDocument::Compact);
    const QString string = encodeConnectionString(document);

    // The parser's first byte chooses between a string and a document to encode.
    write(root + "/parser", "string", QByteArray(1, '\0') + string.toUtf8());
    write(root + "/parser", "document", QByteArray(1, '\1') + json);
    write(root + "/parser", "wrapped",
          QByteArray(1, '\0') + (string.left(60) + "\n" + string.mid(60) + "==").toUtf8());

    const QJsonObject split{{"enabled", true},
                            {"mode", 2},
                            {"entries", QJsonArray{QJsonObject{{"value", "10.0.0.0/8"}}}}};
    const QJsonObject connect{{"command", "connect"},
                              {"config", VpnServiceProtocol::parsedConfigToJson(config)},
                              {"peer", QJsonObject{{"config", string}, {"splitTunnel", split}}}};
    write(root + "/request", "status", "{\"command\":\"status\"}");
    write(root + "/request", "disconnect", "{\"command\":\"disconnect\"}");
    write(root + "/request", "connect", QJsonDocument(connect).toJson(QJsonDocument::Compact));

    write(root + "/classifiers", "errno", "private_key=00\nerrno=-22\n");
    write(root + "/classifiers", "route4", "10.0.0.0/8");
    write(root + "/classifiers", "route6", "2001:db8::/32");
    write(root + "/classifiers", "client",
          QJsonDocument(config.lastConfig).toJson(QJsonDocument::Compact));
    write(root + "/classifiers", "split",
          "{\"splitTunnel\":{\"enabled\":true,\"mode\":\"1\",\"entries\":[{\"value\":\"a\"}]}}");
    return 0;
}
