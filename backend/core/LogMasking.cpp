#include "backend/core/LogMasking.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace LogMasking {

namespace {

const QString Mask = QString::fromLatin1(LogMask);

bool isSecretKey(const QString &key)
{
    static const char *const secrets[] = {"client_priv_key", "psk_key",     "private_key",
                                          "preshared_key",   "last_config", "lastConfigRaw",
                                          "config"};
    for (const char *secret : secrets) {
        if (key == QLatin1String(secret))
            return true;
    }
    return false;
}

QJsonValue maskValue(const QJsonValue &value);

QJsonObject maskObject(const QJsonObject &object)
{
    QJsonObject masked;
    for (auto it = object.begin(); it != object.end(); ++it) {
        // "config" is the connection string in a peer object but the parsed
        // configuration in a request: only strings are secrets.
        if (isSecretKey(it.key()) && it.value().isString())
            masked.insert(it.key(), Mask);
        else
            masked.insert(it.key(), maskValue(it.value()));
    }
    return masked;
}

QJsonValue maskValue(const QJsonValue &value)
{
    if (value.isObject())
        return maskObject(value.toObject());
    if (value.isArray()) {
        QJsonArray masked;
        for (const QJsonValue &element : value.toArray())
            masked.append(maskValue(element));
        return masked;
    }
    return value;
}

// For text that is not JSON: connection strings and Base64 keys of 32 bytes.
QString maskPatterns(QString text)
{
    static const QRegularExpression connection(QStringLiteral("vpn://[A-Za-z0-9_=-]*"));
    static const QRegularExpression key(QStringLiteral("[A-Za-z0-9+/]{42}[AEIMQUYcgkosw048]="));
    return text.replace(connection, Mask).replace(key, Mask);
}

QString escaped(const QString &text)
{
    QString result;
    result.reserve(text.size());
    for (const QChar c : text) {
        const auto category = c.category();
        if (category == QChar::Other_Control || category == QChar::Separator_Line ||
            category == QChar::Separator_Paragraph)
            result += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        else
            result += c;
    }
    return result;
}

} // namespace

QString uapiText(const QString &text)
{
    static const QRegularExpression secret(QStringLiteral("^((?:private|preshared)_key=).*$"),
                                           QRegularExpression::MultilineOption);
    return QString(text).replace(secret, QStringLiteral("\\1") + Mask);
}

QJsonObject clientConfig(const QJsonObject &config)
{
    return maskObject(config);
}

QString messageLine(const QByteArray &line)
{
    const QJsonDocument document = QJsonDocument::fromJson(line);
    if (!document.isObject())
        return escaped(maskPatterns(QString::fromUtf8(line)));
    return escaped(maskPatterns(QString::fromUtf8(
        QJsonDocument(maskObject(document.object())).toJson(QJsonDocument::Compact))));
}

QString clientValue(const QString &value)
{
    return escaped(value.left(MaxExcerptChars));
}

QString messageExcerpt(const QByteArray &line)
{
    const QString text = messageLine(line);
    if (text.size() <= MaxExcerptChars)
        return text;
    return text.left(MaxExcerptChars) + QStringLiteral("… (%1 bytes in all)").arg(line.size());
}

} // namespace LogMasking
