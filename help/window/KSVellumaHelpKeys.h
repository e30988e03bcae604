// Setting keys the help window's parts share.
#pragma once

#include <QString>

inline const QString kZoomKey = QStringLiteral("ks.helpZoom");
inline const QString kSearchKey = QStringLiteral("ks.help.search");
inline const QString kHelpFontKey = QStringLiteral("com.tannerwick.shared.helpfont");
