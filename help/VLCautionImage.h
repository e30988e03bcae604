// The picture shown in place of one that cannot be read: PNG bytes, decoded by the window.
#pragma once

#include <QByteArray>

QByteArray VLCautionImageData();
