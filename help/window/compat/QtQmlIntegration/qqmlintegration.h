// Debian 12's QtTextToSpeech header includes the QML registration macros from the QML module's
// development files, which a widgets program neither has nor needs. When that package is missing,
// this header stands in for it: the macros register nothing.
#pragma once

#if __has_include_next(<QtQmlIntegration/qqmlintegration.h>)
#include_next <QtQmlIntegration/qqmlintegration.h>
#else
#define QML_ELEMENT
#define QML_NAMED_ELEMENT(name)
#define QML_UNCREATABLE(reason)
#define QML_SINGLETON
#define QML_ANONYMOUS
#define QML_INTERFACE
#define QML_VALUE_TYPE(name)
#define QML_FOREIGN(type)
#define QML_EXTENDED(type)
#define QML_ATTACHED(type)
#endif
