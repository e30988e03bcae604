// The library's first object: gathers the process-wide facts that the rest of the program reads
// from the g_ values below. Created on the main thread before anything else runs; the values are
// written once there and only read afterwards (the appearance values of the window half change
// on the main thread alone).
#pragma once

#include <QCalendar>
#include <QString>

#include <cstdint>

extern uint32_t g_systemVersion; // major * 65536 + minor * 256 + patch (Debian 12 is 0x0C0000)
extern QString g_systemVersionString; // the system's version text, or "Unknown"
extern QString g_appVersionString; // "1.0.0"
extern QString g_appName; // "Tanner Backup"
extern QString g_bundleID; // "com.tannerwick.backup"
extern QString g_bootVolumeName; // display name of the volume at "/"
extern QCalendar g_calendar; // Gregorian
extern bool g_advancedUser; // the "Tannerwick Advanced User" file exists
extern bool g_darkMode; // set by the window half from the palette

class KSKernel {
public:
    // Gathers the facts on first call. Main thread.
    static KSKernel &sharedInstance();

    KSKernel(const KSKernel &) = delete;
    KSKernel &operator=(const KSKernel &) = delete;

    // Packs a dotted version text as major * 65536 + minor * 256 + patch; 0 when it has no number.
    static uint32_t PackVersion(const QString &text);
    // Reads VERSION_ID from an os-release file; empty when missing.
    static QString VersionIdFromOsRelease(const QString &path);
    // The per-user data folder ($XDG_DATA_HOME, ~/.local/share), created when missing.
    static QString ApplicationSupportFolder();

private:
    KSKernel();
};
