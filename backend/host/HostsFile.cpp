#include "backend/BackendConstants.h"
#include "backend/MacVpnBackend.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>

namespace {

// Finds the first begin marker and, after it, the first end marker; returns
// the length of the block from the begin marker through the end marker, or
// -1 when the file holds no complete block.
qsizetype findBlock(const QString &text, qsizetype *begin)
{
    *begin = text.indexOf(HostsBeginMarker);
    const qsizetype end = text.indexOf(HostsEndMarker);
    if (*begin < 0 || end <= *begin)
        return -1;
    return end + HostsEndMarker.size() - *begin;
}

bool readText(QFile &file, QString *text)
{
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    *text = QString::fromUtf8(file.readAll());
    file.close();
    return true;
}

} // namespace

QString MacVpnBackend::controlPlaneHost() const
{
    const QString domain = QCoreApplication::organizationDomain().trimmed();
    return domain.isEmpty() ? QString(OrganizationDomain) : domain;
}

void MacVpnBackend::pinControlPlaneHosts(const QStringList &addresses)
{
    const QString hostName = controlPlaneHost();
    if (hostName.isEmpty() || addresses.isEmpty())
        return;

    QFile file(host.hostsFile);
    QString text;
    if (!readText(file, &text)) {
        qWarning() << "[MacVpnBackend] unable to read hosts file" << file.errorString();
        return;
    }

    qsizetype begin = 0;
    const qsizetype length = findBlock(text, &begin);
    if (length >= 0)
        text = text.remove(begin, length).trimmed() + QLatin1Char('\n');

    QString block = HostsBeginMarker + QLatin1Char('\n');
    for (const QString &address : addresses)
        block += address + QLatin1Char('\t') + hostName + QLatin1Char('\n');
    block += HostsEndMarker + QLatin1Char('\n');

    if (!text.isEmpty() && !text.endsWith(QLatin1Char('\n')))
        text += QLatin1Char('\n');
    text += block;

    if (!file.open(QIODevice::WriteOnly | QIODevice::Text | QIODevice::Truncate)) {
        qWarning() << "[MacVpnBackend] unable to write hosts file" << file.errorString();
        return;
    }
    file.write(text.toUtf8());
    file.close();
    qInfo() << "[MacVpnBackend] pinned control-plane host" << hostName << addresses;
}

void MacVpnBackend::unpinControlPlaneHosts()
{
    QFile file(host.hostsFile);
    QString text;
    if (!readText(file, &text))
        return;

    qsizetype begin = 0;
    const qsizetype length = findBlock(text, &begin);
    if (length < 0)
        return;
    text.remove(begin, length);
    while (text.contains(QLatin1String("\n\n\n")))
        text.replace(QLatin1String("\n\n\n"), QLatin1String("\n\n"));
    if (!text.isEmpty() && !text.endsWith(QLatin1Char('\n')))
        text += QLatin1Char('\n');

    if (!file.open(QIODevice::WriteOnly | QIODevice::Text | QIODevice::Truncate)) {
        qWarning() << "[MacVpnBackend] unable to restore hosts file" << file.errorString();
        return;
    }
    file.write(text.toUtf8());
    file.close();
    qInfo() << "[MacVpnBackend] unpinned control-plane hosts";
}
