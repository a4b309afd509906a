#pragma once

#include "backend/core/HostRoom.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVariantList>

// The control-plane host pinned in /etc/hosts, in a block of ours between
// two marker lines, as one room. The file is edited as bytes and only our
// block's bytes change: unpinning takes out exactly what pinning put in, the
// line feed it added before the block included, so that whatever else the
// file holds stays as it was. It outlasts a reboot, so its record is the
// settings' share of the journal.
class HostsBlock : public HostRoom
{
public:
    explicit HostsBlock(QString hostsFile) : hostsFile(std::move(hostsFile)) {}

    static QString controlPlaneHost();

    // The addresses to pin once the lasting changes are recorded. First,
    // before anything changes, they are taken into the record; then, once it
    // is saved, pinned; or, when it could not be, forgotten.
    void expect(const QStringList &addresses) { toPin = addresses; }
    void prepare();
    void pin();
    void forget() { pinned = false; }
    void pin(const QStringList &addresses);
    void unpin();

    void retryPending() override;
    QVariantList pendingSteps() const override;
    void write(QJsonObject *session, QJsonObject *settings) const override;
    void read(const QJsonObject &session, const QJsonObject &settings) override;

private:
    bool needsLineFeed() const;
    // Empty when done, else the error.
    QString remove();

    const QString hostsFile;
    bool pinned = false;
    bool addedLineFeed = false;
    QStringList toPin;
    QString pendingError; // while our block is still in the file
};
