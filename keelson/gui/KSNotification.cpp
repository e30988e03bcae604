#include "keelson/gui/KSNotification.h"

#include "keelson/KSKernel.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QStringList>
#include <QVariantMap>

void KSPostNotification(const QString &summary, const QString &body)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("/org/freedesktop/Notifications"), QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("Notify"));
    // app_name, replaces_id, app_icon, summary, body, actions, hints, expire_timeout (-1: the
    // server's default).
    call << (g_appName.isEmpty() ? QStringLiteral("Tanner Backup") : g_appName) << 0U
         << QStringLiteral("drive-harddisk") << summary << body << QStringList() << QVariantMap() << -1;
    bus.asyncCall(call);
}
