// tarvexctl: talks to the Tarvex VPN service from a terminal. It parses
// connection strings with the same library the client application uses and
// speaks the service's one-line JSON protocol.
#include "client/ServiceClient.h"
#include "config/ConnectValidator.h"
#include "config/VpnConfigParser.h"
#include "protocol/VpnServiceProtocol.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTextStream>
#include <QThread>

#include <cstdio>
#include <future>
#include <unistd.h>

namespace {

enum ExitCode { Ok = 0, Refused = 1, Unreachable = 2, Usage = 64 };

// A full connect can spend several time-outs of the service back to back.
constexpr int ConnectTimeoutMs = 120000;
constexpr int ShortTimeoutMs = 30000;
// How long a restarted service may take to undo what its last run left.
constexpr int RecoveryWaitMs = 60000;

const char *const MainHelp =
    "Usage: tarvexctl [--json] COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  parse STRING|@FILE|-      decode a vpn:// connection string and print it as JSON\n"
    "  connect STRING|@FILE|-    bring the tunnel up (see: tarvexctl connect --help)\n"
    "  status                    show what the service is doing\n"
    "  disconnect                take the tunnel down and restore the host\n"
    "  always-on on|off|pause    block traffic outside the tunnel whenever it is down\n"
    "\n"
    "Options:\n"
    "  --json       print the service's reply line as it came\n"
    "  -h, --help   show help (also after a command)\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 service not reachable, 64 usage error.\n";

const char *const ParseHelp =
    "Usage: tarvexctl parse STRING|@FILE|-\n"
    "\n"
    "Decodes a connection string (from the argument, from FILE, or from standard\n"
    "input with -) and prints the parsed configuration as JSON. Line breaks and\n"
    "'=' padding in the string are ignored. Nothing is sent to the service.\n";

const char *const ConnectHelp =
    "Usage: tarvexctl connect STRING|@FILE|- [--kill-switch [--allow-lan]]\n"
    "                         [--no-leak-protection] [--apple-in-tunnel|--apple-around-tunnel]\n"
    "                         [--only DEST... | --exclude DEST...]\n"
    "                         [--only-file FILE | --exclude-file FILE]\n"
    "\n"
    "Parses the connection string locally (a bad string never reaches the service),\n"
    "then asks the service to connect and waits for the outcome.\n"
    "\n"
    "  --kill-switch       let nothing out or in outside the tunnel until you\n"
    "                      disconnect, also if the tunnel fails (pf)\n"
    "  --allow-lan         with --kill-switch, still reach the local networks\n"
    "  --no-leak-protection\n"
    "                      while connected, let the network route what it will around\n"
    "                      the tunnel (by default only the local networks' private\n"
    "                      ranges and Apple's own networks pass outside it)\n"
    "  --apple-in-tunnel   Apple's networks only through the tunnel too (some macOS\n"
    "                      releases then lose Messages, push and iCloud while connected)\n"
    "  --apple-around-tunnel\n"
    "                      Apple's networks outside the tunnel, also with --kill-switch\n"
    "\n"
    "Split tunnelling (DEST is an address, a range such as 10.0.0.0/8, or a host name):\n"
    "  --only DEST...      send only these destinations through the tunnel\n"
    "  --exclude DEST...   send everything but these destinations through the tunnel\n"
    "  --only-file FILE, --exclude-file FILE\n"
    "                      the same, one destination a line from FILE (- for standard\n"
    "                      input); blank lines and text after # are ignored\n";

const char *const StatusHelp =
    "Usage: tarvexctl status\n\nShows the service's status, its last error and the settings of "
    "the current connection; while connected, also the interface, the endpoint, how long the "
    "tunnel has been up, its last handshake and the bytes received and sent, leak protection "
    "and what the network routes around the tunnel; and whether the kill switch is on or "
    "blocking, and what is still to be undone.\n";
const char *const AlwaysOnHelp =
    "Usage: tarvexctl always-on on [--allow-lan] | off | pause SECONDS\n"
    "\n"
    "  on           from now on, and from every boot, let nothing out or in outside\n"
    "               the tunnel whenever it is not up (pf); kept until turned off\n"
    "  --allow-lan  with on, still reach the local networks\n"
    "  off          lift the block (a connection's own kill switch stays)\n"
    "  pause N      open the network for N seconds (at most 120), for the login\n"
    "               page of a hotel or airport network; the block returns by itself\n";
const char *const DisconnectHelp = "Usage: tarvexctl disconnect\n\nTakes the tunnel down; the "
                                   "service restores routes, DNS and /etc/hosts.\n";

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

int usage(const QString &problem)
{
    err() << "tarvexctl: " << problem << "\nTry 'tarvexctl --help'.\n";
    return Usage;
}

bool readSource(const QString &source, QString *text, QString *problem)
{
    if (source == QLatin1String("-")) {
        QFile input;
        if (!input.open(stdin, QIODevice::ReadOnly)) {
            *problem = QStringLiteral("cannot read standard input");
            return false;
        }
        *text = QString::fromUtf8(input.readAll());
        return true;
    }
    if (source.startsWith(QLatin1Char('@'))) {
        QFile file(source.mid(1));
        if (!file.open(QIODevice::ReadOnly)) {
            *problem =
                QStringLiteral("cannot read %1: %2").arg(file.fileName(), file.errorString());
            return false;
        }
        *text = QString::fromUtf8(file.readAll());
        return true;
    }
    *text = source;
    return true;
}

void printReadable(const QJsonObject &reply)
{
    out() << "status: " << reply.value(QLatin1String("status")).toString() << '\n';
    const QString error = reply.value(QLatin1String("error")).toString();
    if (!error.isEmpty())
        out() << "error: " << error << '\n';
    const QJsonObject always = reply.value(QLatin1String("alwaysOn")).toObject();
    if (always.value(QLatin1String("enabled")).toBool())
        out() << "always on: on"
              << (always.value(QLatin1String("allowLan")).toBool() ? ", LAN allowed" : "")
              << (always.contains(QLatin1String("pausedSeconds"))
                      ? QStringLiteral(", paused for %1 s more")
                            .arg(always.value(QLatin1String("pausedSeconds")).toInt())
                      : QString())
              << (always.value(QLatin1String("verified")).toBool() ? ", block verified"
                                                                   : ", block not verified")
              << '\n';
    else if (reply.contains(QLatin1String("alwaysOn")))
        out() << "always on: off\n";
    const QJsonObject peer = reply.value(QLatin1String("peer")).toObject();
    if (!peer.isEmpty()) {
        // The connection string carries keys; show its size, not its text.
        const QString config = peer.value(QLatin1String("config")).toString();
        if (!config.isEmpty())
            out() << "connection string: " << config.size() << " characters\n";
        const QJsonObject split = peer.value(QLatin1String("splitTunnel")).toObject();
        if (split.value(QLatin1String("enabled")).toBool()) {
            QStringList destinations;
            for (const QJsonValue &entry : split.value(QLatin1String("entries")).toArray())
                destinations.append(entry.toObject().value(QLatin1String("value")).toString());
            // A country's ranges run to thousands: the first few, and how many.
            constexpr int Shown = 8;
            const qsizetype more = destinations.size() - Shown;
            out() << (split.value(QLatin1String("mode")).toInt() == 1 ? "only through tunnel: "
                                                                      : "excluded from tunnel: ")
                  << destinations.mid(0, Shown).join(QLatin1String(", "))
                  << (more > 0 ? QStringLiteral(" and %1 more").arg(more) : QString()) << '\n';
        }
    }
}

QString amount(qint64 bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1 B").arg(bytes);
    if (bytes < 1024 * 1024)
        return QStringLiteral("%1 KiB").arg(qRound(double(bytes) / 1024));
    if (bytes < 1024LL * 1024 * 1024)
        return QStringLiteral("%1 MiB").arg(double(bytes) / (1024 * 1024), 0, 'f', 1);
    return QStringLiteral("%1 GiB").arg(double(bytes) / (1024 * 1024 * 1024), 0, 'f', 1);
}

QString duration(qint64 seconds)
{
    if (seconds < 60)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < 3600)
        return QStringLiteral("%1 min %2 s").arg(seconds / 60).arg(seconds % 60);
    return QStringLiteral("%1 h %2 min").arg(seconds / 3600).arg(seconds % 3600 / 60);
}

