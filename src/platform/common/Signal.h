#pragma once

/// The termination signals (SIGTERM, SIGINT) as ordinary events.
///
/// They are blocked in every thread from before `main` on, so that one that comes during start-up waits until
/// `registerHandler`. From then on one thread of this library takes them and calls the handlers, so a handler
/// runs in ordinary thread context and may lock. SIGHUP and SIGPIPE are ignored.
namespace common::signal {

using Handler = void (*)(int signal);

/// Starts the thread that takes the termination signals. A termination that was asked for is announced to the
/// handlers at once and again every 500 ms until the process ends, so that a handler that only notifies a
/// condition variable cannot miss its waiter; a further termination signal changes nothing. Calling it again
/// does nothing.
void registerHandler();

/// Has `handler` called at a termination; SIGINT reaches the handlers of SIGTERM as well. Safe from any
/// thread.
void registerCustomHandler(int signal, Handler handler);

}  // namespace common::signal
