// Prints how many connection strings per second one thread parses: a typical
// 2-3 KB string and a 64 KB one.
#include "ClientConfig.h"

#include "config/VpnConfigParser.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>

#include <cstdio>

namespace {

// Random text does not compress, so it sizes the string the way real keys
// and AmneziaWG packet templates do.
QString randomHex(int bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    QRandomGenerator generator(42);
    for (char &c : data)
        c = char(generator.bounded(256));
    return QString::fromLatin1(data.toHex());
}

QString connectionString(int templateBytes)
{
    QJsonObject client = clientConfig().lastConfig;
    client.insert(QStringLiteral("I1"), QStringLiteral("<b 0x%1>").arg(randomHex(templateBytes)));
    client.insert(QStringLiteral("H1"), QStringLiteral("1020325451"));
    client.insert(QStringLiteral("S1"), QStringLiteral("15"));
    QJsonObject document = awgDocument(client);
    document.insert(QStringLiteral("description"), QStringLiteral("Tarvex office, Frankfurt"));
    return encodeConnectionString(document);
}

void measure(const char *label, const QString &input)
{
    if (!VpnConfigParser::parseConfig(input).success) {
        std::printf("%s: does not parse\n", label);
        return;
    }
    int count = 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 2000) {
        for (int i = 0; i < 100; ++i)
            count += VpnConfigParser::parseConfig(input).success ? 1 : 0;
    }
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    std::printf("%-8s %6lld characters: %9.0f strings/s, %7.1f us per parse\n", label,
                static_cast<long long>(input.size()), count / seconds, seconds * 1e6 / count);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    measure("typical", connectionString(1100));
    measure("large", connectionString(40500));
    return 0;
}
