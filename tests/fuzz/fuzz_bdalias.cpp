// Alias data comes from files the user's other programs can write (history store, login list):
// any bytes must give an alias whose questions are answered without a crash.
#include "common/AliasRecord.h"
#include "common/BDAlias.h"

#include <QtEndian>

#include <cstdlib>

namespace {

void exercise(const QByteArray &bytes)
{
    const std::unique_ptr<BDAlias> alias = BDAlias::aliasWithData(bytes);
    if (!alias || alias->aliasData() != bytes)
        std::abort();

    alias->aliasInfo();
    alias->fullPath();
    alias->fullPathRelativeToPath(QStringLiteral("/"));

    // A record that reads must write back to the very same bytes.
    if (const std::optional<AliasRecord> record = AliasRecord::fromBytes(bytes)) {
        if (record->toBytes() != bytes)
            std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    exercise(bytes);

    // Random bytes almost never carry the right length and checksum: mend both to reach the fields.
    if (bytes.size() >= 14) {
        QByteArray mended = bytes;
        qToLittleEndian<quint32>(quint32(mended.size()), mended.data() + 8);
        const qsizetype body = mended.size() - 2;
        qToLittleEndian<quint16>(qChecksum(QByteArrayView(mended.constData(), body)), mended.data() + body);
        exercise(mended);
    }
    return 0;
}