void printDetails(const QJsonObject &details)
{
    for (const char *key : {"killSwitch", "leakProtection"}) {
        if (!details.contains(QLatin1String(key)))
            continue;
        out() << (key[0] == 'k' ? "kill switch: " : "leak protection: ")
              << details.value(QLatin1String(key)).toString()
              << (details.contains(QLatin1String("blockProblem"))
                      ? QStringLiteral(" (%1)").arg(
                            details.value(QLatin1String("blockProblem")).toString())
                      : QString())
              << (details.value(QLatin1String("appleAroundTunnel")).toBool()
                      ? ", Apple's networks outside the tunnel"
                      : "")
              << '\n';
    }
    for (const QJsonValue &route : details.value(QLatin1String("aroundTunnelByNetwork")).toArray())
        out() << "the network routes " << route.toString() << '\n';
    for (const QJsonValue &left : details.value(QLatin1String("journalLeft")).toArray())
        out() << "journal of a later release: " << left.toString() << '\n';
    for (const QJsonValue &step : details.value(QLatin1String("pendingUndo")).toArray())
        out() << "still to undo: " << step[QLatin1String("what")].toString() << " ("
              << step[QLatin1String("error")].toString() << ")\n";
    if (!details.contains(QLatin1String("interface")))
        return; // not connected
    out() << "interface " << details.value(QLatin1String("interface")).toString() << ", endpoint "
          << details.value(QLatin1String("endpoint")).toString() << ", up "
          << duration(details.value(QLatin1String("uptimeSeconds")).toInteger()) << '\n';
    if (!details.contains(QLatin1String("lastHandshake")))
        return; // the tunnel program did not answer
    // Both in whole seconds, read a moment apart: no handshake is older than the tunnel.
    const qint64 handshake = details.value(QLatin1String("lastHandshake")).toInteger();
    const qint64 age = qMin(QDateTime::currentSecsSinceEpoch() - handshake,
                            details.value(QLatin1String("uptimeSeconds")).toInteger());
    out() << (handshake == 0
                  ? QStringLiteral("no handshake yet")
                  : QStringLiteral("last handshake %1 ago").arg(duration(qMax(age, 0LL))))
          << ", \u2193 " << amount(details.value(QLatin1String("receivedBytes")).toInteger())
          << " \u2191 " << amount(details.value(QLatin1String("sentBytes")).toInteger()) << '\n';
}

