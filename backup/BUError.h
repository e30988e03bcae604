// Error values of the engine's file operations: a domain, a code and the failure reason, and the
// two questions every caller asks of one: which Cocoa file error it stands for, and the reason
// text to show. Plain values; any thread.
#pragma once

#include <QString>

enum class BUErrorDomain { None, Posix, Cocoa };

// Codes of the Cocoa file-error domain that the engine produces and tests.
enum BUCocoaFileError : int {
    kNoSuchFileError = 4,
    kReadUnknownError = 256,
    kReadNoPermissionError = 257,
    kReadNoSuchFileError = 260,
    kWriteUnknownError = 512,
    kWriteNoPermissionError = 513,
    kFileExistsError = 516,
    kWriteOutOfSpaceError = 640,
    kWriteVolumeReadOnlyError = 642,
    kUserCancelledError = 3072,
};

struct BUError {
    BUErrorDomain domain = BUErrorDomain::None;
    int code = 0;
    QString failureReason; // strerror's text for a system call's error

    static BUError posix(int errorNumber);
    // A Cocoa-domain code with the reason of the system error behind it.
    static BUError cocoa(int code, int errorNumber);
    // A failure to read a source item, in the Cocoa file domain: 257 no permission, 260 gone,
    // 256 anything else.
    static BUError sourceRead(int errorNumber);
    // A failure to write to the device, in the Cocoa file domain: 513 no permission, 640 full,
    // 642 read-only or gone, 4 folder missing, 516 exists, 512 anything else (another file
    // system in the way with otherFileSystem's reason).
    static BUError deviceWrite(int errorNumber);
    // What would enter another file system mounted inside the device (EXDEV, with a reason that
    // says so).
    static BUError otherFileSystem();
    // A file too big for the device's file system (FAT: 4 GiB or more); 512.
    static BUError fileTooBig();
    // A source file that changed while it was copied (256, with a reason that says so).
    static BUError sourceChanged();
    bool isError() const { return domain != BUErrorDomain::None; }
};

// The Cocoa file-error code that an error stands for: 0 for no error, the table of POSIX codes
// (1 -> 513, 2 -> 4, 13 -> 257, 17 -> 516, 19 and 30 -> 642, 28 -> 640, others 0), a Cocoa code
// unchanged except 260 -> 4, and 0 for any other domain.
int CocoaDomainErrorCode(const BUError &error);

// The text shown for an error: its failure reason, "An unknown error occurred." when it has none,
// with curly quotes straightened.
QString ErrorReason(const BUError &error);
// strerror's text, safe on any thread.
QString SystemErrorText(int errorNumber);
