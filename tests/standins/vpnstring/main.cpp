// Prints the vpn:// connection string for the JSON document on standard
// input, encoded as the product's server side does: qCompress, then URL-safe
// Base64 without padding. A "last_config" given as an object is stored as
// JSON text, the form connection strings carry.
#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

int main()
{
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly))
        return 1;
    const QJsonDocument document = QJsonDocument::fromJson(input.readAll());
    if (!document.isObject()) {
        std::fputs("vpn-string: standard input is not a JSON object\n", stderr);
        return 1;
    }
    QJsonObject root = document.object();
    QJsonArray containers = root.value(QStringLiteral("containers")).toArray();
    for (qsizetype i = 0; i < containers.size(); ++i) {
        QJsonObject container = containers.at(i).toObject();
        for (auto it = container.begin(); it != container.end(); ++it) {
            QJsonObject protocol = it.value().toObject();
            const QJsonValue last = protocol.value(QStringLiteral("last_config"));
            if (last.isObject()) {
                protocol.insert(QStringLiteral("last_config"),
                                QString::fromUtf8(
                                    QJsonDocument(last.toObject()).toJson(QJsonDocument::Compact)));
                it.value() = protocol;
            }
        }
        containers.replace(i, container);
    }
    root.insert(QStringLiteral("containers"), containers);
    const QByteArray packed =
        qCompress(QJsonDocument(root).toJson(QJsonDocument::Compact))
            .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
    std::printf("vpn://%s\n", packed.constData());
    return 0;
}
