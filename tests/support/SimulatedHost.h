#pragma once

#include <QFile>
#include <QJsonArray>
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

    // "family destination type gateway interface", as the stand-ins keep a route.
    static QJsonObject route(const QString &words)
    {
        QJsonObject route;
        for (const char *key : {"family", "destination", "type", "gateway", "interface"})
            route.insert(key, words.section(' ', route.size(), route.size()));
        return route;
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
    // Every routing socket listening loses its connection to the kernel.
    void dropRouteListeners() const { run({"drop-listeners"}); }

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

    // The same, as command lines, from the given call on.
    QStringList commandLines(qsizetype from = 0) const
    {
        QStringList lines;
        for (const QStringList &call : calls().mid(from))
            lines.append(call.join(' '));
        return lines;
    }

    // Runs one of the tools as a program on the host would.
    QByteArray runTool(const QString &path, const QStringList &arguments,
                       const QByteArray &input = QByteArray()) const
    {
        return run(arguments, input, path);
    }

    void setFaults(const QStringList &rules) const
    {
        QFile file(dir + "/faults");
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(rules.join('\n').toUtf8() + '\n');
    }

    // The pf rules in force, as the stock ruleset evaluates them: while pf is
    // enabled and the main ruleset reaches them, the anchors one level under
    // com.apple/, and no others.
    QStringList pfInForce() const
    {
        const QJsonObject pf = state().value("pf").toObject();
        QStringList rules;
        if (!pf["enabled"].toBool() || !pf["main"].toArray().contains("anchor \"com.apple/*\" all"))
            return rules;
        const QJsonObject anchors = pf["anchors"].toObject();
        for (auto it = anchors.begin(); it != anchors.end(); ++it) {
            if (it.key().startsWith("com.apple/") && it.key().count('/') == 1)
                rules += it.value().toVariant().toStringList();
        }
        return rules;
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
    QByteArray run(const QStringList &arguments, const QByteArray &input = QByteArray(),
                   const QString &program = QString()) const
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("MACSIM_STATE_DIR", dir);
        process.setProcessEnvironment(environment);
        process.start(program.isEmpty() ? tool : program, arguments);
        process.write(input);
        process.closeWriteChannel();
        process.waitForFinished();
        return process.readAllStandardOutput();
    }

    QString dir;
    QString tool;
};
