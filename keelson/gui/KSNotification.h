// Desktop notifications (org.freedesktop.Notifications over the session bus). Sent without
// waiting for an answer: with no bus or no notification service nothing is shown and nothing
// fails. Main thread.
#pragma once

#include <QString>

void KSPostNotification(const QString &summary, const QString &body);
