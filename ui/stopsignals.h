#pragma once

#include <functional>

class QObject;

namespace tarvoqc {

// True when an X11 or Wayland display is named in the environment.
bool haveDisplay();

// SIGINT and SIGTERM become a request on the window thread: installStopSignals (before the
// application object exists, so that no signal is missed) makes the handlers, which only
// write a byte; onStopSignal (once the application exists) runs onStop in the event loop
// for each signal, for as long as context lives.
void installStopSignals();
void onStopSignal(QObject* context, std::function<void()> onStop);

} // namespace tarvoqc
