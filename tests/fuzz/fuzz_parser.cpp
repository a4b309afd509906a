// VpnConfigParser::parseConfig. The first byte chooses the input's form: the
// connection string itself, or a JSON document that is first encoded as the
// product encodes it, so the fuzzer also explores past the outer layers.
#include "FuzzHost.h"

#include "config/VpnConfigParser.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QCoreApplication &app = fuzzApplication();
    Q_UNUSED(app);
    if (size == 0)
        return 0;
    const QByteArray rest(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    QString input;
    if (data[0] & 1)
        input = QStringLiteral("vpn://") +
                QString::fromLatin1(qCompress(rest).toBase64(QByteArray::Base64UrlEncoding |
                                                             QByteArray::OmitTrailingEquals));
    else
        input = QString::fromUtf8(rest);
    const VpnConfigParseResult result = VpnConfigParser::parseConfig(input);
    // What a success promises.
    if (result.success &&
        (result.config.protocolName.isEmpty() || result.config.protocolConfig.isEmpty() ||
         result.config.lastConfigRaw.isEmpty() || !result.errorMessage.isEmpty()))
        __builtin_trap();
    if (!result.success && result.errorMessage.isEmpty())
        __builtin_trap();
    return 0;
}
