// The application's help opened from a modal box ("Help" in an alert or dialog): the help window
// comes to the front at a bookmark and stays usable while the box waits for its answer. Main
// thread.
#pragma once

class KSVellumaHelpWC;
class QWidget;

// box: the modal box that asks, or null. Null when the help can't be read (the loader logged why).
KSVellumaHelpWC *OpenHelpOverBox(QWidget *box, int bookmark);
