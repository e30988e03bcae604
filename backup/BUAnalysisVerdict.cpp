#include "backup/BUAnalysisVerdict.h"

#include "backup/BUDevices.h"
#include "backup/BUFreeSpace.h"
#include "keelson/FormatString.h"
#include "keelson/KSStrings.h"

#include <fcntl.h>
#include <unistd.h>

BUAnalysisVerdict AnalysisVerdictFor(const BUTransactionList &transactions, const QString &deviceName)
{
    BUAnalysisVerdict verdict;
    for (const BUTransaction &transaction : transactions) {
        switch (transaction.action()) {
        case BUTransaction::kCopy:
            ++verdict.copies;
            verdict.copyBytes += transaction.fileSize();
            break;
        case BUTransaction::kUpdate:
            ++verdict.updates;
            break;
        default:
            ++verdict.deletes;
            break;
        }
    }
    const QString root = DeviceRootPath(deviceName);
    const int fd = ::open(FileNameToBytes(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return verdict;
    BUSpaceNeeds needs;
    verdict.spaceKnown = DeviceSpaceNeeds(transactions, root, fd, &needs);
    ::close(fd);
    verdict.needed = needs.needed;
    verdict.available = needs.available;
    return verdict;
}

QString ByteCountText(double bytes)
{
    if (bytes >= 1 && bytes < 1000) {
        const auto count = static_cast<long long>(bytes);
        return count == 1 ? QStringLiteral("1 byte") : FormatString("%lld bytes", count);
    }
    return FileSizeString(static_cast<long long>(static_cast<unsigned long long>(bytes)));
}

QString AnalysisVerdictText(const BUAnalysisVerdict &verdict, const QString &deviceName)
{
    QString text = FormatString("Analysis complete: %,lld to copy (%@), %,lld to update, %,lld to delete.",
        verdict.copies, ByteCountText(verdict.copyBytes), verdict.updates, verdict.deletes);
    if (!verdict.spaceKnown)
        return text;
    const QString needed = ByteCountText(double(std::max<qint64>(verdict.needed, 0)));
    const QString available = ByteCountText(double(verdict.available));
    if (verdict.fits())
        text += FormatString(" It fits on %@: %@ needed, %@ free.", deviceName, needed, available);
    else
        text += FormatString(" It does not fit on %@: %@ needed, only %@ free.", deviceName, needed, available);
    return text;
}
