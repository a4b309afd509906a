// The backend's readers against what the real tools printed on a Mac, and
// the journal, trusted only as the service wrote it. What the backend does to
// the host, and how it runs the tools, is the system tests' business; each
// room's own decisions are tested beside it (tests/backend/*/).
#include "backend/core/HostJournal.h"
#include "backend/dns/DnsSettings.h"
#include "backend/firewall/PfctlReply.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

class TestBackend : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What the real tools printed on a Mac (tests/standins/transcripts), read
    // by the product's own readers: each record's reading is the one it holds.
    void readsTheToolsAsTheyAnswer_data()
    {
        QTest::addColumn<QJsonObject>("record");
        const QDir transcripts("tests/standins/transcripts");
        QVERIFY(transcripts.exists());
        for (const QString &release : transcripts.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            for (const QFileInfo &file :
                 QDir(transcripts.filePath(release)).entryInfoList({"*.json"})) {
                QFile records(file.filePath());
                QVERIFY(records.open(QIODevice::ReadOnly));
                for (const QJsonValue &record :
                     QJsonDocument::fromJson(records.readAll()).array()) {
                    if (record["reader"].isString())
                        QTest::newRow(qPrintable(release + ": " + record["source"].toString()))
                            << record.toObject();
                }
            }
        }
    }

    void readsTheToolsAsTheyAnswer()
    {
        QFETCH(QJsonObject, record);
        const QString out = record["stdout"].toString(), err = record["stderr"].toString();
        const QString reader = record["reader"].toString();
        QJsonValue read;
        if (reader == "pfctl-token")
            read = PfctlReply::enableToken(err);
        else if (reader == "pfctl-references")
            read = QJsonArray::fromStringList(PfctlReply::references(out));
        else if (reader == "pfctl-enabled")
            read = PfctlReply::isEnabled(out);
        else if (reader == "pfctl-reaches")
            read = PfctlReply::reachesAppleAnchors(out);
        else if (reader == "pfctl-same")
            read = PfctlReply::sameRules(out, record["rules"].toVariant().toStringList());
        else if (reader == "pfctl-gone")
            read = PfctlReply::referenceGone(err);
        else if (reader == "services")
            read = QJsonArray::fromStringList(DnsSettings::enabledServices(out));
        QCOMPARE(read, record["expect"]);
    }

    // Recovery undoes what the journal says, as root: a journal that anyone
    // but the service could have written, or that a write left unfinished,
    // is read as nothing at all.
    void journalTrustedOnlyAsWritten_data()
    {
        QTest::addColumn<QString>("tamper");
        QTest::addColumn<bool>("trusted");
        QTest::newRow("as written") << "" << true;
        QTest::newRow("writable by others") << "chmod" << false;
        QTest::newRow("a symbolic link in its place") << "link" << false;
        QTest::newRow("a pipe in its place, which would block the read") << "fifo" << false;
        QTest::newRow("cut short") << "truncate" << false;
        QTest::newRow("empty") << "empty" << false;
    }

    void journalTrustedOnlyAsWritten()
    {
        QFETCH(QString, tamper);
        QFETCH(bool, trusted);
        QTemporaryDir dir;
        const QString path = dir.filePath("Journal");
        const QString session = path + "/session.json";
        const QJsonObject route{{"routes", QJsonArray{"203.0.113.5"}}};
        QString error;
        QVERIFY(HostJournal(path).save({route, {}}, &error));
        QFile file(session);
        QVERIFY(file.open(QIODevice::ReadWrite));
        if (tamper == "chmod")
            QVERIFY(file.setPermissions(file.permissions() | QFile::WriteOther));
        else if (tamper == "link")
            QVERIFY(file.rename(path + "/elsewhere.json") &&
                    QFile::link("elsewhere.json", session));
        else if (tamper == "fifo")
            QVERIFY(file.remove() && ::mkfifo(QFile::encodeName(session).constData(), 0600) == 0);
        else if (!tamper.isEmpty())
            QVERIFY(file.resize(tamper == "empty" ? 0 : file.size() / 2));
        file.close();
        QCOMPARE(HostJournal(path).load().session, trusted ? route : QJsonObject());
    }
};

QTEST_GUILESS_MAIN(TestBackend)
#include "tst_backend.moc"
