#include "backend/routes/RouteMonitor.h"

#include <QDebug>
#include <QRegularExpression>

namespace {

// A line longer than this is no message line; what is kept of it is bounded.
constexpr qsizetype MaxLineBytes = 4096;
constexpr int StopTimeoutMs = 2000;

// route prints the zero address of IPv4 as "default", of IPv6 as "::"; a
// default route has a zero mask too, or none at all.
bool isDefaultRoute(const QByteArray &destination, const QByteArray &mask)
{
    const auto zero = [](const QByteArray &text) {
        return text == "default" || text == "0.0.0.0" || text == "::";
    };
    return zero(destination) && (mask.isEmpty() || zero(mask));
}

QByteArray captured(const QByteArray &line, const QRegularExpression &expression)
{
    return expression.match(QString::fromLatin1(line)).captured(1).toLatin1();
}

const QRegularExpression ErrorNumber(QStringLiteral("errno (-?[0-9]+)"));
const QRegularExpression LinkIndex(QStringLiteral("if# ([0-9]+)"));
const QRegularExpression Flags(QStringLiteral("flags:<([A-Z0-9_,]*)>"));
const QRegularExpression AddressNames(QStringLiteral("<([A-Z,]*)>"));

} // namespace

RouteMonitor::RouteMonitor(QObject *parent) : QObject(parent)
{
    settle.setSingleShot(true);
    connect(&settle, &QTimer::timeout, this, [this] {
        burst.invalidate();
        Q_EMIT settled();
    });
    restart.setSingleShot(true);
    restart.setInterval(RestartDelayMs);
    connect(&restart, &QTimer::timeout, this, &RouteMonitor::launch);
    process.setProcessChannelMode(QProcess::MergedChannels);
    connect(&process, &QProcess::readyReadStandardOutput, this, &RouteMonitor::readEvents);
    connect(&process, &QProcess::finished, this, &RouteMonitor::exited);
    connect(&process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            exited();
    });
}

RouteMonitor::~RouteMonitor()
{
    stop();
}

void RouteMonitor::start(const QString &routeTool)
{
    stop();
    program = routeTool;
    restarts = 0;
    running = true;
    launch();
}

void RouteMonitor::stop()
{
    running = false;
    settle.stop();
    restart.stop();
    burst.invalidate();
    partial.clear();
    pending = Changes();
    linkUp.clear();
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(StopTimeoutMs)) {
        process.kill();
        process.waitForFinished(StopTimeoutMs);
    }
}

RouteMonitor::Changes RouteMonitor::takeChanges()
{
    return std::exchange(pending, Changes());
}

void RouteMonitor::launch()
{
    qInfo() << "[MacVpnBackend] route monitor" << program;
    healthy.start();
    type.clear();
    process.start(program, {QStringLiteral("-n"), QStringLiteral("monitor")}, QIODevice::ReadOnly);
    // A change made before the monitor runs (since the routes were set, or
    // while it was down) would go unseen: one look once it does.
    pending.wayOut = true;
    note();
}

void RouteMonitor::readEvents()
{
    partial += process.readAllStandardOutput();
    qsizetype end = 0;
    while ((end = partial.indexOf('\n')) >= 0) {
        readLine(partial.left(end));
        partial.remove(0, end + 1);
    }
    if (partial.size() > MaxLineBytes)
        partial.clear();
}

// The lines of one message, as route's print_rtmsg() writes them:
//   RTM_DELETE: Delete Route: len 140, pid: 0, seq 0, errno 0, flags:<UP,GATEWAY,DONE,STATIC>
//   locks:  inits:
//   sockaddrs: <DST,GATEWAY,NETMASK>
//    default 192.168.1.1 default
// and for a link: "RTM_IFINFO: iface status change: len 112, if# 6, flags:<UP,...,RUNNING,...>".
void RouteMonitor::readLine(const QByteArray &line)
{
    if (line.startsWith("RTM_")) {
        type = line.left(line.indexOf(':'));
        error = captured(line, ErrorNumber).toInt();
        addressNames.clear();
        if (type != "RTM_IFINFO")
            return;
        // Seen for the first time, a link is only taken note of.
        const int index = captured(line, LinkIndex).toInt();
        const QByteArray flags = captured(line, Flags);
        const bool up = flags.split(',').contains("UP") && flags.split(',').contains("RUNNING");
        const auto seen = linkUp.constFind(index);
        if (seen != linkUp.cend() && *seen != up) {
            pending.wayOut = true;
            note();
        }
        linkUp.insert(index, up);
    } else if (line.startsWith("sockaddrs:")) {
        addressNames = captured(line, AddressNames).split(',');
    } else if (line.startsWith(' ') && !addressNames.isEmpty()) {
        const QList<QByteArray> values = line.trimmed().split(' ');
        const QByteArray destination = addressNames.indexOf("DST") >= 0
                                           ? values.value(addressNames.indexOf("DST"))
                                           : QByteArray();
        const QByteArray mask = addressNames.indexOf("NETMASK") >= 0
                                    ? values.value(addressNames.indexOf("NETMASK"))
                                    : QByteArray();
        addressNames.clear();
        // A refused change changed nothing; a look-up or an address changes no route.
        const bool change = type == "RTM_ADD" || type == "RTM_DELETE" || type == "RTM_CHANGE";
        if (!change || error != 0 || destination.isEmpty())
            return;
        if (isDefaultRoute(destination, mask))
            pending.wayOut = true;
        else if (type != "RTM_ADD")
            pending.touched.append(QString::fromLatin1(destination));
        else
            return;
        note();
    }
}

// Waits for the burst to end, but never longer than MaxDelayMs after it began.
void RouteMonitor::note()
{
    if (!burst.isValid())
        burst.start();
    settle.start(int(qBound(qint64(0), MaxDelayMs - burst.elapsed(), qint64(SettleMs))));
}

void RouteMonitor::exited()
{
    if (!running)
        return;
    if (healthy.isValid() && healthy.elapsed() >= HealthyMs)
        restarts = 0;
    if (restarts >= MaxRestarts) {
        qWarning() << "[MacVpnBackend] route monitor exited; not started again"
                   << "exitCode=" << process.exitCode();
        running = false;
        return;
    }
    ++restarts;
    qWarning() << "[MacVpnBackend] route monitor exited; starting it again" << restarts << "of"
               << MaxRestarts;
    restart.start();
}
