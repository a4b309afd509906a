#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// The log is readable by whoever reads system logs; keys and connection
// strings must not end up there. These keep a line's labels and shape and
// replace only the secrets by LogMask.
namespace LogMasking {

inline constexpr const char *LogMask = "<hidden>";

// A configuration-protocol text: the values of private_key= and preshared_key=.
QString uapiText(const QString &text);
// A client configuration: its private and preshared keys.
QJsonObject clientConfig(const QJsonObject &config);
// A request or reply line: the keys, client configurations and connection
// strings anywhere inside it; a line that is not JSON is masked by pattern.
// Whatever a client sent stays on one log line: control characters and line
// separators are escaped, so no text of its can pass for a line of the log.
QString messageLine(const QByteArray &line);
// One value a client sent (a command's name), escaped as above, at most
// MaxExcerptChars of it.
QString clientValue(const QString &value);
// The same, cut short after MaxExcerptChars, with the size said.
constexpr qsizetype MaxExcerptChars = 300;
QString messageExcerpt(const QByteArray &line);

} // namespace LogMasking
