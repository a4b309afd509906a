// Runs a fuzz target over every file of the given directories, without
// libFuzzer: how the kept inputs replay in the ordinary test suite.
#include <QDir>
#include <QFile>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char *argv[])
{
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        const QDir dir(QString::fromLocal8Bit(argv[i]));
        const QStringList names = dir.entryList(QDir::Files, QDir::Name);
        for (const QString &name : names) {
            QFile file(dir.filePath(name));
            if (!file.open(QIODevice::ReadOnly))
                continue;
            const QByteArray bytes = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()),
                                   size_t(bytes.size()));
            ++files;
        }
    }
    std::printf("replayed %d inputs\n", files);
    return 0;
}
