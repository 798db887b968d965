// Signals as events of the serving loop: a handler that only sets a flag and wakes the loop, so the
// callbacks of kx_signal() may do anything. No signal is ever blocked, so children inherit nothing.
#pragma once

namespace kxbus {

// The descriptor that becomes readable when a signal came, for every loop of the process; -1 when
// it cannot be had. It lives as long as the process.
int signal_descriptor();

// Calls the callbacks of the signals that came since the last time.
void deliver_signals();

}  // namespace kxbus
