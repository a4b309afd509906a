#pragma once

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>

// The macOS host that the stand-in tools keep in a directory (see
// tests/standins/mactools/mactools), as the tests read and change it.
class SimulatedHost
{
public:
    SimulatedHost(QString directory, QString mactools)
        : dir(std::move(directory)), tool(std::move(mactools))
    {
    }

    void reset() const { run({"reset"}); }
    // Puts the tools at their macOS paths, or into the given directory.
    void link(const QString &directory = QString()) const
    {
        run(directory.isEmpty() ? QStringList{"link"} : QStringList{"link", directory});
    }
    // As the tools see it: an interface whose owner is gone has gone with
    // its routes, as a utun does.
    QJsonObject state() const { return QJsonDocument::fromJson(run({"state"})).object(); }
    QByteArray stateBytes() const { return QJsonDocument(state()).toJson(); }
    void writeState(const QJsonObject &host) const { run({"write"}, QJsonDocument(host).toJson()); }

    // Every tool call so far, each with the tool's name first.
    QList<QStringList> calls() const
    {
        QList<QStringList> result;
        for (const QByteArray &line : read(dir + "/calls.log").split('\n')) {
            if (!line.isEmpty())
                result.append(QJsonDocument::fromJson(line).toVariant().toStringList());
        }
        return result;
    }

    void setFaults(const QStringList &rules) const
    {
        QFile file(dir + "/faults");
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(rules.join('\n').toUtf8() + '\n');
    }

    // The process that holds a utun, 0 when none does.
    qint64 tunnelPid() const
    {
        for (const QJsonValue &interface : state().value("interfaces").toObject()) {
            if (const qint64 owner = interface["owner"].toInteger())
                return owner;
        }
        return 0;
    }

protected:
    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    QByteArray run(const QStringList &arguments, const QByteArray &input = QByteArray()) const
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("MACSIM_STATE_DIR", dir);
        process.setProcessEnvironment(environment);
        process.start(tool, arguments);
        process.write(input);
        process.closeWriteChannel();
        process.waitForFinished();
        return process.readAllStandardOutput();
    }

    QString dir;
    QString tool;
};