int report(const ServiceReply &reply, bool json)
{
    if (!reply.genuine) {
        err() << reply.failure << '\n';
        return Unreachable;
    }
    if (!reply.reached) {
        err() << "tarvexctl: the service is not reachable at " << VpnServiceProtocol::socketPath()
              << " (" << reply.failure << "). Is TarvexVpnService running?\n";
        return Unreachable;
    }
    if (json)
        out() << QString::fromUtf8(reply.line) << '\n';
    else
        printReadable(reply.message);
    return reply.message.value(QLatin1String("ok")).toBool() ? Ok : Refused;
}

// Waits for the service on another thread so the terminal can show progress;
// a service that is still restoring the system after a restart is asked again.
ServiceReply exchangeWithProgress(const QJsonObject &request, int timeoutMs, const char *label)
{
    const auto exchange = [request, timeoutMs] {
        QElapsedTimer waited;
        waited.start();
        ServiceReply reply = exchangeWithService(request, timeoutMs);
        while (reply.message.value(QLatin1String("recovering")).toBool() &&
               waited.elapsed() < RecoveryWaitMs) {
            QThread::msleep(500);
            reply = exchangeWithService(request, timeoutMs);
        }
        return reply;
    };
    auto pending = std::async(std::launch::async, exchange);
    const bool terminal = ::isatty(STDERR_FILENO);
    QElapsedTimer clock;
    clock.start();
    if (!terminal) {
        err() << label << "...\n";
        err().flush();
    }
    while (pending.wait_for(std::chrono::milliseconds(250)) != std::future_status::ready) {
        if (terminal) {
            err() << '\r' << label << "... " << clock.elapsed() / 1000 << " s";
            err().flush();
        }
    }
    if (terminal) {
        err() << '\r' << label << "... done in " << clock.elapsed() / 1000.0 << " s\n";
        err().flush();
    }
    return pending.get();
}

// Reads the connection string from its source and parses it; on failure the
// reason (the parser's Russian message when it got that far) is on stderr.
bool readAndParse(const QString &source, QString *text, VpnConfigParseResult *result)
{
    QString problem;
    if (!readSource(source, text, &problem)) {
        err() << "tarvexctl: " << problem << '\n';
        return false;
    }
    *result = VpnConfigParser::parseConfig(*text);
    if (!result->success)
        err() << result->errorMessage << '\n';
    return result->success;
}

