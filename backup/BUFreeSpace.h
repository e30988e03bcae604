// Whether the copies of a backup fit on its device: what the copies need, less what the deletes
// and the replaced old copies free, against the space the device has left. Checked before the
// first change, so a device that cannot take the backup is never left half written.
//
// Threads: any; it reads the transactions and the file systems only.
#pragma once

#include "backup/BUFileStats.h"
#include "backup/BUTransaction.h"

#include <QSet>
#include <QString>

struct BUSpaceNeeds {
    qint64 needed = 0; // bytes the backup adds to the device, what it frees already taken off
    qint64 available = 0; // bytes the device has free for this user
};

// The bytes the transactions need on the device whose root folder `deviceFd` holds (its path is
// `deviceRoot`) and the bytes free there. False when the device's figures cannot be read.
// Files are counted by the blocks they take: a sparse file by its data, each rounded up to the
// device's block. The sources and the device are examined only when the plain sizes do not fit.
// oldCopyFirst, when given, receives the rows of copies whose old copy must be removed before the
// new one is written: where the device cannot hold both at that point of the run. Every other
// replaced copy is written whole beside its old one first.
// kind, when given, is the device's as its probe found it: a device without holes takes a sparse
// file whole.
bool DeviceSpaceNeeds(const BUTransactionList &transactions, const QString &deviceRoot, int deviceFd,
    BUSpaceNeeds *needs, QSet<uint32_t> *oldCopyFirst = nullptr, const BUVolumeKind *kind = nullptr);

// The items (the item itself and all inside it) of a device item at an absolute path, counted
// without following links; adds the bytes they take to *bytes.
qint64 ItemsAndBytesOfDeviceItem(const QString &path, qint64 *bytes);

// The message that stops a backup that cannot fit, naming both figures; null when it fits or
// the figures cannot be read (the copies then find out for themselves).
QString DeviceSpaceShortfall(const BUTransactionList &transactions, const QString &deviceName,
    const QString &deviceRoot, int deviceFd, QSet<uint32_t> *oldCopyFirst = nullptr,
    const BUVolumeKind *kind = nullptr);
