#pragma once

/// The termination signals (SIGTERM, SIGINT) as ordinary events.
///
/// They are blocked in every thread from the program's first instruction on, and one thread of this library
/// takes them, so a handler runs in ordinary thread context and may lock. SIGHUP and SIGPIPE are ignored.
namespace common::signal {

using Handler = void (*)(int signal);

/// Has a termination end the process at once until `registerHandler` is called: what `os::execute` runs is
/// killed, and the process exits with status 0 without running destructors. For a start-up that may be cut
/// off anywhere. Without this call a termination that comes early waits for `registerHandler`.
void exitUntilRegistered();

/// Has a termination announced to the handlers, at once and again every 500 ms until the process ends, so
/// that a handler that only notifies a condition variable cannot miss its waiter. A further termination
/// signal changes nothing. Calling it again does nothing.
///
/// The process has 3.3 s to end. After the first 2 s `os::execute` commands are killed; at the end of the
/// time the process exits with status 0 without running destructors.
void registerHandler();

/// Whether a termination is being announced.
bool isTerminating();

/// Has `handler` called at a termination; SIGINT reaches the handlers of SIGTERM as well. Safe from any
/// thread.
void registerCustomHandler(int signal, Handler handler);

}  // namespace common::signal