int runParse(const QStringList &args, bool json)
{
    if (args.size() != 1)
        return usage(QStringLiteral("parse needs exactly one connection string"));
    QString text;
    VpnConfigParseResult result;
    if (!readAndParse(args.front(), &text, &result))
        return Refused;
    const QJsonDocument document(VpnServiceProtocol::parsedConfigToJson(result.config));
    out() << QString::fromUtf8(
        document.toJson(json ? QJsonDocument::Compact : QJsonDocument::Indented));
    if (json)
        out() << '\n';
    return Ok;
}

// One destination a line; what follows # is a comment.
bool readDestinations(const QString &path, QJsonArray *entries, QString *problem)
{
    QFile file(path);
    const bool opened = path == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly)
                                                   : file.open(QIODevice::ReadOnly);
    if (!opened) {
        *problem = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).section(QLatin1Char('#'), 0, 0);
        if (!line.trimmed().isEmpty())
            entries->append(QJsonObject{{QStringLiteral("value"), line.trimmed()}});
    }
    return true;
}

int runConnect(const QStringList &args, bool json)
{
    QString source;
    int mode = 0;
    QJsonArray entries;
    bool killSwitch = false;
    bool allowLan = false;
    QJsonObject peer;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString &arg = args[i];
        if (arg == QLatin1String("--no-leak-protection")) {
            peer.insert(QStringLiteral("leakProtection"), false);
        } else if (arg == QLatin1String("--apple-in-tunnel") ||
                   arg == QLatin1String("--apple-around-tunnel")) {
            peer.insert(QStringLiteral("appleAroundTunnel"),
                        arg.endsWith(QLatin1String("around-tunnel")));
        } else if (arg == QLatin1String("--kill-switch")) {
            killSwitch = true;
        } else if (arg == QLatin1String("--allow-lan")) {
            allowLan = true;
        } else if (arg == QLatin1String("--only") || arg == QLatin1String("--exclude")) {
            const int wanted = arg == QLatin1String("--only") ? 1 : 2;
            if (mode != 0 && mode != wanted)
                return usage(QStringLiteral("--only and --exclude cannot be combined"));
            mode = wanted;
        } else if (arg == QLatin1String("--only-file") || arg == QLatin1String("--exclude-file")) {
            const int wanted = arg == QLatin1String("--only-file") ? 1 : 2;
            if (mode != 0 && mode != wanted)
                return usage(QStringLiteral("--only and --exclude cannot be combined"));
            if (i + 1 >= args.size())
                return usage(QStringLiteral("%1 needs a file").arg(arg));
            mode = wanted;
            QString problem;
            if (!readDestinations(args[++i], &entries, &problem)) {
                err() << problem << '\n';
                return Refused;
            }
        } else if (arg.startsWith(QLatin1String("--"))) {
            return usage(QStringLiteral("unknown option %1").arg(arg));
        } else if (mode != 0) {
            entries.append(QJsonObject{{QStringLiteral("value"), arg}});
        } else if (source.isEmpty()) {
            source = arg;
        } else {
            return usage(QStringLiteral("connect takes one connection string"));
        }
    }
    if (source.isEmpty())
        return usage(QStringLiteral("connect needs a connection string"));
    if (mode != 0 && entries.isEmpty())
        return usage(QStringLiteral("%1 needs at least one destination")
                         .arg(mode == 1 ? QStringLiteral("--only") : QStringLiteral("--exclude")));
    if (allowLan && !killSwitch)
        return usage(QStringLiteral("--allow-lan goes with --kill-switch"));

    QString text;
    VpnConfigParseResult result;
    if (!readAndParse(source, &text, &result))
        return Refused;

    peer.insert(QStringLiteral("config"), text.trimmed());
    if (killSwitch)
        peer.insert(
            QStringLiteral("killSwitch"),
            QJsonObject{{QStringLiteral("enabled"), true}, {QStringLiteral("allowLan"), allowLan}});
    if (mode != 0)
        peer.insert(QStringLiteral("splitTunnel"),
                    QJsonObject{{QStringLiteral("enabled"), true},
                                {QStringLiteral("mode"), mode},
                                {QStringLiteral("entries"), entries}});
    // The service would refuse it just the same; saying so here is quicker.
    const QString problem = ConnectValidator::problem(result.config, peer.toVariantMap());
    if (!problem.isEmpty()) {
        err() << problem << '\n';
        return Refused;
    }
    const QJsonObject request{
        {QStringLiteral("command"), QStringLiteral("connect")},
        {QStringLiteral("config"), VpnServiceProtocol::parsedConfigToJson(result.config)},
        {QStringLiteral("peer"), peer}};
    return report(exchangeWithProgress(request, ConnectTimeoutMs, "connecting"), json);
}

