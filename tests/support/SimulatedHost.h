#pragma once

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

// The macOS host that the stand-in tools keep in a directory (see
// tests/standins/mactools/mactools), as the tests read and change it.
class SimulatedHost
{
public:
    explicit SimulatedHost(QString directory) : dir(std::move(directory)) {}

    void reset(const QString &mactools) const
    {
        QProcess reset;
        reset.setProgram(mactools);
        reset.setArguments({"reset"});
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("MACSIM_STATE_DIR", dir);
        reset.setProcessEnvironment(environment);
        reset.start();
        reset.waitForFinished();
    }

    // An interface whose owner is gone has gone with it, as a utun does.
    QJsonObject state() const
    {
        QJsonObject host = QJsonDocument::fromJson(read("host.json")).object();
        QJsonObject interfaces = host.value("interfaces").toObject();
        QStringList gone;
        for (const QString &name : interfaces.keys()) {
            const qint64 owner = interfaces.value(name).toObject().value("owner").toInteger();
            if (owner != 0 && !alive(owner))
                gone.append(name), interfaces.remove(name);
        }
        QJsonArray routes;
        for (const QJsonValue &route : host.value("routes").toArray()) {
            if (!gone.contains(route.toObject().value("interface").toString()))
                routes.append(route);
        }
        host.insert("interfaces", interfaces);
        host.insert("routes", routes);
        return host;
    }
    QByteArray stateBytes() const { return QJsonDocument(state()).toJson(); }

    void writeState(const QJsonObject &host) const
    {
        const int lock =
            ::open(QFile::encodeName(dir + "/.lock").constData(), O_RDWR | O_CREAT, 0644);
        ::flock(lock, LOCK_EX);
        QFile file(dir + "/host.json");
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(QJsonDocument(host).toJson());
        file.close();
        ::close(lock);
    }

    // Every tool call so far, or those of one tool without its name.
    QList<QStringList> calls(const QString &tool = QString()) const
    {
        QList<QStringList> result;
        for (const QByteArray &line : read("calls.log").split('\n')) {
            const QStringList call = QJsonDocument::fromJson(line).toVariant().toStringList();
            if (!call.isEmpty() && (tool.isEmpty() || call.front() == tool))
                result.append(tool.isEmpty() ? call : call.mid(1));
        }
        return result;
    }

    void setFaults(const QStringList &rules) const
    {
        QFile file(dir + "/faults");
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(rules.join('\n').toUtf8() + '\n');
    }

    bool tunnelRunning() const
    {
        const QJsonObject interfaces = state().value("interfaces").toObject();
        for (const QJsonValue &interface : interfaces) {
            if (interface.toObject().contains("owner"))
                return true;
        }
        return false;
    }

    static bool alive(qint64 pid) // a zombie counts as gone
    {
        QFile stat(QString("/proc/%1/stat").arg(pid));
        return stat.open(QIODevice::ReadOnly) &&
               stat.readAll().split(')').last().trimmed().front() != 'Z';
    }

private:
    QByteArray read(const QString &name) const
    {
        QFile file(dir + "/" + name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QString dir;
};
