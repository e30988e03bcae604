// What an analysis found, told in one sentence for the window's status line and the command line:
// how many copies, updates and deletes, the bytes the copies bring, and whether the backup fits on
// its device (the check the backup makes before its first change, made at the end of the analysis
// too).
//
// Threads: any; it reads the transactions and the file systems only.
#pragma once

#include "backup/BUTransaction.h"

#include <QString>

struct BUAnalysisVerdict {
    qint64 copies = 0;
    qint64 updates = 0;
    qint64 deletes = 0;
    double copyBytes = 0; // what the copies read from the sources
    bool spaceKnown = false; // the device's figures could be read
    qint64 needed = 0; // bytes the backup adds to the device, what it frees already taken off
    qint64 available = 0;
    bool fits() const { return !spaceKnown || needed <= available; }
};

// Counts the transactions and checks the space on the device named `deviceName`.
BUAnalysisVerdict AnalysisVerdictFor(const BUTransactionList &transactions, const QString &deviceName);

// "Analysis complete: ..." with the counts and sizes, and the fit when it is known.
QString AnalysisVerdictText(const BUAnalysisVerdict &verdict, const QString &deviceName);

// A byte count as people read it: from 1 to 999 bytes in bytes, else in the decimal units of
// FileSizeString ("0 KB" for none), so a few bytes never show as "0.00 KB".
QString ByteCountText(double bytes);