int runAlwaysOn(const QStringList &args, bool json)
{
    QJsonObject request{{QStringLiteral("command"), QStringLiteral("alwaysOn")}};
    const QString verb = args.value(0);
    if (verb == QLatin1String("on") &&
        (args.size() == 1 || args.mid(1) == QStringList{QStringLiteral("--allow-lan")})) {
        request.insert(QStringLiteral("enabled"), true);
        request.insert(QStringLiteral("allowLan"), args.size() == 2);
    } else if (verb == QLatin1String("off") && args.size() == 1) {
        request.insert(QStringLiteral("enabled"), false);
    } else if (verb == QLatin1String("pause") && args.size() == 2) {
        bool number = false;
        const int seconds = args[1].toInt(&number);
        if (!number || seconds < 1 || seconds > 120)
            return usage(QStringLiteral("pause takes a number of seconds from 1 to 120"));
        request.insert(QStringLiteral("pause"), seconds);
    } else {
        return usage(QStringLiteral("always-on takes on [--allow-lan], off or pause SECONDS"));
    }
    return report(exchangeWithProgress(request, ShortTimeoutMs, "always-on"), json);
}

int runSimple(const char *command, const QStringList &args, bool json)
{
    if (!args.isEmpty())
        return usage(QStringLiteral("%1 takes no arguments").arg(QLatin1String(command)));
    const QJsonObject request{{QStringLiteral("command"), QLatin1String(command)}};
    if (qstrcmp(command, "disconnect") == 0)
        return report(exchangeWithProgress(request, ShortTimeoutMs, "disconnecting"), json);
    const ServiceReply status = exchangeWithService(request, ShortTimeoutMs);
    const int code = report(status, json);
    // How the tunnel is doing, the kill switch, what is left to undo: a second
    // reply line with --json.
    if (status.reached) {
        const ServiceReply details = exchangeWithService(
            {{QStringLiteral("command"), QStringLiteral("details")}}, ShortTimeoutMs);
        if (details.reached && json)
            out() << QString::fromUtf8(details.line) << '\n';
        else if (details.reached)
            printDetails(details.message.value(QLatin1String("details")).toObject());
    }
    return code;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    bool json = false;
    bool help = false;
    QString command;
    QStringList rest;
    for (const QString &arg : std::as_const(args)) {
        if (command.isEmpty() && arg == QLatin1String("--json"))
            json = true;
        else if (arg == QLatin1String("--help") || arg == QLatin1String("-h"))
            help = true;
        else if (command.isEmpty() && arg.startsWith(QLatin1Char('-')) && arg != QLatin1String("-"))
            return usage(QStringLiteral("unknown option %1").arg(arg));
        else if (command.isEmpty())
            command = arg;
        else if (arg == QLatin1String("--json"))
            json = true;
        else
            rest.append(arg);
    }

    struct Command
    {
        const char *name;
        const char *help;
    };
    static const Command commands[] = {{"parse", ParseHelp},
                                       {"connect", ConnectHelp},
                                       {"status", StatusHelp},
                                       {"disconnect", DisconnectHelp},
                                       {"always-on", AlwaysOnHelp}};
    if (command.isEmpty()) {
        (help ? out() : err()) << MainHelp;
        return help ? Ok : Usage;
    }
    const Command *chosen = nullptr;
    for (const Command &candidate : commands) {
        if (command == QLatin1String(candidate.name))
            chosen = &candidate;
    }
    if (!chosen)
        return usage(QStringLiteral("unknown command %1").arg(command));
    if (help) {
        out() << chosen->help;
        return Ok;
    }

    // Log lines of the shared library are for the service's log, not for the terminal.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    if (command == QLatin1String("parse"))
        return runParse(rest, json);
    if (command == QLatin1String("connect"))
        return runConnect(rest, json);
    if (command == QLatin1String("always-on"))
        return runAlwaysOn(rest, json);
    return runSimple(chosen->name, rest, json);
}
