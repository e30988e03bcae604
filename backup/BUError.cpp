#include "backup/BUError.h"

#include <cerrno>
#include <cstring>

BUError BUError::posix(int errorNumber)
{
    return {BUErrorDomain::Posix, errorNumber, SystemErrorText(errorNumber)};
}

BUError BUError::cocoa(int code, int errorNumber)
{
    return {BUErrorDomain::Cocoa, code, SystemErrorText(errorNumber)};
}

BUError BUError::sourceRead(int errorNumber)
{
    switch (errorNumber) {
    case ENOENT:
        return cocoa(kReadNoSuchFileError, errorNumber);
    case EACCES:
    case EPERM:
        return cocoa(kReadNoPermissionError, errorNumber);
    default:
        return cocoa(kReadUnknownError, errorNumber);
    }
}

BUError BUError::deviceWrite(int errorNumber)
{
    switch (errorNumber) {
    case EACCES:
    case EPERM:
        return cocoa(kWriteNoPermissionError, errorNumber);
    case ENOSPC:
    case EDQUOT:
        return cocoa(kWriteOutOfSpaceError, errorNumber);
    case EROFS:
    case ENODEV:
        return cocoa(kWriteVolumeReadOnlyError, errorNumber);
    case ENOENT:
    case ENOTDIR:
        return cocoa(kNoSuchFileError, errorNumber);
    case EEXIST:
        return cocoa(kFileExistsError, errorNumber);
    case EXDEV:
        return {BUErrorDomain::Cocoa, kWriteUnknownError, otherFileSystem().failureReason};
    default:
        return cocoa(kWriteUnknownError, errorNumber);
    }
}

BUError BUError::otherFileSystem()
{
    return {BUErrorDomain::Posix, EXDEV,
        QStringLiteral("Another file system is mounted at this place on the device, and the backup does not enter it")};
}

BUError BUError::fileTooBig()
{
    return {BUErrorDomain::Cocoa, kWriteUnknownError,
        QStringLiteral("The device's file system can't hold files of 4 GB or more")};
}

BUError BUError::sourceChanged()
{
    return {BUErrorDomain::Cocoa, kReadUnknownError, QStringLiteral("The file changed while it was copied")};
}

QString SystemErrorText(int errorNumber)
{
    // strerrordesc_np reads a constant table: no locale, no shared buffer.
    const char *text = ::strerrordesc_np(errorNumber);
    return text ? QString::fromUtf8(text) : QStringLiteral("Unknown error %1").arg(errorNumber);
}

int CocoaDomainErrorCode(const BUError &error)
{
    switch (error.domain) {
    case BUErrorDomain::None:
        return 0;
    case BUErrorDomain::Cocoa:
        return error.code == kReadNoSuchFileError ? kNoSuchFileError : error.code;
    case BUErrorDomain::Posix:
        switch (error.code) {
        case EPERM:
            return kWriteNoPermissionError;
        case ENOENT:
            return kNoSuchFileError;
        case EACCES:
            return kReadNoPermissionError;
        case EEXIST:
            return kFileExistsError;
        case ENODEV:
        case EROFS:
            return kWriteVolumeReadOnlyError;
        case ENOSPC:
            return kWriteOutOfSpaceError;
        default:
            return 0;
        }
    }
    return 0;
}

QString ErrorReason(const BUError &error)
{
    QString reason = error.failureReason;
    if (reason.isEmpty())
        return QStringLiteral("An unknown error occurred.");
    reason.replace(QChar(0x2018), u'\'');
    reason.replace(QChar(0x2019), u'\'');
    reason.replace(QChar(0x201C), u'"');
    reason.replace(QChar(0x201D), u'"');
    return reason;
}
