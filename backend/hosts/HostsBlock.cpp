#include "backend/hosts/HostsBlock.h"

#include "backend/BackendConstants.h"
#include "backend/core/AtomicFile.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QHostAddress>

namespace {

const QByteArray BeginLine = QByteArray(HostsBeginMarker.data(), HostsBeginMarker.size());
const QByteArray EndLine = QByteArray(HostsEndMarker.data(), HostsEndMarker.size());

// One of our entries: an address, a tab, and a host name.
bool isEntry(const QByteArray &line)
{
    const qsizetype tab = line.indexOf('\t');
    const QByteArray name = line.mid(tab + 1);
    return tab > 0 && !name.isEmpty() && name.indexOf('\t') < 0 && name.indexOf(' ') < 0 &&
           !QHostAddress(QString::fromLatin1(line.left(tab))).isNull();
}

// The first complete block of ours: a begin line, entry lines and an end
// line, each a whole line. Returns its start and the offset just after the
// end marker (its line feed not included), or begin -1 when there is none.
// Someone else's stray marker, and whatever surrounds it, is not a block.
qsizetype findBlock(const QByteArray &text, qsizetype *end)
{
    const auto lineAt = [&text](qsizetype at, qsizetype *next) {
        qsizetype feed = text.indexOf('\n', at);
        if (feed < 0)
            feed = text.size();
        *next = feed + 1;
        return text.mid(at, feed - at);
    };
    for (qsizetype at = 0; at < text.size();) {
        qsizetype next = 0;
        if (lineAt(at, &next) == BeginLine) {
            qsizetype line = next;
            while (line < text.size()) {
                qsizetype after = 0;
                const QByteArray content = lineAt(line, &after);
                if (content == EndLine) {
                    *end = line + content.size();
                    return at;
                }
                if (!isEntry(content))
                    break;
                line = after;
            }
        }
        at = next;
    }
    return -1;
}

bool readBytes(const QString &path, QByteArray *bytes, QString *error = nullptr)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    *bytes = file.readAll();
    return true;
}

} // namespace

QString HostsBlock::controlPlaneHost()
{
    const QString domain = QCoreApplication::organizationDomain().trimmed();
    return domain.isEmpty() ? QString(OrganizationDomain) : domain;
}

// Whether pinning will have to end the file's last line before our block.
bool HostsBlock::needsLineFeed() const
{
    QByteArray text;
    qsizetype end = 0;
    return readBytes(hostsFile, &text) && findBlock(text, &end) < 0 && !text.isEmpty() &&
           !text.endsWith('\n');
}

void HostsBlock::prepare()
{
    if (!toPin.isEmpty())
        addedLineFeed = needsLineFeed();
    pinned = pinned || !toPin.isEmpty();
}

void HostsBlock::pin()
{
    pin(toPin);
    toPin.clear();
}

// The file is edited as bytes and only our block's bytes change, so that
// whatever else it holds stays exactly as it was; it is replaced in one step,
// so that a failed or interrupted write leaves the old file whole.
void HostsBlock::pin(const QStringList &addresses)
{
    const QString hostName = controlPlaneHost();
    if (hostName.isEmpty() || addresses.isEmpty())
        return;

    QByteArray text;
    QString error;
    if (!readBytes(hostsFile, &text, &error)) {
        qWarning() << "[MacVpnBackend] unable to read hosts file" << error;
        return;
    }

    QByteArray block = BeginLine + '\n';
    for (const QString &address : addresses)
        block += address.toUtf8() + '\t' + hostName.toUtf8() + '\n';
    block += EndLine + '\n';

    qsizetype end = 0;
    const qsizetype begin = findBlock(text, &end);
    if (begin >= 0) {
        text.replace(begin, qMin(end + 1, text.size()) - begin, block);
    } else {
        addedLineFeed = !text.isEmpty() && !text.endsWith('\n');
        text += (addedLineFeed ? "\n" : "") + block;
    }

    // Not torn by a power cut; lasting once the journal's next flush has run.
    if (!AtomicFile::replace(hostsFile, text, &error, AtomicFile::Sync::Data)) {
        qWarning() << "[MacVpnBackend] unable to write hosts file" << error;
        return;
    }
    qInfo() << "[MacVpnBackend] pinned control-plane host" << hostName << addresses;
}

void HostsBlock::unpin()
{
    const QString error = remove();
    pendingError = pinned ? error : QString();
    pinned = !pendingError.isEmpty();
}

// Takes out exactly what pinning put in: the block, and the line feed it
// added before it, if it did.
QString HostsBlock::remove()
{
    QByteArray text;
    QString error;
    if (!readBytes(hostsFile, &text, &error))
        return QFile::exists(hostsFile) ? error : QString();

    qsizetype end = 0;
    const qsizetype begin = findBlock(text, &end);
    if (begin < 0)
        return QString();
    text.remove(begin, qMin(end + 1, text.size()) - begin);
    if (addedLineFeed && begin == text.size() && text.endsWith('\n'))
        text.chop(1);

    if (!AtomicFile::replace(hostsFile, text, &error, AtomicFile::Sync::Data)) {
        qWarning() << "[MacVpnBackend] unable to restore hosts file" << error;
        return error;
    }
    qInfo() << "[MacVpnBackend] unpinned control-plane hosts";
    return QString();
}

void HostsBlock::retryPending()
{
    if (pendingError.isEmpty())
        return;
    pendingError = remove();
    pinned = !pendingError.isEmpty();
}

QVariantList HostsBlock::pendingSteps() const
{
    if (pendingError.isEmpty())
        return {};
    return {QVariantMap{
        {QStringLiteral("what"), QCoreApplication::translate("MacVpnBackend", "блок в %1").arg(hostsFile)},
        {QStringLiteral("error"), pendingError}}};
}

void HostsBlock::write(QJsonObject *, QJsonObject *settings) const
{
    if (pinned || !pendingError.isEmpty())
        settings->insert(QStringLiteral("hostsBlock"),
                         QJsonObject{{QStringLiteral("addedLineFeed"), addedLineFeed},
                                     {QStringLiteral("error"), pendingError}});
}

// At the take-over: what a write cut short left beside the file goes too.
void HostsBlock::read(const QJsonObject &, const QJsonObject &settings)
{
    AtomicFile::removeTemporaries(hostsFile);
    const QJsonObject block = settings.value(QLatin1String("hostsBlock")).toObject();
    pinned = settings.contains(QLatin1String("hostsBlock"));
    addedLineFeed = block.value(QLatin1String("addedLineFeed")).toBool();
    pendingError = block.value(QLatin1String("error")).toString();
}
